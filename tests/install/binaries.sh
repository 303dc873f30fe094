#!/usr/bin/env bash
# The library's binary exports the ten names of the definition file and nothing else; it and the transport's import
# from the system alone, but for the transport, which is loaded late. Usage: binaries.sh OBJDUMP DEFINITION LIBRARY TRANSPORT
set -euo pipefail
objdump=$1 definition=$2 library=$3 transport=$4

diff <(sed '1,/^EXPORTS/d; s/ //g' "$definition" | sort) \
    <("$objdump" -p "$library" | awk '/Name Pointer\] Table/ {names = 1; next} /^$/ {names = 0} names {print $NF}' | sort)
for binary in "$library" "$transport"; do
    imported=$("$objdump" -p "$binary" | sed -n 's/^\tDLL Name: //p')
    if grep -viE '^(kernel32|msvcrt|advapi32|ws2_32)\.dll$' <<<"$imported"; then
        echo "$binary imports from others than the system." >&2
        exit 1
    fi
done
grep -q libesmtp-6.dll "$library"
