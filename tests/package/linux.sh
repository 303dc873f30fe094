#!/usr/bin/env bash
# Installs, uses and removes the packages in the folder DIST as their users would: linux.sh DIST. The Debian packages go into
# a throw-away root, which only root can make.
set -euo pipefail
dist=$(readlink -f "$1")
root=$(readlink -f "$(dirname "$(readlink -f "$0")")/../..")
python=/usr/bin/python3 # the one that Debian's aiosmtpd is installed for

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
(cd "$dist" && sha256sum --check --quiet --strict SHA256SUMS)

mkdir inbox layer
printf 'Hello\n' >letter.txt
coproc SERVER { exec "$python" "$root/scripts/demo_server.py" serve inbox; }
read -r port <&"${SERVER[0]}"
arrived() { # COUNT SUBJECT
    [ "$(grep -l "^Subject: $2" inbox/*.eml | wc -l)" -eq "$1" ] || { echo "Not $1 mails '$2' have arrived." >&2 && exit 1; }
}

lintian "$dist"/*.deb
if [ "$(id -u)" -eq 0 ]; then
    unshare --mount --propagation private "$root/tests/package/debian.sh" "$dist" "$root" "$work" "$port"
    arrived 1 "From the shell"
    arrived 2 Hello
else
    echo "The Debian packages were not installed: that needs root." >&2
fi

# Each wheel as pip installs it; the one for Windows is only compared, since Wine has no Python.
"$python" -m pip install -q --no-index --target linux "$dist"/velmail-*-manylinux_*.whl
PYTHONPATH=linux "$python" -c 'import sys, velmail
with velmail.connect("127.0.0.1", sys.argv[1]) as connection:
    connection.send(velmail.Mail(sender="me@example.com", to="you@example.com", subject="From the wheel", text="Hello"))
assert "/linux/velmail/libVelMail64.so" in open("/proc/self/maps").read()' "$port"
arrived 1 "From the wheel"
"$python" -m pip install -q --no-index --target windows --platform win_amd64 --only-binary :all: "$dist"/velmail-*-win_amd64.whl

"$python" -m zipfile -e "$dist"/VelMail.*.nupkg nuget
cat >host.cs <<'END'
using VelMail;
class Host
{
    static void Main(string[] arguments)
    {
        using (var connection = new Connection(new Settings { Server = "127.0.0.1", Port = arguments[0] }))
            connection.Send(new Mail { From = "me@example.com", To = { "you@example.com" }, Subject = "From .NET", Text = "Hello" });
    }
}
END
mcs -r:nuget/lib/netstandard2.0/VelMail.dll host.cs
MONO_PATH=nuget/lib/netstandard2.0 LD_LIBRARY_PATH=nuget/runtimes/linux-x64/native mono host.exe "$port"
arrived 1 "From .NET"

"$python" -m zipfile -e "$dist"/velmail-*-win64.zip zip
for library in VelMail64.dll libesmtp-6.dll libcurl-x64.dll; do
    cmp zip/*/$library windows/velmail/$library
    cmp zip/*/$library nuget/runtimes/win-x64/native/$library
done

# The bill of materials names every package with its checksum, and nothing that it does not describe.
"$python" - "$dist" <<'END'
import hashlib, json, pathlib, sys
dist = pathlib.Path(sys.argv[1])
document = json.loads(next(dist.glob("*.spdx.json")).read_text())
assert document["spdxVersion"] == "SPDX-2.3" and document["documentNamespace"].startswith("https://")
packages = {each["SPDXID"]: each for each in document["packages"]}
assert len(packages) == len(document["packages"]), "an identifier is used twice"
for each in packages.values():
    assert {"name", "versionInfo", "downloadLocation", "licenseDeclared"} <= set(each), each
related = {end for each in document["relationships"] for end in (each["spdxElementId"], each["relatedSpdxElement"])}
assert related == set(packages) | {"SPDXRef-DOCUMENT"}, related ^ set(packages)
listed = {each["name"]: each["checksums"][0]["checksumValue"] for name, each in packages.items() if "-file-" in name}
files = {path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in dist.iterdir()
         if path.name != "SHA256SUMS" and not path.name.endswith(".json")}
assert listed == files, (listed, files)
END
echo "The packages for Linux, Python and .NET serve their users."
