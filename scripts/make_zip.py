"""Packs the Windows build: make_zip.py BUILD FOLDER writes FOLDER/velmail-VERSION-win64.zip and FOLDER/SHA256SUMS.

The same files give the same bytes: the entries are sorted and carry nothing of this machine, and their time is
SOURCE_DATE_EPOCH, where that is set.
"""

import hashlib
import os
import pathlib
import re
import sys
import time
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
FIRST_ZIP_TIME = 315532800  # 1980, the earliest that the format knows


def one(folder, pattern):
    found = list(folder.glob(pattern))
    if len(found) != 1:
        sys.exit(f"{folder} has {len(found)} files {pattern}, wanted one. Is the build complete?")
    return found[0]


def collect(build):
    """The package's files by their names in it."""
    esmtp = build / "esmtp-win32"
    archive = one(esmtp, "libesmtp_*.orig.tar.gz")
    system = pathlib.Path("/usr/share")
    files = {
        "VelMail64.dll": build / "VelMail64.dll",
        "libesmtp-6.dll": build / "libesmtp-6.dll",
        "libcurl-x64.dll": build / "libcurl-x64.dll",
        "velmail.exe": build / "tools/velmail.exe",
        "lib/libVelMail64.dll.a": build / "src/libVelMail64.dll.a",
        "lib/VelMail64.lib": build / "VelMail64.lib",
        "lib/VelMail64.def": ROOT / "cmake/VelMail64.def",
        "LICENSES.txt": ROOT / "docs/LICENSES.txt",
        "licenses/LGPL-2.1.txt": one(esmtp, "libesmtp-*/LICENSE"),
        "licenses/curl.txt": one(build / "curl-win32", "curl-*/COPYING"),
        "licenses/GPL-3.txt": system / "common-licenses/GPL-3",
        "licenses/gcc-runtime.txt": system / "doc/g++-mingw-w64-x86-64-posix/copyright",
        "licenses/mingw-w64.txt": system / "doc/mingw-w64-x86-64-dev/copyright",
        f"source/{archive.name}": archive,
    }
    for pattern in ("README.md", "docs/*.md", "include/*.h", "bindings/*/*.*", "examples/*"):
        files.update((path.relative_to(ROOT).as_posix(), path) for path in ROOT.glob(pattern))
    files.update((f"source/{path.relative_to(ROOT).as_posix()}", path)
                 for path in (ROOT / "esmtp-win32").rglob("*") if path.is_file())
    return files


def sums(contents):
    """As sha256sum writes and checks them."""
    return "".join(f"{hashlib.sha256(data).hexdigest()}  {name}\n" for name, data in sorted(contents.items())).encode()


def main():
    build, folder = map(pathlib.Path, sys.argv[1:])
    version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.+)$", (build / "CMakeCache.txt").read_text(), re.M)[1]
    name = f"velmail-{version}-win64"
    when = time.gmtime(max(int(os.environ.get("SOURCE_DATE_EPOCH", 0)), FIRST_ZIP_TIME))
    contents = {entry: path.read_bytes() for entry, path in collect(build).items()}
    contents["SHA256SUMS"] = sums(contents)
    folder.mkdir(parents=True, exist_ok=True)
    package = folder / f"{name}.zip"
    with zipfile.ZipFile(package, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for entry, data in sorted(contents.items()):
            info = zipfile.ZipInfo(f"{name}/{entry}", when[:6])
            info.compress_type = zipfile.ZIP_DEFLATED
            info.external_attr = (0o100755 if entry.endswith((".sh", ".exe", ".dll")) else 0o100644) << 16
            archive.writestr(info, data)
    (folder / "SHA256SUMS").write_bytes(sums({package.name: package.read_bytes()}))
    print(package)


if __name__ == "__main__":
    main()
