#!/usr/bin/env bash
# Packs the Windows build, unpacks it in a folder with a blank in its name and works with what is there, as a user of
# the package would: the checksums, hosts built in each way that the documents name, a mail sent from another folder, and the
# transport built from the package's own source.
set -euo pipefail
build=$(readlink -f "$1")
root=$(dirname "$(readlink -f "$0")")/../..
python=/usr/bin/python3 # the one that Debian's aiosmtpd is installed for

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$python" "$root/scripts/packages.py" zip "$build" dist >/dev/null
"$python" -m zipfile -e dist/velmail-*-win64.zip "un packed"
package=$(echo "$work/un packed"/velmail-*-win64)
(cd "$package" && sha256sum --check --quiet --strict SHA256SUMS)
[ "$(find "$package" -type f | wc -l)" -eq "$(($(wc -l <"$package/SHA256SUMS") + 1))" ]

# What the documents lead to is in the package.
(cd "$package" && grep -oE '\]\([^)#:]+\)' README.md docs/*.md) | while IFS=: read -r document link; do
    link=${link#](}
    ls "$package/$(dirname "$document")/${link%)}" >/dev/null
done

# Each program says what it must, so it has found the library.
runs() {
    said=$("$root/scripts/wine-run" "$1" localhost 25 missing.txt you@example.com 2>&1 | tr -d '\r') && exit 1
    diff <(echo "send: error 695: Error with Mail Text") - <<<"$said"
}
(cd "$package" && eval "$(grep -E '^x86_64-w64-mingw32-gcc ' docs/windows.md)")
runs "$package/host.exe"

# As Microsoft's linker does it, and put off to the first call.
system=/usr/x86_64-w64-mingw32/lib
x86_64-w64-mingw32-gcc-posix -std=c99 -c "$package/examples/host.c" -I"$package/include"
lld-link -lldmingw -alternatename:__image_base__=__ImageBase -subsystem:console -entry:mainCRTStartup \
    "-out:$package/delayed.exe" $system/crt2.o host.o "$package/lib/VelMail64.lib" -delayload:VelMail64.dll \
    $system/lib{delayimp,mingw32}.a "$(x86_64-w64-mingw32-gcc-posix -print-libgcc-file-name)" \
    $system/lib{mingwex,msvcrt,kernel32,advapi32,shell32,user32}.a
llvm-readobj --coff-imports "$package/delayed.exe" | grep -A1 '^DelayImport' | grep -q 'VelMail64.dll$'
runs "$package/delayed.exe"

mkdir host
{
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(Host LANGUAGES C)\n'
    awk '/^```cmake$/{f=1;next} /^```$/{f=0} f' "$package/docs/windows.md"
} >host/CMakeLists.txt
cp "$package/examples/host.c" host
cmake -S host -B host/build -G Ninja --toolchain "$root/cmake/mingw-w64.cmake" "-DVelMail_DIR=$package/lib/cmake/VelMail" >/dev/null
cmake --build host/build >/dev/null
runs host/build/host.exe

# Company, copyright and one version in each file; what hardens it.
for file in VelMail64.dll libesmtp-6.dll libcurl-x64.dll velmail.exe; do
    flags=$(x86_64-w64-mingw32-objdump -p "$package/$file")
    for wanted in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
        grep -q $wanted <<<"$flags"
    done
    "$python" - "$package/$file" <<'END'
import re, struct, sys
data = open(sys.argv[1], "rb").read()
def text(name):
    value = re.search(re.escape(name.encode("utf-16le")) + rb"(?:\0\0)+((?:[^\0]\0)+)", data)
    return value and value[1].decode("utf-16le")
assert text("CompanyName") and text("LegalCopyright"), sys.argv[1]
if "elmail" in sys.argv[1].split("/")[-1].lower():
    numbers = struct.unpack_from("<4H4H", data, data.index(b"\xbd\x04\xef\xfe") + 8)
    versions = {text("FileVersion"), text("ProductVersion"),
                *("{1}.{0}.{3}.{2}".format(*part) for part in (numbers[:4], numbers[4:]))}
    assert versions == {re.search("velmail-([0-9.]+)-win64", sys.argv[1])[1] + ".0"}, versions
END
done

printf 'Hello\n' >letter.txt
head -c 100000 /dev/urandom >picture.bin
mkdir inbox
coproc SERVER { exec "$python" "$root/scripts/demo_server.py" serve inbox; }
read -r port <&"${SERVER[0]}"
"$root/scripts/wine-run" "$package/velmail.exe" MailServer=127.0.0.1 "MailServerPort=$port" \
    MailSenderMailBox=a@host.example MailRecipientsMailBox=b@host.example MailSubject=Test MailTextFilename=letter.txt \
    MailAttachmentFilename=picture.bin MailAttachmentMimeType=application/octet-stream
"$python" "$root/scripts/demo_server.py" show inbox --sender a@host.example --to b@host.example --subject Test \
    --text letter.txt --attachment picture.bin

cd "$package/source"
sh esmtp-win32/build.sh libesmtp_*.orig.tar.gz
cmp libesmtp-6.dll ../libesmtp-6.dll
