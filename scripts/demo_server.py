"""The demo's mail server and its view of what arrived.

    demo_server.py serve FOLDER             keep each mail as FOLDER/N.eml and its envelope as FOLDER/N.json
    demo_server.py show FOLDER [options]    print the mail of a subject, compared with what was to be sent

The server listens on a free port of the loopback interface, prints the port as its first line once it accepts
connections, and ends when its standard input is closed. "show" exits with 1 when anything differs.
"""

import argparse
import asyncio
import email
import email.policy
import email.utils
import hashlib
import json
import os
import pathlib
import sys

LINE_WIDTH = 100


class Keeper:
    """Keeps each mail before the client gets its answer: whoever saw the mail accepted finds it."""

    def __init__(self, folder):
        self.folder = folder
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        (self.folder / f"{self.count}.eml").write_bytes(envelope.original_content)
        record = {"sender": envelope.mail_from, "recipients": envelope.rcpt_tos}
        (self.folder / f"{self.count}.json").write_text(json.dumps(record))
        return "250 OK, kept"


async def serve(folder):
    from aiosmtpd.smtp import SMTP  # only the server needs it

    loop = asyncio.get_running_loop()
    keeper = Keeper(folder)
    server = await loop.create_server(lambda: SMTP(keeper, hostname="localhost"), "127.0.0.1", 0)
    closed = loop.create_future()

    def read_input():
        if not os.read(sys.stdin.fileno(), 4096) and not closed.done():
            closed.set_result(None)

    loop.add_reader(sys.stdin.fileno(), read_input)
    print(server.sockets[0].getsockname()[1], flush=True)
    await closed
    loop.remove_reader(sys.stdin.fileno())
    server.close()


def digest(data):
    return hashlib.sha256(data).hexdigest()


def lines_of(data):
    """Mail text travels with CR LF line ends, and the last line may have none of its own."""
    return data.replace(b"\r\n", b"\n").rstrip(b"\n")


class Checker:
    def __init__(self):
        self.faults = []

    def expect(self, what, wanted, found):
        if wanted == found:
            return "as sent"
        self.faults.append(f"{what}: wanted {wanted!r}, found {found!r}")
        return "DIFFERS"


def shorten(text):
    return text if len(text) <= LINE_WIDTH else text[: LINE_WIDTH - 4] + " ..."


def show_envelope(record, args, checker):
    note = checker.expect("envelope sender", args.sender, record["sender"])
    print(f"  Envelope  MAIL FROM:<{record['sender']}>  ({note})")
    wanted = args.to + args.cc + args.bcc
    for recipient in record["recipients"]:
        known = "as sent" if recipient in wanted else "DIFFERS"
        print(f"            RCPT TO:<{recipient}>  ({known})")
    checker.expect("envelope recipients", sorted(wanted), sorted(record["recipients"]))


def show_header(message, args, checker):
    for number, (name, value) in enumerate(message.items()):
        print(f"  {'Header' if number == 0 else '':<8}  {shorten(name + ': ' + ' '.join(value.split()))}")
    for name, wanted in (("From", [args.sender]), ("To", args.to), ("Cc", args.cc)):
        found = [address for _, address in email.utils.getaddresses(message.get_all(name, []))]
        checker.expect(f"{name} header", wanted, found)
    checker.expect("content type", "multipart/mixed", message.get_content_type())


def show_part(number, part, original, checker):
    """A part and its original file; a mail text is compared line by line, anything else byte by byte."""
    data = part.get_payload(decode=True)
    source = original.read_bytes()
    name = part.get_filename()
    if name is None:
        data, source = lines_of(data), lines_of(source)
    else:
        checker.expect(f"name of part {number}", original.name, name)
    note = checker.expect(f"SHA-256 of part {number}", digest(source), digest(data))
    encoding = part.get("Content-Transfer-Encoding", "7bit")
    described = f'{part.get_content_type()}, "{name}"' if name else part["Content-Type"]
    counted = "bytes" if name else "bytes (line ends as LF)"
    print(f"  Part {number:<3}  {described}, {encoding}, {len(data)} {counted}")
    print(f"            SHA-256 of the original  {digest(source)}")
    print(f"            SHA-256 of what arrived  {digest(data)}  ({note})")


def find_mail(folder, subject):
    for path in sorted(folder.glob("*.eml")):
        # The old policy hands header values over as they came, which is what is to be shown.
        message = email.message_from_bytes(path.read_bytes(), policy=email.policy.compat32)
        if message["Subject"] == subject:
            return json.loads(path.with_suffix(".json").read_text()), message
    return None, None


def show(folder, args):
    checker = Checker()
    record, message = find_mail(folder, args.subject)
    if message is None:
        print(f"  WRONG     no mail with the subject {args.subject!r} arrived")
        return 1
    show_envelope(record, args, checker)
    show_header(message, args, checker)
    parts = message.get_payload() if message.is_multipart() else []
    originals = [args.text] + args.attachment
    checker.expect("number of parts", len(originals), len(parts))
    if parts:
        checker.expect("type of the text", args.type, parts[0].get_content_type())
    for number, (part, original) in enumerate(zip(parts, originals), start=1):
        show_part(number, part, original, checker)
    for fault in checker.faults:
        print(f"  WRONG     {fault}")
    return 1 if checker.faults else 0


def read_arguments():
    parser = argparse.ArgumentParser(description="The demo's mail server and its view of what arrived.")
    commands = parser.add_subparsers(dest="command", required=True)
    command = commands.add_parser("serve", help="keep what arrives until standard input is closed")
    command.add_argument("folder", type=pathlib.Path)
    command = commands.add_parser("show", help="print a mail and compare it with what was to be sent")
    command.add_argument("folder", type=pathlib.Path)
    command.add_argument("--sender", required=True)
    command.add_argument("--subject", required=True)
    command.add_argument("--text", type=pathlib.Path, required=True, help="file with the original text")
    command.add_argument("--type", default="text/plain", help="wanted content type of the text")
    command.add_argument("--attachment", type=pathlib.Path, action="append", default=[])
    for kind in ("--to", "--cc", "--bcc"):
        command.add_argument(kind, action="append", default=[])
    return parser.parse_args()


def main():
    args = read_arguments()
    if args.command == "serve":
        asyncio.run(serve(args.folder))
        return 0
    return show(args.folder, args)


if __name__ == "__main__":
    sys.exit(main())
