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
            self.mails.append((envelope.rcpt_tos[0].split("@")[0], email.message_from_bytes(envelope.content)))
        return "250 kept"


class Server(Controller):
    def _trigger_server(self):
        self.port = self.server.sockets[0].getsockname()[1]
        super()._trigger_server()


with tempfile.TemporaryDirectory() as folder:
    content = b"letter\r\n" if LETTER_ONLY else os.urandom(100_000)
    pathlib.Path(folder, "part.bin").write_bytes(content)
    server = Server(Inbox(), "127.0.0.1", 0)
    server.start()
    try:
        result = subprocess.run(
            [*COMMAND, "127.0.0.1", str(server.port), "part.bin", *(f"{name}@host.example" for name in ("ada", "lost", "bob"))],
            cwd=folder, text=True, capture_output=True, timeout=120, env=os.environ | {"LC_ALL": "C"})
    finally:
        server.stop()
assert result.returncode == 1 and "error 664: Dropped connection" in result.stderr, result
got = [(to, [(part.get_filename(), part.get_content_charset(), part.get_payload(decode=True)) for part in mail.get_payload()])
       for to, mail in Inbox.mails]
text = (None, "iso-8859-1", content) if LETTER_ONLY else (None, "utf-8", "Grüße\r\n".encode())
files = [("part.bin", None, content), ("note.txt", None, "Grüße\r\n".encode())]
assert got == [("ada", [text]), *([] if LETTER_ONLY else [("ada", [text, *files])]), ("bob", [text])], got
