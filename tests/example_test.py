"""An example host against a real server: its mails arrive as it says, and the one between them that fails stops no other.

Usage: example_test.py [--letter] COMMAND...; with --letter the example knows one mail, a letter to each recipient.
"""

import email
import os
import pathlib
import subprocess
import sys
import tempfile

from support.inbox import Inbox

LETTER_ONLY = sys.argv[1] == "--letter"
COMMAND = [os.path.abspath(part) if os.path.exists(part) else part for part in sys.argv[1 + LETTER_ONLY:]]


with tempfile.TemporaryDirectory() as folder, Inbox() as inbox:
    content = b"letter\r\n" if LETTER_ONLY else os.urandom(100_000)
    pathlib.Path(folder, "part.bin").write_bytes(content)
    result = subprocess.run(
        [*COMMAND, "127.0.0.1", str(inbox.port), "part.bin", *(f"{name}@host.example" for name in ("ada", "lost", "", "bob"))],
        cwd=folder, text=True, capture_output=True, timeout=120, env=os.environ | {"LC_ALL": "C"})
assert result.returncode == 1, result
for failure in "error 664: Dropped connection", "error 650: No recipient specified":
    assert failure in result.stderr, result
got = [(mail.rcpt_tos[0].split("@")[0], [(part.get_filename(), part.get_content_charset(), part.get_payload(decode=True))
                                         for part in email.message_from_bytes(mail.content).get_payload()])
       for mail in inbox.mails]
text = (None, "iso-8859-1", content) if LETTER_ONLY else (None, "utf-8", "Grüße\r\n".encode())
files = [("part.bin", None, content), ("note.txt", None, "Grüße\r\n".encode())]
assert got == [("ada", [text]), *([] if LETTER_ONLY else [("ada", [text, *files])]), ("bob", [text])], got
