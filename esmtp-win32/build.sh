#!/bin/sh
# Builds libesmtp-6.dll in the current folder without the rest of VEL mail, from the file of libESMTP's unedited
# sources: sh build.sh libesmtp_VERSION.orig.tar.gz. Compiles with CC, which must be GCC of mingw-w64 with POSIX threads
# and the C library msvcrt.dll, and the resource with WINDRES.
set -eu
if [ $# -ne 1 ]; then
    echo "Usage: $0 libesmtp_VERSION.orig.tar.gz" >&2
    exit 2
fi
layer=$(dirname "$(readlink -f "$0")")
archive=$(readlink -f "$1")
target=$PWD

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tar -xzf "$archive" --strip-components=1 -C "$work"
cd "$work"
rm tlsutils.c # for TLS, which is off
compile() {
    ${CC:-x86_64-w64-mingw32-gcc-posix} -std=gnu11 -O3 -w -I"$layer/include" -I. -D_WIN32_WINNT=0x0601 \
        -DWIN32_LEAN_AND_MEAN -D__USE_MINGW_ANSI_STDIO=1 "$@"
}
compile -include "$layer/compat.h" -c *.c
compile -c "$layer/esmtp_win32.c" -o win32.o
${WINDRES:-x86_64-w64-mingw32-windres} -O coff "$layer/libesmtp-6.rc" resource.res
compile -shared -static -s -Wl,--no-insert-timestamp -o libesmtp-6.dll *.o resource.res "$layer/libesmtp-6.def" -lws2_32 -lkernel32
mv libesmtp-6.dll "$target"
