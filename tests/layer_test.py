"""The layers for C# and Pascal: their example, and what they add to the ten functions, against a real server.

Usage: layer_test.py csharp|pascal FOLDER_OF_THE_LIBRARY. Ends with 77 where the language's compiler is missing.
"""

import email
import email.policy
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from support.inbox import Inbox

LANGUAGE, LIBRARY = sys.argv[1:]
ROOT = pathlib.Path(__file__).resolve().parent.parent
ENVIRONMENT = os.environ | {"LD_LIBRARY_PATH": LIBRARY, "LC_ALL": "C"}
TEXT = "Grüße\n"
REPORTS = b"MailProgressMemoryAddress" in pathlib.Path(LIBRARY, "libVelMail64.so").read_bytes()


def build(source, folder):
    """Returns the command that runs the program."""
    if LANGUAGE == "csharp":
        program = folder / (source.name + ".exe")
        command = ["mcs", "-langversion:7.2", "-warn:4", "-warnaserror", f"-out:{program}", f"{source}.cs",
                   ROOT / "bindings/csharp/VelMail.cs"]
    else:
        program = folder / source.name
        command = ["fpc", "-v0ew", f"-FE{folder}", f"-Fu{ROOT}/bindings/delphi", f"-Fl{LIBRARY}", f"{source}.pas"]
    subprocess.run(command, check=True, capture_output=True)
    return ["mono", program] if LANGUAGE == "csharp" else [program]


class Server(Inbox):
    async def handle_MAIL(self, server, session, envelope, address, options):
        if address.startswith("stall"):
            await self.loop.create_future()  # until the client goes
        envelope.mail_from = address
        return "250 2.1.0 Ok"


class Layer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.built = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.driver = build(ROOT / "tests/layers/Driver", cls.built)

    def setUp(self):
        self.inbox = self.enterContext(Server())
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def drive(self, *lines):
        """The answers to the lines, to "mail" and what describes a mail there is none."""
        lines = "".join(line.replace("connect", f"connect\tPort={self.inbox.port}") + "\n" for line in lines)
        result = subprocess.run(self.driver, input=lines.encode(), cwd=self.folder, capture_output=True, timeout=120, env=ENVIRONMENT)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return result.stdout.decode().splitlines()

    def test_the_example(self):
        subprocess.run(["/usr/bin/python3", ROOT / "tests/example_test.py", *build(ROOT / "examples/Host", self.built)], check=True,
                       env=ENVIRONMENT)

    def test_what_would_become_another_mail_is_refused(self):
        wrong = ((100, "To\tbob@host.example;eve@host.example"), (100, "Cc\td@host.example\tDoe; Jane"), (100, "Subject\ta\\0b"),
                 (100, "memory\tx\ta;b\t"), (100, "memory\tx\ta\ttext/plain; charset=x"), (100, "Headers\tX-A: 1"),
                 (100, "ContentType\ttext/html; Charset=x"), (659, "path\tmissing\tmissing\t"), (659, "path\tmissing\trenamed\t"),
                 (650, "nobody"), (651, "Subject\t"), (662, "From\tada"), (664, "nobody\nTo\tlost@host.example"))
        answers = self.drive("connect", *(line for _, change in wrong for line in ("mail", change, "send")), "mail", "send")
        self.assertEqual([answer.split()[0] for answer in answers], ["ok", *(str(code) for code, _ in wrong), "ok"])
        self.assertEqual([mail.rcpt_tos for mail in self.inbox.mails], [["bob@host.example"]])

    def test_settings_that_cannot_be_used_are_refused(self):
        for settings, answer in (("Protocol=smtp", "656"), ("MailSubjekt=x", "99"), ("Login=me", "100"), ("Port=a\\0b", "100"), ("Charset=x", "100"),
                                 ("Protocol=SUBMISSION\tSecurity=none", "100"), ("Protocol=MAPI", "60"), ("Charset=ISO-8859-1", "ok")):
            self.assertEqual(self.drive(f"connect\t{settings}")[0].split()[0], answer, settings)

    def test_a_thread_has_one_connection(self):
        self.assertEqual(self.drive("connect", "connect", "mail", "elsewhere", "send", "close", "connect")[:3], ["ok", "misuse", "misuse"])
        self.assertEqual(len(self.inbox.mails), 1)

    def test_texts_and_names_arrive_in_each_charset(self):
        (self.folder / "a;b").mkdir()
        for name in "für März.txt", "a;b/für März.txt":
            (self.folder / name).write_bytes(b"x")
        files = (("für März.txt", "text/plain", b"x"), ("Öl.csv", "text/csv", b"y"), ("leer", "a/b", b""), ("c.txt", "text/plain", b"x"))
        described = ("path\tfür März.txt\tfür März.txt\t", "memory\ty\tÖl.csv\t", "stream\t\tleer\ta/b", "path\tfür März.txt\tc.txt\t")
        for charset, count in ("", 4), ("", 1), ("UTF-8", 1), ("ISO-8859-1", 4), ("ISO-8859-1", 1), ("WINDOWS-1252", 4):
            if LANGUAGE == "csharp" and charset == "WINDOWS-1252":
                break  # Mono has it in a package of its own
            setting = charset and f"\tCharset={charset}"
            lines = [line.replace("path\t", "path\ta;b/") if charset == "UTF-8" else line for line in described[:count]]
            text = TEXT.replace("ß", "€ „") if charset == "WINDOWS-1252" else TEXT
            self.assertEqual(self.drive(f"connect\tProtocol=SUBMISSION\tSecurity=NONE{setting}", "mail", "From\tada@host.example\tJürgen; Büro",
                                        f"Subject\t{text.strip()}", f"Text\t{text}".replace("\n", "\\n"), "Bcc\tcarol@host.example",
                                        "ReplyTo\tr@host.example\tÃ¼", "Headers\tX-Note: ü", *lines, "send")[1][:4], "ok 0")
            received = self.inbox.mails.pop()
            mail = email.message_from_bytes(received.content, policy=email.policy.default)
            self.assertEqual((mail["From"], mail["Subject"], mail["Bcc"], mail["Reply-To"], mail["X-Note"]),
                             ('"Jürgen; Büro" <ada@host.example>', text.strip(), None, "Ã¼ <r@host.example>", "ü"))
            self.assertEqual(received.rcpt_tos, ["bob@host.example", "carol@host.example"])
            self.assertEqual(mail.get_body().get_content().replace("\r\n", "\n"), text)
            self.assertEqual(mail.get_body().get_content_charset(), charset.lower() or "utf-8")
            self.assertEqual([(part.get_filename(), part.get_content_type(), part.get_payload(decode=True))
                              for part in mail.iter_attachments()], list(files[:count]))
            self.assertEqual(self.drive(f"connect{setting}", "mail", "Subject\t₤", "send")[1].split()[0], "ok" if charset in ("", "UTF-8") else "100")

    @unittest.skipUnless(REPORTS, "this library has no reports")
    def test_the_report_tells_who_was_refused(self):
        answers = self.drive("connect\tMailRecipientCheck=0", "mail", "To\tnobody@host.example", "send", "nobody", "To\tnobody@host.example",
                             "send", "mail", "To\t\tEve", "send", "mail", "To\tcarol@host.example", "Bulk", "send")
        self.assertEqual(len(self.inbox.mails), 4)
        self.assertRegex(answers[1], r"^ok 0 250 bob@host\.example [^|]*\|550 nobody@host\.example 5\.1\.1 no such user\|refused:1$")
        self.assertRegex(answers[2], r"^62 [^|]+\|550 nobody@host\.example 5\.1\.1 no such user\|$")
        self.assertRegex(answers[3], r"^ok 650 250 bob@host\.example")
        self.assertRegex(answers[4], r"^ok 0 250 bob@host\.example [^|]*\|250 carol@host\.example [^|]*\|refused:0$")

    @unittest.skipUnless(REPORTS, "this library has no progress")
    def test_progress_and_cancel(self):
        for protocol in "", "\tProtocol=SUBMISSION\tSecurity=NONE":
            answers = self.drive(f"connect\tTimeout=60{protocol}", "mail", "memory\tdef\tname\t", "Text\tabc", "watch", "From\tstall@host.example",
                                 *(("cancel",) if protocol else ()), "mail", "send")
            self.assertEqual(answers[:2], ["ok", "ok 6"])
            self.assertEqual(answers[-1][:4], "ok 0")
            self.assertEqual([mail.mail_from for mail in self.inbox.mails], ["ada@host.example"] * 2)
            self.inbox.mails.clear()
        self.assertIn("151", answers[2])


if __name__ == "__main__":
    if not shutil.which("mcs" if LANGUAGE == "csharp" else "fpc"):
        sys.exit(77)
    unittest.main(argv=sys.argv[:1])
