"""The command-line host on the submission path, through a real TLS library into a real server, by certificates and logins.

Usage: submission_e2e.py [--peer PROGRAM] [EMULATOR] PROGRAM; the peer is another platform's build, whose messages must
be the same.
"""

import argparse
import asyncio
import base64
import email
import email.policy
import hmac
import logging
import os
import pathlib
import re
import shutil
import ssl
import subprocess
import sys
import tempfile
import threading
import unittest

from aiosmtpd.smtp import SMTP, AuthResult

parser = argparse.ArgumentParser()
parser.add_argument("--peer")
parser.add_argument("command", nargs="+")
options = parser.parse_args()
PEER = [os.path.abspath(options.peer)] if options.peer else None
TOOL = [os.path.abspath(part) for part in options.command]
EMULATED = len(TOOL) > 1
FOLDER = tempfile.TemporaryDirectory()
CERTIFICATES = pathlib.Path(FOLDER.name)


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], cwd=CERTIFICATES, check=True, capture_output=True)


def make_certificates():
    """NAME.pem with its key for each kind, by the authority in authority.pem; the other one knows none of them."""
    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
    for name in ("authority", "other"):
        openssl("req", "-x509", *key, "-days", "2", "-subj", f"/CN=The {name}", "-keyout", f"{name}.key", "-out",
                f"{name}.pem")
    # As an authority works, since "openssl x509" knows no certificate that has ended.
    (CERTIFICATES / "ca.conf").write_text("[ca]\ndefault_ca=a\n[a]\nnew_certs_dir=.\ndatabase=list\nserial=serial\n"
                                          "unique_subject=no\ndefault_md=sha256\ncopy_extensions=copy\npolicy=p\n[p]\ncommonName=supplied\n")
    (CERTIFICATES / "list").touch()
    valid, ended = ("-days", "2"), ("-startdate", "20200101000000Z", "-enddate", "20200201000000Z")
    for name, subject, names, time in (("right", "localhost", "DNS:localhost,IP:127.0.0.1", valid),
                                       ("wildcard", "a.host.example", "DNS:*.localhost,DNS:*.host.example", valid),
                                       ("elsewhere", "other.example", "DNS:other.example", valid),
                                       ("expired", "localhost", "DNS:localhost,IP:127.0.0.1", ended)):
        openssl("req", *key, "-subj", f"/CN={subject}", "-addext", f"subjectAltName={names}", "-keyout", "key", "-out", "wish")
        openssl("ca", "-batch", "-config", "ca.conf", "-cert", "authority.pem", "-keyfile", "authority.key", "-create_serial",
                "-notext", *time, "-in", "wish", "-out", "certificate")
        (CERTIFICATES / f"{name}.pem").write_text("".join((CERTIFICATES / part).read_text() for part in ("key", "certificate")))
    openssl("req", "-x509", *key, "-days", "2", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost",
            "-keyout", "key", "-out", "certificate")
    (CERTIFICATES / "self.pem").write_text("".join((CERTIFICATES / part).read_text() for part in ("key", "certificate")))


class Server(SMTP):
    async def auth_XOAUTH2(self, _, args):
        said = await self.challenge_auth("")
        return AuthResult(handled=False, success=said == b"user=ada\1auth=Bearer s3cret\1\1")

    async def auth_CRAM__MD5(self, _, args):
        said = await self.challenge_auth("<1@host>")
        return AuthResult(handled=False, success=said == b"ada " + hmac.new(b"s3cret", b"<1@host>", "md5").hexdigest().encode())


class Inbox:
    """A server on a free loopback port, on a thread of its own. Without a certificate it speaks clear text."""

    def __init__(self, certificate=None, at_once=False, **how):
        self.mails, self.versions = [], set()
        context = None
        if certificate:
            context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            context.load_cert_chain(CERTIFICATES / f"{certificate}.pem")
        if not at_once:
            how |= {"tls_context": context, "require_starttls": bool(context)}
        self.loop = asyncio.new_event_loop()
        serve = self.loop.create_server(
            lambda: Server(self, loop=self.loop, data_size_limit=10**9, authenticator=self.decide,
                           auth_require_tls=not at_once, **how), "127.0.0.1", 0, ssl=context if at_once else None)
        self.server = self.loop.run_until_complete(serve)
        self.port = self.server.sockets[0].getsockname()[1]
        self.thread = threading.Thread(target=self.loop.run_forever)
        self.thread.start()

    def decide(self, server, session, envelope, mechanism, data):
        return AuthResult(handled=False, success=(data.login, data.password) == (b"ada", b"s3cret"))

    async def handle_DATA(self, server, session, envelope):
        tls = server.transport.get_extra_info("ssl_object")
        self.versions.add(tls and tls.version())
        self.mails.append(envelope)
        return "250 kept"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.loop.call_soon_threadsafe(self.server.close)
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.loop.close()


def without_what_differs(mail):
    """The message without what no two messages share; the form of that is checked."""
    text = mail.content
    boundary = re.search(rb'boundary="([^"]+)"', text)
    if boundary:
        text = text.replace(boundary[1], b"BOUNDARY")
    for field in (rb"Date: \w{3}, \d\d? \w{3} \d{4} \d\d:\d\d:\d\d [+-]\d{4}", rb"Message-ID: <[^>\s]+@[^>\s]+>"):
        text, count = re.subn(rb"(?m)^" + field + rb"\r$", b"", text)
        assert count == 1, (field, text[:1000])
    return text


class Submission(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        shutil.copy(CERTIFICATES / "authority.pem", self.folder)
        shutil.copy(CERTIFICATES / "other.pem", self.folder)
        (self.folder / "letter.txt").write_bytes("Grüße\n.\n..two\nend\n".encode())

    def send(self, inbox, settings, tool=TOOL):
        """The result and what was traced."""
        all_settings = {"MailProtocol": "SUBMISSION", "MailServer": "localhost", "MailServerPort": inbox.port,
                        "MailSecurityCAFile": "authority.pem", "MailSenderMailBox": "a@host.example",
                        "MailRecipientsMailBox": "b@host.example", "MailSubject": "Grüße", "MailTextFilename": "letter.txt",
                        "MailCharset": "UTF-8"} | settings
        trace = self.folder / "host.log"
        trace.unlink(missing_ok=True)
        result = subprocess.run([*tool, *(f"{name}={value}" for name, value in all_settings.items())], cwd=self.folder,
                                env=os.environ | {"VEL_MAILTRACE": "host.log;DEBUG"}, text=True, capture_output=True,
                                timeout=120)
        self.assertNotIn("Unhandled exception", result.stdout + result.stderr)
        return result, trace.read_text("latin-1")

    def test_certificates_are_told_apart(self):
        for certificate, server, authority, taken in (
            ("right", "localhost", "authority.pem", True),
            ("right", "localhost.", "authority.pem", True),
            ("right", "127.0.0.1", "authority.pem", not EMULATED),  # Schannel's libcurl looks at names alone
            ("right", "localhost", "other.pem", False),
            ("elsewhere", "localhost", "authority.pem", False),
            ("wildcard", "localhost", "authority.pem", False),
            ("expired", "localhost", "authority.pem", False),
            ("self", "localhost", "authority.pem", False),
        ):
            for security in ("STARTTLS", "TLS"):
                with self.subTest(certificate=certificate, server=server, authority=authority, security=security), \
                        Inbox(certificate, security == "TLS") as inbox:
                    result, trace = self.send(inbox, {"MailServer": server, "MailSecurity": security,
                                                      "MailSecurityCAFile": authority})
                    self.assertEqual((result.returncode, len(inbox.mails)), (0, 1) if taken else (4, 0), (result, trace))
                    self.assertEqual("error 654" in result.stderr, not taken, result)
                    self.assertEqual(trace.count("Error: Setting error 654 ("),
                                     not taken, trace)
                    self.assertTrue(certificate != "expired" or EMULATED or "certificate has expired" in trace, trace)
                    self.assertLessEqual(inbox.versions, {"TLSv1.2", "TLSv1.3"})

    def test_a_wildcard_stands_for_one_label(self):
        """With names of its own in a private view of the files: needs root, and Linux."""
        hosts = self.folder / "hosts"
        hosts.write_text("127.0.0.1 localhost a.host.example b.a.host.example host.example\n")
        private = ["unshare", "-m", "sh", "-c", f'mount --bind {hosts} /etc/hosts && exec "$@"', "sh"]
        if EMULATED or shutil.which("unshare") is None or subprocess.run([*private, "true"], capture_output=True).returncode != 0:
            self.skipTest("no private names here")
        for server, taken in (("a.host.example", True), ("b.a.host.example", False), ("host.example", False)):
            with self.subTest(server=server), Inbox("wildcard") as inbox:
                result, trace = self.send(inbox, {"MailServer": server}, [*private, *TOOL])
                self.assertEqual((result.returncode, len(inbox.mails)), (0, 1) if taken else (4, 0), (result, trace))
                self.assertEqual("certificate is not accepted" in trace, not taken, trace)

    def test_logins_are_taken_and_refused(self):
        for mechanism in ("", "PLAIN", "LOGIN", "CRAM-MD5", "XOAUTH2"):
            for password, code in (("s3cret", 0), ("wr0ng", 655)):
                with self.subTest(mechanism=mechanism, password=password), Inbox("right", auth_required=True) as inbox:
                    result, trace = self.send(inbox, {"MailAuthLogin": "ada", "MailAuthPassword": password,
                                                      "MailAuthMechanism": mechanism})
                    self.assertEqual((result.returncode, len(inbox.mails)), (5, 0) if code else (0, 1), (result, trace))
                    self.assertEqual(f"error {code}" in result.stderr, code != 0, result)
                    for secret in (password, base64.b64encode(f"\0ada\0{password}".encode()).decode()):
                        self.assertNotIn(secret, trace)

    def test_a_large_message_arrives_to_the_byte(self):
        (self.folder / "part.bin").write_bytes(os.urandom(5_000_000))
        (self.folder / "kürzer.csv").write_bytes(b"a;b\r\n")
        mail = {"MailSenderFullName": "Jörg", "MailAttachmentFilename": "part.bin;kürzer.csv",
                "MailAttachmentMimeType": "application/octet-stream;text/csv"}
        for security in ("NONE", "STARTTLS", "TLS"):
            with self.subTest(security=security), \
                    Inbox("right" if security != "NONE" else None, security == "TLS") as inbox:
                result, trace = self.send(inbox, mail | {"MailSecurity": security})
                self.assertEqual(result.returncode, 0, (result, trace))
                arrived = inbox.mails.pop()
                self.assertEqual((arrived.mail_from, arrived.rcpt_tos), ("a@host.example", ["b@host.example"]))
                parts = list(email.message_from_bytes(arrived.content, policy=email.policy.SMTP).iter_parts())
                self.assertEqual(parts[0].get_content().replace("\r\n", "\n"), "Grüße\n.\n..two\nend\n")
                self.assertEqual([part.get_filename() for part in parts[1:]], ["part.bin", "kürzer.csv"])
                self.assertTrue(parts[1].get_payload(decode=True) == (self.folder / "part.bin").read_bytes())
                if PEER:
                    self.assertEqual(self.send(inbox, mail | {"MailSecurity": security}, PEER)[0].returncode, 0)
                    self.assertTrue(without_what_differs(arrived) == without_what_differs(inbox.mails.pop()),
                                    arrived.content[:2000])

    @unittest.skipUnless(EMULATED, "elsewhere the system's loader finds it")
    def test_a_libcurl_that_is_missing_or_none_is_error_697(self):
        built = pathlib.Path(TOOL[-1]).parent.parent
        shutil.copy(TOOL[-1], self.folder)
        shutil.copy(built / "VelMail64.dll", self.folder)
        library = self.folder / "libcurl-x64.dll"
        for content, reason in ((None, r"\S.*"), (b"no library", r"\S.*"),
                                ((built / "libesmtp-6.dll").read_bytes(), "It has no function curl_global_init"),
                                ((built / "libcurl-x64.dll").read_bytes(), "")):
            with self.subTest(reason=reason, there=content is not None), Inbox() as inbox:
                if content is not None:
                    library.write_bytes(content)
                result, trace = self.send(inbox, {"MailSecurity": "NONE"},
                                          [*TOOL[:-1], str(self.folder / "velmail.exe")])
                self.assertEqual((result.returncode, len(inbox.mails)), (1, 0) if reason else (0, 1), (result, trace))
                self.assertEqual("error 697" in result.stderr, reason != "", result)
                if reason:
                    self.assertRegex(trace, r"Setting error 697 \(The library libcurl could not be loaded: " + reason + r"\)")


if __name__ == "__main__":
    logging.disable()  # the server tells of each refused handshake
    make_certificates()
    unittest.main(argv=sys.argv[:1], warnings="ignore")
