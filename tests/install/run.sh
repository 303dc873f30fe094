#!/usr/bin/env bash
# Installs the built library into a folder of its own and builds a small host against it, once through its CMake
# package and once through pkg-config; the second one is the README's.
set -euo pipefail
build=$(readlink -f "$1")
source=$(dirname "$(readlink -f "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/tree" >/dev/null

mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(Host LANGUAGES C)
find_package(VelMail 1.3 REQUIRED)
add_executable(host host.c)
target_compile_options(host PRIVATE -std=c99 -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(host PRIVATE VelMail::VelMail64)
END
cp "$source/host.c" "$work/host"
cmake -S "$work/host" -B "$work/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" >/dev/null
cmake --build "$work/host/build" >/dev/null
"$work/host/build/host"

pkgconfig=$(dirname "$(find "$work/tree" -name velmail.pc)")
read -ra flags <<<"$(PKG_CONFIG_PATH=$pkgconfig pkg-config --define-variable=prefix="$work/tree" --cflags --libs velmail)"
example=$source/../../examples/host.c
diff <(awk '/^```c$/{f=1;next} /^```$/{f=0} f' "$source/../../README.md") "$example"
cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$example" "${flags[@]}" -o "$work/host/host"
cd "$work"
said=$(LD_LIBRARY_PATH=$(dirname "$pkgconfig") LC_ALL=C "$work/host/host" 2>&1) && exit 1
[ "$said" = "send: error 695: Error with Mail Text" ]

"$work/tree/bin/velmail" --version
echo "The installed tree serves both kinds of hosts."
