"""Through a real Postfix into a mailbox and back: each recipient's copy must hold what was sent, byte for byte."""

import contextlib
import ctypes
import mailbox
import os
import pathlib
import pwd
import re
import signal
import socket
import subprocess
import sys
import tempfile

TOOL = os.path.abspath(sys.argv[1])
MASTER = "/usr/lib/postfix/sbin/master"
CHILD_SUBREAPER = 36  # of prctl
MAIN = """queue_directory = {0}/queue
data_directory = {0}/data
maillog_file = /dev/stdout
local_recipient_maps =
smtpd_relay_restrictions = reject_unauth_destination
virtual_mailbox_domains = host.example
virtual_mailbox_base = {0}/box
virtual_mailbox_maps = static:all/
virtual_uid_maps = static:{1.pw_uid}
virtual_gid_maps = static:{1.pw_gid}
"""
SERVICES = """127.0.0.1:{0} inet n - n - - smtpd
127.0.0.1:{1} inet n - n - - smtpd -o smtpd_discard_ehlo_keywords=chunking
anvil unix - - n - 1 anvil
cleanup unix n - n - 0 cleanup
postlog unix-dgram n - n - 1 postlogd
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
virtual unix - n n - - virtual
"""


@contextlib.contextmanager
def postfix(folder):
    owner = pwd.getpwnam("postfix")
    folder.chmod(0o755)
    (folder / "queue/pid").mkdir(parents=True)
    for name in ("active", "corrupt", "defer", "deferred", "incoming", "private", "public", "../data", "../box"):
        (folder / "queue" / name).mkdir()
        os.chown(folder / "queue" / name, owner.pw_uid, owner.pw_gid)
    (folder / "main.cf").write_text(MAIN.format(folder, owner))
    held = [socket.socket() for _ in range(2)]  # nobody else gets their ports, but who listens may share them
    for each in held:
        each.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in held]
    (folder / "master.cf").write_text(SERVICES.format(*ports))
    ctypes.CDLL(None).prctl(CHILD_SUBREAPER, 1)  # what the server leaves behind becomes a child of this process
    master = subprocess.Popen([MASTER, "-c", folder, "-s"], stdout=subprocess.PIPE, text=True)
    try:
        yield ports, master.stdout
    finally:
        master.terminate()
        master.communicate()
        with contextlib.suppress(ChildProcessError):
            while os.wait():
                pass


def read_until(pattern, count, log):
    entries = ""
    while len(re.findall(pattern, entries)) < count:
        line = log.readline()
        entries += line
        assert line, f"Postfix has ended:\n{entries}"
    return entries


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
