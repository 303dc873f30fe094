"""Packs what was built: packages.py COMMAND ... with

    zip WINDOWS DIST           the Windows zip, from the build folder WINDOWS
    nuget WINDOWS LINUX DIST   the NuGet package with the libraries of both builds and the C# layer
    wheels WINDOWS LINUX DIST  the Python layer with the library of one build, twice
    debian-documents FOLDER    copyright, changelog and manual page as the Debian packages want them
    sbom WINDOWS DIST          the bill of materials of all files in DIST, and their SHA256SUMS

The same files give the same bytes: entries are sorted and carry nothing of this machine, and their time is
SOURCE_DATE_EPOCH, where that is set.
"""

import base64
import datetime
import email.utils
import gzip
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import time
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
FIRST_ZIP_TIME = 315532800  # 1980, the earliest that the format knows
EPOCH = max(int(os.environ.get("SOURCE_DATE_EPOCH", 0)), FIRST_ZIP_TIME)
CMAKE = (ROOT / "CMakeLists.txt").read_text()
VERSION = re.search(r"project\(VelMail VERSION (\S+)", CMAKE)[1]
REVISION = f'{VERSION}-{re.search(r"VELMAIL_REVISION ([0-9]+)", CMAKE)[1]}'
AUTHORS = "VEL mail developers"
SUMMARY = "Sends mails: over SMTP to a relay, or encrypted and with a login to a company's server"
SOURCE = "https://velmail.invalid/"  # a name for documents, nothing to fetch


def one(folder, pattern):
    found = list(folder.glob(pattern))
    if len(found) != 1:
        sys.exit(f"{folder} has {len(found)} files {pattern}, wanted one. Is the build complete?")
    return found[0]


def sums(contents):
    """As sha256sum writes and checks them."""
    return "".join(f"{hashlib.sha256(data).hexdigest()}  {name}\n" for name, data in sorted(contents.items())).encode()


def write_zip(package, contents):
    package.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(package, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for entry, data in sorted(contents.items()):
            info = zipfile.ZipInfo(entry, time.gmtime(EPOCH)[:6])
            info.compress_type = zipfile.ZIP_DEFLATED
            info.external_attr = (0o100755 if entry.endswith((".sh", ".exe", ".dll", ".so")) else 0o100644) << 16
            archive.writestr(info, data)
    print(package)


def windows_libraries(build):
    return {name: (build / name).read_bytes() for name in ("VelMail64.dll", "libesmtp-6.dll", "libcurl-x64.dll")}


def terms(build):
    """The licences of what the Windows files are made of, and the sources that one of them wants to go with them."""
    esmtp = build / "esmtp-win32"
    archive = one(esmtp, "libesmtp_*.orig.tar.gz")
    system = pathlib.Path("/usr/share")
    files = {
        "LICENSE": ROOT / "LICENSE",
        "LICENSES.txt": ROOT / "docs/LICENSES.txt",
        "licenses/LGPL-2.1.txt": one(esmtp, "libesmtp-*/LICENSE"),
        "licenses/curl.txt": one(build / "curl-win32", "curl-*/COPYING"),
        "licenses/GPL-3.txt": system / "common-licenses/GPL-3",
        "licenses/gcc-runtime.txt": system / "doc/g++-mingw-w64-x86-64-posix/copyright",
        "licenses/mingw-w64.txt": system / "doc/mingw-w64-x86-64-dev/copyright",
        f"source/{archive.name}": archive,
    }
    files.update((f"source/{path.relative_to(ROOT).as_posix()}", path)
                 for path in (ROOT / "esmtp-win32").rglob("*") if path.is_file())
    return {entry: path.read_bytes() for entry, path in files.items()}


def make_zip(build, dist):
    name = f"velmail-{VERSION}-win64"
    files = {
        "README.md": ROOT / "packaging/README-windows.md",
        "velmail.exe": build / "tools/velmail.exe",
        "lib/libVelMail64.dll.a": build / "src/libVelMail64.dll.a",
        "lib/VelMail64.lib": build / "VelMail64.lib",
        "lib/VelMail64.def": ROOT / "cmake/VelMail64.def",
        "lib/cmake/VelMail/VelMailConfig.cmake": ROOT / "packaging/VelMailConfig-windows.cmake",
        "lib/cmake/VelMail/VelMailConfigVersion.cmake": build / "VelMailConfigVersion.cmake",
    }
    for pattern in ("CHANGELOG.md", "SECURITY.md", "docs/*.md", "include/*.h*", "bindings/*/*.*", "examples/*"):
        files.update((path.relative_to(ROOT).as_posix(), path) for path in ROOT.glob(pattern) if path.is_file())
    del files["docs/internals.md"]  # of the sources, which are not in here
    contents = {entry: path.read_bytes() for entry, path in files.items()}
    contents.update(terms(build) | windows_libraries(build))
    contents["SHA256SUMS"] = sums(contents)
    write_zip(dist / f"{name}.zip", {f"{name}/{entry}": data for entry, data in contents.items()})


def assembly():
    """The C# layer as Mono's compiler makes it, without the time and the random number that it puts in."""
    with tempfile.TemporaryDirectory() as folder:
        facts = pathlib.Path(folder, "facts.cs")
        facts.write_text(f'[assembly: System.Reflection.AssemblyVersion("{VERSION}.0")]\n'
                         f'[assembly: System.Reflection.AssemblyTitle("VEL mail")]\n'
                         f'[assembly: System.Reflection.AssemblyCompany("{AUTHORS}")]\n')
        library = pathlib.Path(folder, "VelMail.dll")
        subprocess.run(["mcs", "-target:library", "-optimize+", "-warnaserror+", f"-out:{library}", facts,
                        ROOT / "bindings/csharp/VelMail.cs"], check=True)
        data = bytearray(library.read_bytes())
    header = int.from_bytes(data[0x3C:0x40], "little")
    root = data.index(b"BSJB")
    guid = data.index(b"#GUID\0", root)
    start = root + int.from_bytes(data[guid - 8:guid - 4], "little")
    data[header + 8:header + 12] = bytes(4)
    data[start:start + 16] = bytes(16)
    data[start:start + 16] = hashlib.sha256(data).digest()[:16]
    return bytes(data)


NUSPEC = f"""<?xml version="1.0" encoding="utf-8"?>
<package xmlns="http://schemas.microsoft.com/packaging/2013/05/nuspec.xsd">
  <metadata>
    <id>VelMail</id>
    <version>{VERSION}</version>
    <title>VEL mail</title>
    <authors>{AUTHORS}</authors>
    <license type="expression">MIT</license>
    <readme>README.md</readme>
    <description>{SUMMARY}. The C# layer with the native library for x64 Windows and x64 Linux.</description>
    <copyright>Copyright (c) 2026 the {AUTHORS}</copyright>
    <tags>mail smtp submission native</tags>
    <dependencies>
      <group targetFramework=".NETStandard2.0" />
    </dependencies>
  </metadata>
</package>
"""
CONTENT_TYPES = """<?xml version="1.0" encoding="utf-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
  <Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml" />
  <Default Extension="psmdcp" ContentType="application/vnd.openxmlformats-package.core-properties+xml" />
{}</Types>
"""
RELATIONS = """<?xml version="1.0" encoding="utf-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
  <Relationship Type="http://schemas.microsoft.com/packaging/2010/07/manifest" Target="/VelMail.nuspec" Id="R1" />
  <Relationship Type="http://schemas.openxmlformats.org/package/2006/relationships/metadata/core-properties" \
Target="/package/services/metadata/core-properties/velmail.psmdcp" Id="R2" />
</Relationships>
"""
CORE = f"""<?xml version="1.0" encoding="utf-8"?>
<coreProperties xmlns="http://schemas.openxmlformats.org/package/2006/metadata/core-properties" \
xmlns:dc="http://purl.org/dc/elements/1.1/">
  <dc:creator>{AUTHORS}</dc:creator>
  <dc:description>{SUMMARY}</dc:description>
  <dc:identifier>VelMail</dc:identifier>
  <version>{VERSION}</version>
</coreProperties>
"""


def make_nuget(windows, linux, dist):
    contents = {
        "VelMail.nuspec": NUSPEC.encode(),
        "_rels/.rels": RELATIONS.encode(),
        "package/services/metadata/core-properties/velmail.psmdcp": CORE.encode(),
        "README.md": (ROOT / "packaging/README-nuget.md").read_bytes(),
        "lib/netstandard2.0/VelMail.dll": assembly(),
        "runtimes/linux-x64/native/libVelMail64.so": stripped(linux / "libVelMail64.so"),
    }
    contents.update((f"runtimes/win-x64/native/{name}", data) for name, data in windows_libraries(windows).items())
    contents.update(terms(windows))
    endings = {pathlib.PurePath(name).suffix[1:] for name in contents} - {"", "rels", "psmdcp"}
    kinds = [f'  <Default Extension="{each}" ContentType="application/octet" />\n' for each in sorted(endings)]
    kinds += [f'  <Override PartName="/{name}" ContentType="application/octet" />\n'
              for name in sorted(contents) if not pathlib.PurePath(name).suffix and name != "_rels/.rels"]
    contents["[Content_Types].xml"] = CONTENT_TYPES.format("".join(kinds)).encode()
    write_zip(dist / f"VelMail.{VERSION}.nupkg", contents)


def stripped(library):
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder, "library")
        subprocess.run(["strip", "--strip-unneeded", "-o", copy, library], check=True)
        return copy.read_bytes()


def make_wheel(dist, tag, files, licences):
    facts = f"velmail-{VERSION}.dist-info"
    contents = {f"velmail/{name}": data for name, data in files.items()}
    contents["velmail/__init__.py"] = (ROOT / "bindings/python/velmail.py").read_bytes()
    contents.update((f"{facts}/licenses/{name}", data) for name, data in licences.items())
    contents[f"{facts}/WHEEL"] = (f"Wheel-Version: 1.0\nGenerator: velmail ({VERSION})\nRoot-Is-Purelib: false\n"
                                  f"Tag: py3-none-{tag}\n").encode()
    contents[f"{facts}/METADATA"] = (
        f"Metadata-Version: 2.1\nName: velmail\nVersion: {VERSION}\nSummary: {SUMMARY}\nAuthor: {AUTHORS}\n"
        f"License: MIT\nRequires-Python: >=3.8\nDescription-Content-Type: text/markdown\n\n").encode()
    contents[f"{facts}/METADATA"] += (ROOT / "packaging/README-wheel.md").read_bytes()
    record = "".join("{},sha256={},{}\n".format(
        name, base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode(), len(data))
        for name, data in sorted(contents.items()))
    contents[f"{facts}/RECORD"] = f"{record}{facts}/RECORD,,\n".encode()
    write_zip(dist / f"velmail-{VERSION}-py3-none-{tag}.whl", contents)


def make_wheels(windows, linux, dist):
    make_wheel(dist, "win_amd64", windows_libraries(windows), terms(windows))
    make_wheel(dist, "manylinux_2_36_x86_64", {"libVelMail64.so": stripped(linux / "libVelMail64.so")},
               {"LICENSE": (ROOT / "LICENSE").read_bytes()})


def make_debian_documents(folder):
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "copyright").write_bytes((ROOT / "packaging/debian-copyright").read_bytes())
    maintainer = re.search(r'VELMAIL_MAINTAINER "(.*)" CACHE', (ROOT / "cmake/DebianPackages.cmake").read_text())[1]
    entries = []
    text = (ROOT / "CHANGELOG.md").read_text()
    for revision, when, body in re.findall(r"^## \[(\S+)\] - (\S+)\n(.*?)(?=^## |\Z)", text, re.M | re.S):
        moment = (datetime.datetime.fromtimestamp(EPOCH, datetime.timezone.utc) if when == "unreleased"
                  else datetime.datetime.fromisoformat(when + "T00:00+00:00"))
        points = re.findall(r"^- (.*(?:\n  .*)*)", re.sub(r"\[([^]]*)\]\([^)]*\)|`", r"\1", body), re.M)
        lines = [textwrap.fill(" ".join(each.split()), 78, initial_indent="  * ", subsequent_indent="    ")
                 for each in points]
        entries.append("\n".join([f"velmail ({revision}) unstable; urgency=medium", "", *lines, "",
                                  f" -- {maintainer}  {email.utils.format_datetime(moment)}", ""]))
    for name, data in (("changelog.Debian", "\n".join(entries).encode()), ("velmail.1", (ROOT / "tools/velmail.1").read_bytes())):
        (folder / f"{name}.gz").write_bytes(gzip.compress(data, 9, mtime=0))


def installed(package):
    return subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], check=True, capture_output=True,
                          text=True).stdout


def make_sbom(windows, dist):
    """What is shipped, what is inside of it, and what it wants of the system, as SPDX 2.3."""
    def package(identifier, name, version, licence, **more):
        return {"SPDXID": f"SPDXRef-{identifier}", "name": name, "versionInfo": version, "supplier": "NOASSERTION",
                "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
                "licenseDeclared": licence, "copyrightText": "NOASSERTION", **more}

    def checksum(data):
        return [{"algorithm": "SHA256", "checksumValue": hashlib.sha256(data).hexdigest()}]

    def locator(name, version):
        return [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                 "referenceLocator": f"pkg:deb/debian/{name}@{version.replace('+', '%2B')}"}]

    esmtp = one(windows / "esmtp-win32", "libesmtp_*.orig.tar.gz")
    patches = one(windows / "curl-win32", "curl_*.debian.tar.xz")
    curl_version = patches.name.removeprefix("curl_").removesuffix(".debian.tar.xz")
    gcc, mingw = installed("gcc-mingw-w64-x86-64-posix-runtime"), installed("mingw-w64-x86-64-dev")
    inside = [
        package("libesmtp", "libesmtp", "1.1.0", "LGPL-2.1-or-later", checksums=checksum(esmtp.read_bytes()),
                packageFileName=esmtp.name, externalRefs=locator("libesmtp", "1.1.0")),
        package("curl", "curl", curl_version, "curl", externalRefs=locator("curl", curl_version),
                comment=f"With the patches in {patches.name}, SHA256 {hashlib.sha256(patches.read_bytes()).hexdigest()}"),
        package("gcc-runtime", "gcc-mingw-w64", gcc, "GPL-3.0-or-later WITH GCC-exception-3.1",
                externalRefs=locator("gcc-mingw-w64", gcc)),
        package("mingw-w64", "mingw-w64", mingw, "NOASSERTION", externalRefs=locator("mingw-w64", mingw)),
    ]
    wanted = [package(name, name, installed(name), licence, externalRefs=locator(name, installed(name)))
              for name, licence in (("libesmtp6", "LGPL-2.1-or-later"), ("libcurl4", "curl"),
                                    ("libstdc++6", "GPL-3.0-or-later WITH GCC-exception-3.1"))]
    for each in wanted:
        each["SPDXID"] = re.sub(r"[^A-Za-z0-9.-]", "-", each["SPDXID"])
    shipped, relations = [], []
    for path in sorted(dist.iterdir()):
        if path.name == "SHA256SUMS" or path.name.endswith(".spdx.json"):
            continue
        identifier = "file-" + re.sub(r"[^A-Za-z0-9.-]", "-", path.name)
        shipped.append(package(identifier, path.name, REVISION, "MIT", packageFileName=path.name,
                               checksums=checksum(path.read_bytes())))
        relations.append(("SPDXRef-DOCUMENT", "DESCRIBES", f"SPDXRef-{identifier}"))
        if "win" in path.name or path.suffix == ".nupkg":
            relations += [(f"SPDXRef-{identifier}", "CONTAINS", each["SPDXID"]) for each in inside]
        if "linux" in path.name or path.suffix == ".nupkg" or path.name.startswith("libvelmail64-1_"):
            relations += [(f"SPDXRef-{identifier}", "DEPENDS_ON", each["SPDXID"]) for each in wanted]
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"velmail-{REVISION}",
        "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(EPOCH)),
                         "creators": [f"Organization: {AUTHORS}", "Tool: scripts/package"]},
        "packages": shipped + inside + wanted,
        "relationships": [{"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}
                          for one, kind, other in relations],
    }
    mark = hashlib.sha256(json.dumps(document).encode()).hexdigest()[:32]
    document["documentNamespace"] = f"{SOURCE}spdx/velmail-{REVISION}-{mark}"
    (dist / f"velmail-{VERSION}.spdx.json").write_text(json.dumps(document, indent=1) + "\n")
    listed = {path.name: path.read_bytes() for path in dist.iterdir() if path.name != "SHA256SUMS"}
    (dist / "SHA256SUMS").write_bytes(sums(listed))


COMMANDS = {"zip": make_zip, "nuget": make_nuget, "wheels": make_wheels, "debian-documents": make_debian_documents,
            "sbom": make_sbom}

if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in COMMANDS:
        sys.exit(__doc__)
    COMMANDS[sys.argv[1]](*map(pathlib.Path, sys.argv[2:]))
