"""The command-line host and a real server: each mail must arrive as its inputs say, byte for byte."""

import asyncio
import base64
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest

from aiosmtpd.smtp import SMTP

TOOL = os.path.abspath(sys.argv.pop(1))


class Inbox:
    """A server on a free loopback port, on a thread of its own."""

    def __init__(self):
        self.mails = []
        self.loop = asyncio.new_event_loop()
        serve = self.loop.create_server(lambda: SMTP(self, data_size_limit=10**9, loop=self.loop), "127.0.0.1", 0)
        self.server = self.loop.run_until_complete(serve)
        self.port = self.server.sockets[0].getsockname()[1]
        self.thread = threading.Thread(target=self.loop.run_forever)
        self.thread.start()

    def stop(self):
        self.loop.call_soon_threadsafe(self.server.close)
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.loop.close()

    async def handle_DATA(self, server, session, envelope):
        self.mails.append(envelope)
        return "250 kept"


def wanted(boundary, type_line, text, attachments):
    """The composed text, from its first blank line on."""
    b = b"--" + boundary
    out = b"MIME-Version: 1.0\r\n" + b + b"\r\nContent-Type: " + type_line + b"\r\n"
    out += b"Content-Transfer-Encoding: 8bit\r\n\r\n" + text.replace(b"\n", b"\r\n") + b"\r\n"
    for name, content in attachments:
        if content:
            out += b + b'\r\nContent-Type: text/plain; name="' + name + b'"\r\nContent-Transfer-Encoding: base64\r\n'
            out += b'Content-Disposition: inline; filename="' + name + b'"\r\n\r\n'
            lines = [base64.b64encode(content[i : i + 57]) + b"\r\n" for i in range(0, len(content), 57)]
            out += b"".join(lines)
        out += b"\r\n"
    return out + b + b"--\r\n"


class CommandLineHost(unittest.TestCase):
    def setUp(self):
        self.inbox = Inbox()
        self.addCleanup(self.inbox.stop)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_tool(self, *arguments):
        environment = {k: v for k, v in os.environ.items() if k != "VEL_MAILTRACE"}
        return subprocess.run([TOOL, *arguments], cwd=self.folder, env=environment, capture_output=True, text=True)

    def send(self, *arguments):
        return self.run_tool("MailServer=127.0.0.1", f"MailServerPort={self.inbox.port}", "MailSenderMailBox=a@host.example",
                             "MailRecipientsMailBox=b@host.example", "MailSubject=Test", *arguments)

    def test_files_and_memory_arrive_to_the_byte(self):
        text = "Gr\xfc\xdfe\n\n.\n..two\nend".encode("latin-1")
        (self.folder / "letter.txt").write_bytes(text)
        attachments = []
        for size in (0, 57, 58, 30_000_000):
            name = f"part{size}.bin"
            content = os.urandom(size)
            (self.folder / name).write_bytes(content)
            attachments.append((name.encode(), content))
        names = "MailAttachmentFilename=" + ";".join(name.decode() for name, _ in attachments)
        blocks = [f"MailAttachmentMemoryAddress=@{name.decode()}" for name, _ in attachments]
        for arguments in (["MailTextFilename=letter.txt", names], ["MailTextMemoryAddress=@letter.txt", names, *blocks]):
            result = self.send("MailTextContentType=text/plain", *arguments)
            self.assertEqual((result.returncode, result.stderr.count("error")), (0, 0), result)
            mail = self.inbox.mails.pop()
            self.assertEqual((mail.mail_from, mail.rcpt_tos), ("a@host.example", ["b@host.example"]))
            header, _, body = mail.content.partition(b"\r\n\r\n")
            boundary = header.partition(b'boundary="')[2].partition(b'"')[0]
            self.assertTrue(body == wanted(boundary, b"text/plain; charset=ISO-8859-1", text, attachments), arguments)

    def test_failures_name_their_reason_and_end_with_1(self):
        (self.folder / "t").write_text("x")
        for arguments, wanted_text in (
            (["MailTextFilename=missing"], "error 695: Error with Mail Text"),
            (["MailTextFilename=t", "MailServerPort=1"], "error 682: Error not known"),
            (["MailTextFilename=t", "MailServer=no.such.host.invalid"], "error 67"),
            (["MailTextFilename=t", "MailSubjekt=x"], "MailSubjekt"),
            (["MailTextMemoryAddress=@missing"], "missing"),
        ):
            result = self.send(*arguments)
            self.assertEqual(result.returncode, 1, result)
            self.assertIn(wanted_text, result.stderr)
        self.assertEqual(self.inbox.mails, [])

    def test_shows_properties(self):
        listed = self.run_tool("--help").stdout
        for name in ("MailAttachmentMemoryAddress", "MailAvailable", "UseBulkMail", "MailRecipientCheck"):
            self.assertIn(name, listed)
        self.assertEqual(self.run_tool("MailSubject=Hello", "--get", "MailSubject").stdout, "Hello\n")
        self.assertEqual(self.run_tool("--get", "MailAvailable").stdout, "MailNone\n")
        self.assertEqual(self.run_tool("--library", "/missing.so", "--get", "MailSubject").returncode, 1)


if __name__ == "__main__":
    unittest.main()
