"""The layer for Python: what it adds to the ten functions, against a real server. Usage: python_test.py LIBRARY"""

import ctypes
import email.message
import email.policy
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import velmail
from support.inbox import Inbox

LIBRARY = sys.argv[1]
TEXT = "Grüße, 10 €\n"


def letter(**more):
    return velmail.Mail(**{"sender": "Ada <ada@host.example>", "to": "bob@host.example", "subject": "Hello", "text": TEXT} | more)


def knows(name):
    size = ctypes.create_string_buffer(12)
    return velmail._library().VelMailGetProperty(name, size, 0)


class PythonLayer(unittest.TestCase):
    def setUp(self):
        self.inbox = self.enterContext(Inbox())
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def connect(self, **settings):
        return self.enterContext(velmail.connect("127.0.0.1", self.inbox.port, **settings))

    def received(self):
        return email.message_from_bytes(self.inbox.mails.pop().content, policy=email.policy.default)

    def test_what_would_become_another_mail_is_refused(self):
        connection = self.connect()
        for code, change in ((100, {"to": ("", "bob@host.example;eve@host.example")}), (100, {"cc": '"Doe; Jane" <d@host.example>'}),
                             (100, {"sender": "a@host.example, b@host.example"}), (100, {"subject": "a\0b"}),
                             (100, {"attachments": [velmail.Attachment(b"x", "a;b")]}), (100, {"headers": {"X-A": "1"}}),
                             (100, {"subject": "\udc80"}), (659, {"attachments": ["missing"]}),
                             (659, {"attachments": [velmail.Attachment("missing", "renamed")]}), (650, {"to": ""}), (651, {"subject": ""})):
            with self.subTest(change=change), self.assertRaises(velmail.Error) as caught:
                connection.send(letter(**change))
            self.assertEqual(caught.exception.code, code, change)
        connection.send(letter())
        self.assertEqual(len(self.inbox.mails), 1)

    def test_codes_are_told_wherever_they_surface(self):
        connection = self.connect(properties={"MailRecipientCheck": "0"})
        with self.assertRaisesRegex(velmail.Error, "send: error 664: "):
            connection.send(letter(to="lost@host.example"))
        sent = connection.send(letter(to=[("Eve", ""), "Bob <bob@host.example>, carol@host.example"]))
        self.assertEqual((sent.code, self.inbox.mails[0].rcpt_tos), (650, ["bob@host.example", "carol@host.example"]))
        for settings, code in ({"protocol": "smtp"}, 656), ({"properties": {"MailSubjekt": "x"}}, 99):
            with self.assertRaises(velmail.Error) as caught, connection:
                connection.close()
                velmail.connect(**settings)
            self.assertEqual(caught.exception.code, code)

    def test_a_thread_has_one_connection(self):
        connection, raised = self.connect(), []

        def elsewhere():
            try:
                connection.send(letter())
            except velmail.Error as error:
                raised.append(error)
            with velmail.connect("127.0.0.1", self.inbox.port) as own:
                own.send(letter())

        thread = threading.Thread(target=elsewhere)
        thread.start()
        thread.join()
        self.assertEqual([(error.code, "another thread" in str(error)) for error in raised], [(0, True)])
        for wrong in velmail.connect, lambda: connection.close() or connection.send(letter()):
            self.assertRaises(velmail.Error, wrong)
        self.assertEqual(len(self.inbox.mails), 1)

    @unittest.skipUnless(knows(b"MailDeliveryReport"), "a library without reports")
    def test_reports_tell_who_was_refused(self):
        connection = self.connect()
        sent = connection.send(letter(to="bob@host.example, nobody@host.example"))
        self.assertEqual(sent.refused, ["550 nobody@host.example 5.1.1 no such user"])
        self.assertRegex(sent.report, "^250 bob@host.example .*\n550 ")
        for to, code, report in ("nobody", 62, "550 nobody@host.example 5.1.1 no such user\n"), ("lost", 664, "0 lost@host.example "):
            with self.assertRaises(velmail.Error) as caught:
                connection.send(letter(to=to + "@host.example"))
            self.assertEqual((caught.exception.code, caught.exception.report[:len(report)]), (code, report))

    @unittest.skipUnless(knows(b"MailProgressMemoryAddress"), "a library without progress")
    def test_progress_is_told_and_a_send_cancelled(self):
        for protocol in {"protocol": "SMTP"}, {"protocol": "SUBMISSION", "security": "NONE"}:
            connection, seen, content = self.connect(**protocol), [], os.urandom(3_000_000)
            mail = letter(attachments=[velmail.Attachment(content, "part.bin")])
            connection.send(mail, lambda progress: seen.append((progress.done, progress.total)))
            self.assertEqual(seen[-1], (len(content) + len(TEXT.encode()),) * 2)
            self.inbox.mails.clear()
            cancelled = velmail.Progress()
            cancelled.cancel()
            for progress, failure in (cancelled, "error 151"), (lambda _: [][0], "list index"):
                self.assertRaisesRegex((velmail.Error, IndexError), failure, connection.send, mail, progress)
            self.assertEqual(self.inbox.mails[1:], [])  # the function may have been late
            connection.send(letter())
            connection.close()
            self.assertRaisesRegex(velmail.Error, "error 100", velmail.connect, "127.0.0.1", self.inbox.port, timeout=0, **protocol)

    def test_texts_arrive_in_each_charset(self):
        (self.folder / "für März.txt").write_bytes(b"x")
        for charset in "", "WINDOWS-1252", "ISO-8859-1":
            connection = self.connect(protocol="SUBMISSION", security="NONE", charset=charset)
            text = TEXT.replace("€", "£")
            connection.send(letter(sender=("Jürgen; Groß", "ada@host.example"), subject=text.strip(), text=text, bcc="carol@host.example",
                                   headers={"X-Note": "ü\nX-Evil: 1"}, attachments=[self.folder / "für März.txt", velmail.Attachment(
                                       bytearray(b"y"), "Öl.csv"), velmail.Attachment(b"", "leer", "a/b")][:None if charset else 1]))
            connection.close()
            mail = self.received()
            self.assertEqual((mail["From"], mail["Subject"], mail["Bcc"], mail["X-Note"], mail["X-Evil"]),
                             ("\"Jürgen; Groß\" <ada@host.example>", text.strip(), None, "ü X-Evil: 1", None))
            self.assertEqual(mail.get_body().get_content().replace("\r\n", "\n"), text)
            self.assertEqual(mail.get_body().get_content_charset(), charset.lower() or "utf-8")
            self.assertEqual([(part.get_filename(), part.get_content_type(), part.get_payload(decode=True)) for part in mail.iter_attachments()],
                             [("für März.txt", "text/plain", b"x"), ("Öl.csv", "text/csv", b"y"), ("leer", "a/b", b"")][:None if charset else 1])

    def test_a_message_of_the_standard_library_is_taken(self):
        message = email.message.EmailMessage()
        message["From"], message["To"], message["Subject"] = "Ada <ada@host.example>", "Bob <bob@host.example>, c@host.example", "Hello"
        message["X-Note"] = "kept"
        message.set_content(TEXT)
        message.add_attachment("a;b\n", subtype="csv", filename="a.csv")
        connection = self.connect(protocol="SUBMISSION", security="NONE")
        connection.send(message)
        mail = self.received()
        self.assertEqual([mail[name] for name in ("From", "To", "Subject", "X-Note")],
                         [message[name] for name in ("From", "To", "Subject", "X-Note")])
        self.assertEqual(mail.get_body().get_content().replace("\r\n", "\n"), TEXT)
        self.assertEqual([(part.get_filename(), part.get_content()) for part in mail.iter_attachments()], [("a.csv", "a;b\n")])
        message = email.message.EmailMessage()
        message.set_content("a")
        message.add_alternative("<p>", subtype="html")
        self.assertRaisesRegex(velmail.Error, "error 100", connection.send, message)

    def test_it_can_be_installed_and_finds_the_library_beside_itself(self):
        shutil.copytree(pathlib.Path(velmail.__file__).parent, self.folder / "source")
        subprocess.run(["/usr/bin/python3", "-m", "pip", "install", "--quiet", "--no-index", "--no-build-isolation", "--target",
                        self.folder / "installed", self.folder / "source"], check=True, env=os.environ | {"HOME": str(self.folder)})
        (self.folder / "installed/libVelMail64.so").symlink_to(LIBRARY)
        without = {name: value for name, value in os.environ.items() if name not in ("VELMAIL_LIBRARY", "PYTHONPATH")}
        shown = subprocess.run([sys.executable, "-c", "import velmail; print(velmail.version(), velmail.__file__)"], check=True,
                               cwd=self.folder / "installed", env=without, capture_output=True, text=True).stdout
        self.assertRegex(shown, rf"^VEL mail 1\.\S+ {self.folder}/installed/velmail.py\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
