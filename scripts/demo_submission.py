"""The demo of the submission path: two mails with umlauts through a Postfix of its own, and what arrived of them.

    demo_submission.py VELMAIL

Sends them with that command-line host, encrypted and logged in, and exits with 1 when anything is not as it was sent.
"""

import email
import email.policy
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

from private_postfix import MASTER, postfix, read_until

SENDER, RECIPIENTS = "Jürgen Groß", ["to@host.example", "cc@host.example", "bcc@host.example"]
SUBJECT = "Grüße aus München – Angebot über 10 €"
FILES = {"Übersicht für März.csv": "Stück;Größe\n10;süß\n".encode(), "Anhang ß.bin": os.urandom(100_000), "leer.txt": b""}
TEXT = "Sehr geehrte Frau Müller,\n\nanbei die Übersicht.\n.\nGrüße\n"


def send(tool, folder, port, security, charset):
    """The bytes of the names are those of the charset, as a host of today or of yesterday has them."""
    source = folder / security
    source.mkdir()
    for name, content in FILES.items():
        (source / name).write_bytes(content)
    (source / "letter.txt").write_bytes(TEXT.encode(charset))
    # In memory, an attachment has the name that it is given, in any charset.
    settings = ["MailProtocol=SUBMISSION", "MailServer=localhost", f"MailServerPort={port}", f"MailSecurity={security}",
                f"MailSecurityCAFile={folder}/certificate.pem", "MailAuthLogin=ada", f"MailAuthPassword=@{folder}/password",
                "MailSenderMailBox=ada@host.example", f"MailSenderFullName={SENDER}", f"MailSubject={SUBJECT}",
                f"MailRecipientsMailBox={RECIPIENTS[0]}", "MailRecipientsFullName=Zoë Müller",
                f"MailCCRecipientsMailBox={RECIPIENTS[1]}", f"MailBCCRecipientsMailBox={RECIPIENTS[2]}",
                "MailTextMemoryAddress=@letter.txt", "MailTextContentType=text/plain",
                "MailAttachmentFilename=" + ";".join(FILES), *(f"MailAttachmentMemoryAddress=@{name}" for name in FILES)]
    print("velmail", *(each.replace(f"{folder}/", "") for each in settings), sep="\n  ", flush=True)
    raw = [each.encode() if each.startswith("MailAttachmentMemory") else each.encode(charset) for each in settings]
    return subprocess.run([tool, *raw], cwd=source).returncode == 0


def show(copies):
    """Prints the mail as received; gives what is not as it was sent."""
    messages = [email.message_from_bytes(copy, policy=email.policy.default) for copy in copies]
    message = messages[0]
    received = " ".join(message["Received"].split())
    print(f"  Encryption  {re.search(r'using (.*? bits[)])', received)[1]}, {re.search('Authenticated.*?(?=[)])', received)[0]}")
    print(f"  Envelope    from {message['Return-Path']} to {', '.join(each['Delivered-To'] for each in messages)}")
    for name, value in message.items():
        if name not in ("Return-Path", "X-Original-To", "Delivered-To"):
            print(f"  Header      {name}: {' '.join(value.split())}")
    wrong = [f"{name}: {found!r}" for name, found, wanted in [
        ("recipients", sorted(each["Delivered-To"] for each in messages), sorted(RECIPIENTS)),
        ("From", message["From"].addresses[0].display_name, SENDER),
        ("To", message["To"].addresses[0].display_name, "Zoë Müller"),
        ("Bcc", message["Bcc"], None), ("Subject", message["Subject"], SUBJECT),
        ("text", message.get_body().get_content().replace("\r\n", "\n"), TEXT),
        ("files", {part.get_filename(): part.get_payload(decode=True) for part in message.iter_attachments()}, FILES),
        ("faults", [defect for part in message.walk() for defect in part.defects], []),
        ("login", "(Authenticated sender: ada" in received, True)] if found != wanted]
    for part in message.iter_parts():
        content = part.get_payload(decode=True)
        print(f"  Part        {part['Content-Type']}, {part['Content-Transfer-Encoding']}, {part.get_filename()}, "
              f"{len(content)} bytes")
        if not part.get_filename():
            print("".join(f"              {line}\n" for line in part.get_content().splitlines()), end="")
    return wrong


def run(tool, folder, ports, log):
    """Sends a mail to each of the ports; gives what is not as it was sent."""
    wrong = []
    (folder / "password").write_text("s3cret\n")
    for port, security, charset in zip(ports, ("STARTTLS", "TLS"), ("utf-8", "windows-1252")):
        print(f"\n=== {security}, names and text in {charset} ===", flush=True)
        if not send(tool, folder, port, security, charset):
            return [*wrong, "the mail was not sent"]
        read_until("status=sent|disconnect from", len(RECIPIENTS) + 1, log)
        print("\nWhat arrived:")
        kept = sorted((folder / "box/all/new").iterdir())
        wrong += show([each.read_bytes() for each in kept])
        for each in kept:
            each.unlink()
    return wrong


def main(tool, folder):
    with postfix(folder) as (ports, log):
        read_until("daemon started", 1, log)
        wrong = run(tool, folder, ports[2:], log)
    print("\n=== Result ===", *(f"  WRONG     {each}" for each in wrong), sep="\n")
    if not wrong:
        print("Two mails sent, encrypted and logged in, and both arrived as they were sent.")
    return 1 if wrong else 0


def give_up(*_):
    raise SystemExit("Ended before its time.")


if __name__ == "__main__":
    if os.geteuid() != 0 or not os.path.exists(MASTER):
        sys.exit("This needs Postfix, and root to start it.")
    for number in (signal.SIGALRM, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, give_up)
    signal.alarm(120)
    with tempfile.TemporaryDirectory() as name:
        sys.exit(main(os.path.abspath(sys.argv[1]), pathlib.Path(name)))
