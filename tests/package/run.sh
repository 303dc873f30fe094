#!/usr/bin/env bash
# Packs the Windows build, unpacks it in a folder with a blank in its name and works with what is there, as a user of
# the package would: the checksums, hosts by both import libraries, a mail sent from another folder, and the transport
# built from the package's own source.
set -euo pipefail
build=$(readlink -f "$1")
root=$(dirname "$(readlink -f "$0")")/../..
python=/usr/bin/python3 # the one that Debian's aiosmtpd is installed for

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$python" "$root/scripts/make_zip.py" "$build" dist >/dev/null
(cd dist && sha256sum --check --quiet --strict SHA256SUMS)
"$python" -m zipfile -e dist/velmail-*-win64.zip "un packed"
package=$(echo "$work/un packed"/velmail-*-win64)
(cd "$package" && sha256sum --check --quiet --strict SHA256SUMS)
[ "$(find "$package" -type f | wc -l)" -eq "$(($(wc -l <"$package/SHA256SUMS") + 1))" ]

# What the documents lead to is in the package.
(cd "$package" && grep -oE '\]\([^)#:]+\)' README.md docs/*.md) | while IFS=: read -r document link; do
    link=${link#](}
    ls "$package/$(dirname "$document")/${link%)}" >/dev/null
done

for library in libVelMail64.dll.a VelMail64.lib; do
    x86_64-w64-mingw32-gcc-posix -std=c99 "$package/examples/host.c" -I"$package/include" "$package/lib/$library" \
        -o "$package/host.exe"
    said=$("$root/scripts/wine-run" "$package/host.exe" localhost 25 missing.txt you@example.com 2>&1 | tr -d '\r') && exit 1
    diff <(echo "send: error 695: Error with Mail Text") - <<<"$said"
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

# The time of the packing leaves no mark.
cd "$work"
"$python" "$root/scripts/make_zip.py" "$build" again >/dev/null
cmp dist/velmail-*-win64.zip again/velmail-*-win64.zip
