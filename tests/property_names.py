"""The lists of property names agree: the code's, the header's, the document's two and the command-line host's."""

import pathlib
import re
import subprocess
import sys

ROOT, TOOL = pathlib.Path(sys.argv[1]), sys.argv[2]


def names(pattern, text):
    found = re.findall(pattern, text, re.MULTILINE)
    assert found and len(found) == len(set(found)), (pattern, found)
    return set(found)


document = (ROOT / "docs/properties.md").read_text()
lists = {
    "the code": names(r'"(\w+)", \*this', "".join(path.read_text() for path in sorted((ROOT / "src").glob("*.h")))),
    "include/velmail.h": names(r"^ \* (\w+) +(?:text|list|bool) ", (ROOT / "include/velmail.h").read_text()),
    "the sections of docs/properties.md": names(r"^### ((?:Mail|Use)\w+)$", document),
    "the table of docs/properties.md": names(r"^\| \[`(\w+)`\]", document),
    "velmail --help": names(r"^  (\w+) +(?:text|list|flag|@file|read\S*) ",
                            subprocess.run([TOOL, "--help"], capture_output=True, text=True, check=True).stdout),
}
code = lists["the code"]
wrong = [f"{where}: without {sorted(code - found)}, and of its own {sorted(found - code)}"
         for where, found in lists.items() if found != code]
print("\n".join(wrong) or f"{len(code)} names in {len(lists)} lists")
sys.exit(bool(wrong))
