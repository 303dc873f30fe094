#!/usr/bin/env bash
# Installs the built library into a folder of its own and builds the README's host against it, once through its
# CMake package and once through pkg-config, and the host in C++.
set -euo pipefail
build=$(readlink -f "$1")
source=$(dirname "$(readlink -f "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/tree" # it may be moved

mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(Host LANGUAGES C CXX)
find_package(VelMail 1.3 REQUIRED)
add_executable(host host.c)
target_compile_options(host PRIVATE -std=c99 -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(host PRIVATE VelMail::VelMail64)
add_executable(cpphost host.cpp)
target_compile_options(cpphost PRIVATE -std=c++17 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
target_link_libraries(cpphost PRIVATE VelMail::VelMail64)
END
example=$source/../../examples/host.c
diff <(awk '/^```c$/{f=1;next} /^```$/{f=0} f' "$source/../../README.md") "$example"
cp "$example" "${example%.c}.cpp" "$work/host"
cmake -S "$work/host" -B "$work/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" >/dev/null
cmake --build "$work/host/build" >/dev/null

PKG_CONFIG_PATH=$(dirname "$(find "$work/tree" -name velmail.pc)")
export PKG_CONFIG_PATH
library=$(pkg-config --variable=libdir velmail)
read -ra flags <<<"$(pkg-config --cflags --libs velmail)"
cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$example" "${flags[@]}" "-Wl,-rpath,$library" -o "$work/host/host"
[ "$(readlink "$library/libVelMail64.so")" = libVelMail64.so.1 ]
[ "$(readlink "$library/libVelMail64.so.1")" = "libVelMail64.so.$(pkg-config --modversion velmail)" ]
cd "$work"
for host in "$work/host/build/host" "$work/host/host"; do
    readelf -d "$host" | grep -q 'NEEDED.*\[libVelMail64\.so\.1\]'
    said=$(LC_ALL=C "$host" localhost 25 missing.txt you@example.com 2>&1) && exit 1
    [ "$said" = "send: error 695: Error with Mail Text" ]
done

said=$(LC_ALL=C "$work/host/build/cpphost" localhost 1 missing.txt you@example.com 2>&1) && exit 1
[ "$said" = "send: error 682: Error not known" ]
c++ -std=c++17 -fno-exceptions -fsyntax-only -Wall -Wextra -Werror "${flags[@]}" -x c++ - <<<'#include <velmail.hpp>
bool send(const velmail::Mail& mail) { auto c = velmail::ResultConnection::Open({}); return c && c->Send(mail); }'

"$work/tree/bin/velmail" --version
echo "The installed tree serves both kinds of hosts."
