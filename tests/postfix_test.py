"""Through a real Postfix into a mailbox and back: each recipient's copy must hold what was sent, byte for byte."""

import mailbox
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "scripts"))
import demo_submission
from private_postfix import MASTER, postfix, read_until

TOOL = os.path.abspath(sys.argv[1])


def main(folder, ports, log):
    text = "Gr\xfc\xdfe\n\n.\n..two\n.three\nFrom me\n\nend".encode("latin-1")
    contents = {f"part{size}.bin": os.urandom(size) for size in (0, 57, 58, 3_000_000)}
    for name, content in {"text": text, **contents}.items():
        (folder / name).write_bytes(content)
    common = ["MailServer=127.0.0.1", "MailSenderMailBox=me@host.example", "MailSubject=Test",
              "MailRecipientsMailBox=to@host.example", "MailCCRecipientsMailBox=cc@host.example",
              "MailBCCRecipientsMailBox=bcc@host.example", "MailAttachmentFilename=" + ";".join(contents)]
    blocks = [f"MailAttachmentMemoryAddress=@{name}" for name in contents]
    # A part without a byte is none; its line end is left in the part before.
    wanted = [(None, "8bit", text + b"\n"), *((name, "base64", content) for name, content in contents.items() if content)]
    read_until("daemon started", 1, log)
    for port, transfer in zip(ports, (" bdat=", " data=")):
        for inputs in (["MailTextFilename=text"], ["MailTextMemoryAddress=@text", *blocks]):
            subprocess.run([TOOL, f"MailServerPort={port}", *common, *inputs], cwd=folder,
                           env={"VEL_MAILTRACE": "trace;DEBUG"}, check=True)
            assert b"250-PIPELINING\r\n" in (folder / "trace").read_bytes()
            entries = read_until("status=|disconnect from", 4, log)
            assert (entries.count("status=sent"), entries.count(transfer)) == (3, 1), entries
            box = mailbox.Maildir(folder / "box/all", create=False)
            copies = {copy["Delivered-To"]: copy for copy in map(box.pop, box.keys())}
            assert copies.keys() == {f"{name}@host.example" for name in ("to", "cc", "bcc")}, copies.keys()
            for copy in copies.values():
                fields = [copy[name] for name in ("To", "Cc", "Bcc", "Subject")]
                assert fields == ['"" <to@host.example>', '"" <cc@host.example>', None, "Test"], fields
                parts = [(part.get_filename(), part["Content-Transfer-Encoding"], part.get_payload(decode=True))
                         for part in copy.get_payload()]
                assert parts == wanted, [(name, encoding, content[:200]) for name, encoding, content in parts]
                assert not any(part.defects for part in copy.walk())
    wrong = demo_submission.run(TOOL, folder, ports[2:], log)  # umlauts in both charsets, an attachment of no bytes
    assert not wrong, wrong


def give_up(*_):
    raise TimeoutError


if os.geteuid() != 0 or not os.path.exists(MASTER):
    print("Needs Postfix, and root to start it.")
    sys.exit(77)
for number in (signal.SIGALRM, signal.SIGTERM):
    signal.signal(number, give_up)
signal.alarm(120)
with tempfile.TemporaryDirectory() as name, postfix(pathlib.Path(name)) as (ports, log):
    main(pathlib.Path(name), ports, log)
