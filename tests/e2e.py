"""The command-line host and a real server: each mail must arrive as its inputs say, byte for byte.

Usage: e2e.py [--peer PROGRAM] [EMULATOR] PROGRAM; the peer is another platform's build, whose messages must be the same.
"""

import argparse
import asyncio
import email
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

from aiosmtpd.smtp import SMTP

parser = argparse.ArgumentParser()
parser.add_argument("--peer")
parser.add_argument("command", nargs="+")
options = parser.parse_args()
PEER = [os.path.abspath(options.peer)] if options.peer else None
TOOL = [os.path.abspath(part) for part in options.command]


class Inbox:
    """A server on a free loopback port, on a thread of its own."""

    def __init__(self):
        self.mails = []
        self.arrived = threading.Event()
        self.go = threading.Event()  # mails are answered while it is set
        self.go.set()
        self.loop = asyncio.new_event_loop()
        serve = self.loop.create_server(lambda: SMTP(self, data_size_limit=10**9, loop=self.loop), "127.0.0.1", 0)
        self.server = self.loop.run_until_complete(serve)
        self.port = self.server.sockets[0].getsockname()[1]
        self.thread = threading.Thread(target=self.loop.run_forever)
        self.thread.start()

    def stop(self):
        self.go.set()
        self.loop.call_soon_threadsafe(self.server.close)
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.loop.close()

    async def handle_DATA(self, server, session, envelope):
        self.mails.append(envelope)
        self.arrived.set()
        await self.loop.run_in_executor(None, self.go.wait)
        return "250 kept"


def boundary_of(mail):
    return mail.content.partition(b'boundary="')[2].partition(b'"')[0]


def without_what_differs(mail):
    """The message without the fields that no two messages share; their form is checked."""
    text = mail.content.replace(boundary_of(mail), b"BOUNDARY")
    for field in (rb"Date: \w{3}, \d\d? \w{3} \d{4} \d\d:\d\d:\d\d [+-]\d{4}",
                  rb"Message-Id: <velmail\.[0-9a-f]{16}\.[0-9a-f]{16}\.[0-9a-f]{8}@[^>]+>"):
        text, count = re.subn(rb"(?m)^" + field + rb"\r$", b"", text)
        assert count == 1, (field, text[:1000])
    return text


class CommandLineHost(unittest.TestCase):
    def setUp(self):
        self.inbox = Inbox()
        self.addCleanup(self.inbox.stop)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def start(self, *arguments, tool=TOOL, trace=None, variables=()):
        environment = {k: v for k, v in os.environ.items() if k != "VEL_MAILTRACE"} | dict(variables)
        if trace:
            environment["VEL_MAILTRACE"] = trace
        return subprocess.Popen([*tool, *arguments], cwd=self.folder, env=environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def run_tool(self, *arguments, **how):
        process = self.start(*arguments, **how)
        stdout, stderr = process.communicate()
        self.assertNotIn("Unhandled exception", stdout + stderr)
        return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)

    def mail_settings(self):
        return ("MailServer=127.0.0.1", f"MailServerPort={self.inbox.port}", "MailSenderMailBox=a@host.example",
                "MailRecipientsMailBox=b@host.example", "MailSubject=Test")

    def send(self, *arguments, **how):
        return self.run_tool(*self.mail_settings(), *arguments, **how)

    def test_files_and_memory_arrive_to_the_byte(self):
        text = "Gr\xfc\xdfe\n\n.\n..two\nend".encode("latin-1")
        (self.folder / "letter.txt").write_bytes(text)
        contents = [text.replace(b"\n", b"\r\n") + b"\r\n"]
        files = [f"part{size}.bin" for size in (0, 57, 58, 30_000_000)]
        for name in files:
            content = os.urandom(int(name[4:-4]))
            (self.folder / name).write_bytes(content)
            contents += [content] if content else []
        names = "MailAttachmentFilename=" + ";".join(files)
        blocks = [f"MailAttachmentMemoryAddress=@{name}" for name in files]
        for arguments in (["MailTextFilename=letter.txt", names], ["MailTextMemoryAddress=@letter.txt", names, *blocks]):
            result = self.send("MailTextContentType=text/plain", *arguments)
            self.assertEqual((result.returncode, result.stderr.count("error")), (0, 0), result)
            mail = self.inbox.mails.pop()
            self.assertEqual((mail.mail_from, mail.rcpt_tos), ("a@host.example", ["b@host.example"]))
            parts = email.message_from_bytes(mail.content).get_payload()
            # Without a byte, a part is none; its line end is left in the part before.
            self.assertTrue([part.get_payload(decode=True) for part in parts] == contents, arguments)
            if PEER:
                self.assertEqual(self.send("MailTextContentType=text/plain", *arguments, tool=PEER).returncode, 0)
                peers = self.inbox.mails.pop()
                self.assertTrue(without_what_differs(mail) == without_what_differs(peers),
                                (mail.content[:1000], peers.content[:1000]))

    def test_names_are_the_bytes_of_the_system(self):
        (self.folder / "gr\xfc\xdfe.txt").write_text("x")
        result = self.send("MailTextFilename=gr\xfc\xdfe.txt", "MailAttachmentMemoryAddress=@gr\xfc\xdfe.txt")
        self.assertEqual(result.returncode, 0, result)
        name = self.inbox.mails.pop().content.partition(b'filename="')[2].partition(b'"')[0]
        self.assertIn(name, ("gr\xfc\xdfe.txt".encode(encoding) for encoding in ("utf-8", "cp1252")))

    def test_a_trace_that_another_process_holds_leads_to_a_letter(self):
        (self.folder / "t").write_text("x")
        self.inbox.go.clear()
        first = self.start(*self.mail_settings(), "MailTextFilename=t", trace="host.log")
        self.assertTrue(self.inbox.arrived.wait(60))
        self.assertEqual(self.run_tool("--get", "MailSubject", trace="host.log").stdout, "\n")
        self.inbox.go.set()
        first.communicate()
        self.assertEqual(first.returncode, 0)
        self.assertRegex((self.folder / "host-a.log").read_text(), "^   1 .* VEL job Version .*\n.* Opened new trace file "
                         "'host-a.log', because of a writing conflict with file 'host.log'\n")
        self.assertRegex((self.folder / "host.log").read_text(), r"^   1 .* VEL job Version (.|\n)* Trace closed\.\n$")

    @unittest.skipIf(len(TOOL) > 1, "the loader is the native one")
    def test_a_libcurl_that_is_none_is_error_697(self):
        other = next(pathlib.Path("/lib").glob("*-linux-gnu/libutil.so.1"))
        for content, reason in ((None, "It has no function curl_"), (b"no library", "file too short")):
            library = self.folder / "libcurl.so.4"
            library.unlink(missing_ok=True)
            library.symlink_to(other) if content is None else library.write_bytes(content)
            result = self.send("MailProtocol=SUBMISSION", "MailSecurity=NONE", trace="host.log",
                               variables={"LD_LIBRARY_PATH": str(self.folder)})
            self.assertIn("error 697", result.stderr)
            trace = (self.folder / "host.log").read_text()
            self.assertRegex(trace, r"Setting error 697 \(The library libcurl could not be loaded: .*" + reason)

    def test_shows_properties(self):
        self.assertEqual(self.run_tool("MailSubject=Hello", "--get", "MailSubject").stdout, "Hello\n")
        self.assertEqual(self.run_tool("--get", "MailAvailable").stdout, "MailNone\n")
        self.assertEqual(self.run_tool("--library", "/missing.so", "--get", "MailSubject").returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
