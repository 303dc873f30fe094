#!/usr/bin/env bash
# The library's binary exports the ten names of the definition file and nothing else; it and those it loads late
# import from the system alone. Usage: binaries.sh OBJDUMP DEFINITION LIBRARY OTHER...
set -euo pipefail
objdump=$1 definition=$2 library=$3

diff <(sed '1,/^EXPORTS/d; s/ //g' "$definition" | sort) \
    <("$objdump" -p "$library" | awk '/Name Pointer\] Table/ {names = 1; next} /^$/ {names = 0} names {print $NF}' | sort)
for binary in "${@:3}"; do
    imported=$("$objdump" -p "$binary" | sed -n 's/^\tDLL Name: //p')
    if grep -viE '^(kernel32|msvcrt|advapi32|ws2_32|crypt32|bcrypt)\.dll$' <<<"$imported"; then
        echo "$binary imports from others than the system." >&2
        exit 1
    fi
done
grep -q libesmtp-6.dll "$library"
texts=$(strings --encoding=l "$library") # the older ones alone, and the version
for text in "Kein Zugriff auf Tracedatei" "No access to tracefile" ProductVersion; do
    grep -qF "$text" <<<"$texts"
done
! grep -F "No recipient specified" <<<"$texts"
