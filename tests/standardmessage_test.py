"""What a reader of today's standards gets from composed messages: what the host gave, and nothing else."""

import asyncio
import datetime
import email
import email.header
import email.policy
import email.utils
import itertools
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

from aiosmtpd.smtp import SMTP

TOOL = os.path.abspath(sys.argv[1])
UMLAUTS = "Grüße, Öl & Äpfel — 10 €"
LONG = "Sehr geehrte Damen und Herren, für Ihren Auftrag über 1.000 Stück danken wir Ihnen sehr herzlich." * 9
CYRILLIC = "Счёт за ноябрь — ООО «Ромашка» и партнёры, оплатить до пятницы"
EMOJI = "🎉" * 40
TEXTS = [  # what a reader gets is the text with CR LF for each line end
    b"", b"plain\r\n", b"no end", b"\n.\n..two\n.three\nFrom me\n", b"bare\rcr\r\r\nlf\n\rend \t\n \nlast ", b"x" * 997 + b"\nend",
    b"x" * 998 + b"\nend", b"x" * 999 + b"\nend", b"x" * 5000, b"=3D=\n=\n", b"nul\0nul\n", b". " * 3000,
    UMLAUTS.encode(), (UMLAUTS + " \n").encode() * 40, b"\xfc" * 400 + b"\n", b"\xff." * 500, EMOJI.encode() * 20,
    b"\xc3", b"a" * 999 + b"\xc3\xbc", b"\x1b\x0c\x7f\n",
]


NAMES = {"from": ("MailSenderMailBox", "MailSenderFullName"), "reply": ("MailReplyToMailBox", "MailReplyToFullName"),
         "to": ("MailRecipientsMailBox", "MailRecipientsFullName"), "cc": ("MailCCRecipientsMailBox", "MailCCRecipientsFullName"),
         "bcc": ("MailBCCRecipientsMailBox",), "subject": ("MailSubject",), "charset": ("MailCharset",), "text": ("MailTextMemoryAddress",),
         "type": ("MailTextContentType",), "header": ("MailAdditionalSMTPHeader",), "bulk": ("UseBulkMail",),
         "attach": ("MailAttachmentFilename", "MailAttachmentMimeType")}


class Inbox:
    """A server on a free loopback port, on a thread of its own."""

    def __init__(self):
        self.mails = []
        loop = asyncio.new_event_loop()
        server = loop.run_until_complete(loop.create_server(lambda: SMTP(self, loop=loop), "127.0.0.1", 0))
        self.port = server.sockets[0].getsockname()[1]
        threading.Thread(target=loop.run_forever, daemon=True).start()

    async def handle_DATA(self, server, session, envelope):
        self.mails.append(envelope.content)
        announced = int(envelope.mail_options[0].partition("SIZE=")[2])
        size = len(envelope.content)
        return "250 kept" if size <= announced <= size + size / 8 + 2500 else "554 of another size than announced"


def compose(*arguments):
    """The messages that these KEY=VALUEs, with "|" before a name or type, come to, one after the other."""
    settings = {name: [] for names in NAMES.values() for name in names}
    contents = []
    for each in arguments:
        key, _, value = (each if isinstance(each, bytes) else each.encode()).partition(b"=")
        if key == b"content":
            contents.append(b"MailAttachmentMemoryAddress=@" + value)
            continue
        names = NAMES[key.decode()]
        for name, part in itertools.zip_longest(names, value.split(b"|", len(names) - 1), fillvalue=b""):
            settings[name].append(part)
    for name, default in ("MailSenderMailBox", b"me@host.example"), ("MailSubject", b"s"), ("MailTextMemoryAddress", b"default"):
        settings[name] = settings[name] or [default]
    settings["MailTextMemoryAddress"][0] = b"@" + settings["MailTextMemoryAddress"][0]
    contents += [b"MailAttachmentMemoryAddress=@empty"] * (len(settings["MailAttachmentFilename"]) - len(contents))
    subprocess.run([TOOL, "MailProtocol=SUBMISSION", "MailSecurity=NONE", "MailServer=127.0.0.1", "MailRecipientCheck=no", f"MailServerPort={inbox.port}",
                    *(name.encode() + b"=" + b";".join(values) for name, values in settings.items() if values), *contents],
                   cwd=folder, check=True)
    mails, inbox.mails = inbox.mails, []
    return mails


def parsed(raw):
    head = raw[: raw.index(b"\r\n\r\n")]
    assert raw.isascii() and b"\0" not in raw, raw
    assert not re.search(rb"\r(?!\n)|(?<!\r)\n", raw) and raw.endswith(b"\r\n"), raw
    assert max(map(len, raw.split(b"\r\n"))) <= 998
    for line in head.split(b"\r\n"):  # only one word may be longer, and what the host folded itself
        assert len(line) <= 78 or b" " not in line.strip() or line.startswith(b"X-Note: "), line
        assert line.strip(), head
    return email.message_from_bytes(raw, policy=email.policy.default)


def decoded(value):
    """By Python's older reader; its newer one shows a blank between two encoded words of a name."""
    unfolded = re.sub(r"\r\n(?=[ \t])", "", value)
    return str(email.header.make_header(email.header.decode_header(unfolded)))


class StandardMessages(unittest.TestCase):
    def write(self, content, name="content"):
        path = pathlib.Path(folder, name)
        path.write_bytes(content)
        return str(path)

    def check_sound(self, message):
        for part in message.walk():
            self.assertEqual(part.defects, [], part)
            for value in part.values():  # but for the file names of old readers
                self.assertEqual([defect for defect in value.defects if "encoded" not in str(defect)], [], value)

    def test_header(self):
        raw, = compose("from=me@a.example|Me Myself", "reply=re@a.example", "to=a@a.example|A", "cc=c@a.example|C. D",
                      "bcc=hidden@a.example", "subject=Offer", "header=X-A: 1\nX-B: 2\r\n  folded\n", "type=text/html",
                      "charset=iso-8859-1")
        self.assertRegex(raw, rb"^Date: \w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d [+-]\d{4}\r\n")
        own = re.search(rb"<(velmail\.[^>]+@[^>]+)>\r\n(?s:.*)VEL Mail (\S+)", raw).groups()
        self.assertEqual(raw.split(b"\r\n", 1)[1], b"""From: Me Myself <me@a.example>
Reply-To: re@a.example
To: A <a@a.example>
Cc: "C. D" <c@a.example>
Subject: Offer
Message-ID: <%b>
MIME-Version: 1.0
X-User-Agent: VEL Mail %b
X-A: 1
X-B: 2
  folded
Content-Type: text/html; charset=ISO-8859-1
Content-Transfer-Encoding: 7bit

text
""".replace(b"\n", b"\r\n") % own)

    def test_date(self):
        for zone, offset in ("UTC", 0), ("XXX-5:45", 345), ("XXX3:30", -210), ("XXX-14", 840):
            os.environ["TZ"] = zone
            date = parsed(*compose("to=a@b.example"))["Date"].datetime
            now = datetime.datetime.now(datetime.timezone.utc)
            self.assertLess(abs(now - date), datetime.timedelta(minutes=5), zone)
            self.assertEqual(date.utcoffset(), datetime.timedelta(minutes=offset), zone)
        del os.environ["TZ"]

    def test_names_and_subjects(self):
        texts = ["Plain", "Two  blanks", "Müller", 'Say "hi" \\ there', "Smith, John (sales) <boss@b.example>, x:", "x@b.example",
                 "=?UTF-8?Q?evil?=", "J. R.", UMLAUTS, LONG, CYRILLIC, EMOJI, "x" * 300, "word " * 50 + "end", "a  ü  b", "ü a ü",
                 "a" + " " * 200 + "b", "日本語" * 30, "tail =?", "long " + "y" * 1200, "'", "é" * 2000, "~{}|^`"]
        for text in texts:
            for charset in "utf-8", "latin-1", "cp1252":
                try:
                    given = text.encode(charset)
                except UnicodeEncodeError:
                    continue
                with self.subTest(text=text[:40], charset=charset):
                    note = [b"header=X-Note: " + given] if len(text) < 900 or not text.isascii() else []
                    raw, = compose(b"from=me@b.example|" + given, b"to=a@b.example|" + given, b"to=c@b.example|C",
                                  b"subject=" + given, *note)
                    message = parsed(raw)
                    self.check_sound(message)
                    self.assertEqual([each.addr_spec for each in message["To"].addresses], ["a@b.example", "c@b.example"])
                    self.assertEqual([(decoded(name), box) for name, box in email.utils.getaddresses(
                        str(email.message_from_bytes(raw)[field]) for field in ("From", "To"))],
                                     [(text, "me@b.example"), (text, "a@b.example"), ("C", "c@b.example")])
                    self.assertEqual(message["Subject"], text)
                    if note and "=?" not in text:
                        self.assertEqual(message["X-Note"], text)

    def test_bytes_that_claim_too_much(self):
        for charset, given, text in [("UTF-8", b"\xfc\x80", "ü€"), ("ISO-8859-1", "ü€".encode(), "Ã¼â‚¬"), ("", b"\x81", "\ufffd"),
                                     ("WINDOWS-1252", b"\x80\x9f\xff", "€Ÿÿ"), ("", b"\xed\xa0\x80", "í\xa0€"),
                                     ("", b"\xf4\x90\x80\x80", "ô\ufffd€€"), ("", b"\xc0\xaf", "À¯"), ("", b"\xf0\x82\x82\xac", "ð‚‚¬"), ("", b"\xe2\x82", "â‚"),
                                     ("", "\U0010ffff\u0800\ud7ff".encode("utf-8", "surrogatepass"), "\U0010ffff\u0800\ud7ff")]:
            message = parsed(*compose("to=a@b.example", b"subject=" + given, "charset=" + charset))
            self.assertEqual(message["Subject"], text, given)

    def test_injection(self):
        for evil in "\r\nBcc: x@b.example", "\nBcc: x@b.example\n\nbody", "\rBcc: x@b.example", 'x" <evil@b.example>, "', "\x01\x7f\t":
            raw, = compose("from=me@b.example|A" + evil, "to=a@b.example|A" + evil, "subject=A" + evil, "attach=A" + evil + "|text/plain")
            message = parsed(raw)
            self.assertIsNone(message["Bcc"], evil)
            self.assertEqual([each.addr_spec for each in message["To"].addresses], ["a@b.example"])
            self.assertEqual([part.get_content_type() for part in message.walk()], ["multipart/mixed"] + 2 * ["text/plain"])
            self.assertEqual(set(message.keys()), {"Date", "From", "To", "Subject", "Message-ID", "MIME-Version", "X-User-Agent",
                                                   "Content-Type"})
            for value in (message["Subject"], list(message.iter_attachments())[0].get_filename()):
                self.assertTrue(value.isprintable(), value)

    def test_texts(self):
        for text in TEXTS:
            lines = re.sub(rb"\r\n|\r|\n", b"\r\n", text)
            for attached in [], ["attach=a.bin"]:
                message = parsed(*compose("to=a@b.example", "text=" + self.write(text), *attached))
                part = list(message.walk())[-1 - len(attached)]
                self.check_sound(message)
                plain = text.isascii() and b"\0" not in text and max(map(len, lines.split(b"\r\n"))) <= 998
                self.assertEqual(part["Content-Transfer-Encoding"], "7bit" if plain else "quoted-printable", text)
                if part["Content-Transfer-Encoding"] == "quoted-printable":
                    encoded = part.get_payload().replace("\r\n", "\n").split("\n")
                    self.assertLessEqual(max(map(len, encoded)), 76)
                    self.assertFalse([line for line in encoded if line.startswith(".") or line.endswith((" ", "\t"))])
                end = b"\r\n" if lines and not lines.endswith(b"\r\n") and not attached else b""
                self.assertEqual(part.get_payload(decode=True), lines + end, text)

    def test_labels(self):
        for kind, charset, text, wanted in [("", "", b"a\n", "utf-8"), ("", "", "ü".encode(), "utf-8"), ("", "", b"\xfc", "windows-1252"),
                                            ("", "ISO-8859-1", b"\xfc", "iso-8859-1"), ("", "UTF-8", b"a", "utf-8"),
                                            ("text/plain;charset=KOI8-R", "UTF-8", b"\xc0", "koi8-r"),
                                            ('TEXT/HTML; CharSet="iso-8859-15" ; x="a;\\"b"', "", b"\xa4", "iso-8859-15")]:
            message = parsed(*compose("to=a@b.example", "type=" + kind, "charset=" + charset, "text=" + self.write(text)))
            self.assertEqual(message.get_content_charset(), wanted, kind)
            self.assertEqual(message.get_content_type(), (kind or "text/plain").split(";")[0].lower())

    def test_attachments(self):
        names = ["a.PDF", "Rechnung für März.docx", "Räksmörgås " * 20 + ".csv", "x" * 200 + ".png", 'quote"back%.txt', EMOJI + ".zip",
                 "=?UTF-8?Q?a?=.txt", "noextension", "comma, (a) 'b'.htm", "  blanks  .xml"]
        types = ["application/pdf", "application/vnd.openxmlformats-officedocument.wordprocessingml.document", "text/csv", "image/png",
                 "text/plain", "application/zip", "text/plain", "application/octet-stream", "text/html", "application/xml"]
        contents = [os.urandom(size) for size in (0, 1, 56, 57, 58, 65536, 70_000, 3, 300_000, 0)]
        arguments = [each for name, content in zip(names, contents)
                     for each in ("attach=folder/" + name, "content=" + self.write(content, f"c{len(content)}"))]
        raw, = compose("to=a@b.example", *arguments)
        message = parsed(raw)
        self.check_sound(message)
        parts = list(message.iter_attachments())
        self.assertEqual([part.get_filename() for part in parts], [name.strip() for name in names])  # Python does
        self.assertEqual([part.get_content_type() for part in parts], types)
        self.assertEqual([part.get_payload(decode=True) for part in parts], contents)
        self.assertEqual({part["Content-Disposition"].content_disposition for part in parts}, {"attachment"})
        for part, name in zip(email.message_from_bytes(raw).get_payload()[1:], names):  # by who knows encoded words alone
            self.assertEqual(decoded(re.search(r'name="(.*)"', part["Content-Type"], re.S)[1]), name)

    def test_attachment_types(self):
        for given in "message/rfc822", "multipart/mixed":  # which must not be encoded
            part = list(parsed(*compose("to=a@b.example", "attach=a.bin|" + given)).iter_attachments())[0]
            self.assertEqual((part.get_content_type(), part.get_filename()), ("application/octet-stream", "a.bin"))

    def test_recipients(self):
        many = [f"r{n}@host.example" for n in range(5000)]
        message = parsed(*compose("to=" + ";".join(many), "text=" + self.write(b"line\n" * 60_000)))
        self.assertEqual([each.addr_spec for each in message["To"].addresses], many)
        for number, one in enumerate(compose("to=r0@b.example|A", "to=r1@b.example|B", "cc=c@b.example", "bulk=1")):
            self.assertIn(b"\r\nTo: %c <r%d@b.example>\r\nCc: c@b.example\r\n" % (b"AB"[number], number), one)
            self.assertIn(b"Message-ID: <%d.velmail." % number, one)
        self.assertEqual(number, 1)
        self.assertIn(b"\r\nTo: undisclosed-recipients:;\r\n", *compose("bcc=b@b.example"))
        longest = "a" * 64 + "@" + "d" * 60 + ".example"
        self.assertEqual(parsed(*compose(f"to={longest}|Ä", f"to={longest}"))["To"].addresses[1].addr_spec, longest)

    def test_additional_header(self):
        raw, = compose("to=a@b.example", "header=List-Id: <x.y>\r\nX-Long: " + "a" * 900 + "\nDisposition-Notification-To: Jürgen Groß "
                      "<j@b.example>\nX-Fold: ü\n ä  end")
        message = parsed(raw.replace(b"a" * 900, b""))
        self.assertIn(b"\r\nX-Long: " + b"a" * 900 + b"\r\n", raw)
        self.assertEqual(message["Disposition-Notification-To"], "Jürgen Groß <j@b.example>")
        self.assertIn(b"?= <j@b.example>\r\n", raw)
        self.assertEqual(message["X-Fold"], "ü ä  end")


with tempfile.TemporaryDirectory() as folder:
    pathlib.Path(folder, "default").write_text("text\r\n")
    pathlib.Path(folder, "empty").touch()
    inbox = Inbox()
    unittest.main(argv=sys.argv[:1])
