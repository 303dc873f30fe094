"""An example host against a real server: its mails arrive as it says, and the one between them that fails stops no other.

Usage: example_test.py [--letter] COMMAND...; with --letter the example knows one mail, a letter to each recipient.
"""

import email
import os
import pathlib
import subprocess
import sys
import tempfile

from aiosmtpd.controller import Controller

LETTER_ONLY = sys.argv[1] == "--letter"
COMMAND = [os.path.abspath(part) if os.path.exists(part) else part for part in sys.argv[1 + LETTER_ONLY:]]


class Inbox:
    mails = []

    async def handle_DATA(self, server, session, envelope):
        if envelope.rcpt_tos == ["lost@host.example"]:
            server.transport.abort()  # the code of this failure comes late
        else:
            self.mails.append((envelope.rcpt_tos, email.message_from_bytes(envelope.content)))
        return "250 kept"


with tempfile.TemporaryDirectory() as folder:
    server = Controller(Inbox(), "127.0.0.1", 0)
    server.start()
    port = server.server.sockets[0].getsockname()[1]
    content = os.urandom(100_000)
    pathlib.Path(folder, "part.bin").write_bytes(b"letter" if LETTER_ONLY else content)
    recipients = ["ada@host.example", "lost@host.example", "bob@host.example"]
    try:
        result = subprocess.run([*COMMAND, "127.0.0.1", str(port), "part.bin", *recipients], cwd=folder, text=True,
                                capture_output=True, timeout=120, env=os.environ | {"LC_ALL": "C"})
    finally:
        server.stop()
assert result.returncode == 1 and "error 664: Dropped connection" in result.stderr, result
got = [(to, [(part.get_filename(), part.get_payload(decode=True)) for part in mail.get_payload()]) for to, mail in Inbox.mails]
sent = got[0][1]
assert sent[0][0] is None and sent[0][1].strip(), got
wanted = [([recipients[0]], sent)]
if not LETTER_ONLY:  # a text, two attachments, and a text that goes to the others
    wanted.append((wanted[0][0], [got[1][1][0], ("part.bin", content), ("note.txt", "Grüße\r\n".encode())]))
wanted.append(([recipients[2]], got[-1][1]))
assert got == wanted, got
