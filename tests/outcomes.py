"""What the command-line host says of a send, and its exit status, by servers that refuse, break off or wait.

Usage: outcomes.py [EMULATOR] PROGRAM. Over SMTP and SUBMISSION alike; what the server has taken is compared with what the
host says that it has.
"""

import os
import pathlib
import pty
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading

TOOL = [os.path.abspath(part) for part in sys.argv[1:]]
EMULATED = len(TOOL) > 1
BOB, EVE = "bob@host.example", "eve@host.example"
SMTP, SUBMISSION = ("MailProtocol=SMTP",), ("MailProtocol=SUBMISSION", "MailSecurity=NONE")
LARGE = 50_000_000  # more than the sockets hold
FAULTS = []


class Server:
    """Answers by the first words of a command that stand in `replies`; hangs up for None. One connection or none."""

    def __init__(self, replies):
        self.replies, self.taken, self.ended = replies, [], False
        self.in_text, self.go = threading.Event(), threading.Event()
        if replies.get("text") != "stops":
            self.go.set()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        try:
            with self.listener.accept()[0] as connection, connection.makefile("rb") as lines:
                self.talk(lines, lambda reply: connection.sendall(reply.encode() + b"\r\n"))
        except OSError:
            pass  # nobody came, or the host has gone

    def stop(self):
        self.go.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()

    def answer(self, command):
        usual = {"EHLO": "250-here\r\n250 8BITMIME", "DATA": "354 go on", "QUIT": "221 bye", ".": "250 2.0.0 queued"}
        return next((reply for replies in (self.replies, usual) for start, reply in replies.items()
                     if command.startswith(start)), "250 2.1.0 fine")

    def talk(self, lines, say):
        say(self.answer("greeting") if "greeting" in self.replies else "220 here")
        recipients = []
        for line in lines:
            reply = self.answer(line.decode())
            if reply is None:
                return
            if line.startswith(b"RCPT") and reply.startswith("2"):
                recipients.append(line.decode()[9:-3])
            if reply.startswith("354"):
                say(reply)
                reply = self.read_text(lines)
                if reply is None:
                    return
                self.taken += recipients if reply.startswith("2") else []
            say(reply)
            if reply.startswith("221"):
                return

    def read_text(self, lines):
        for line in lines:
            self.in_text.set()
            self.go.wait()
            if self.replies.get("text", "") is None:
                return None
            if line == b".\r\n":
                self.ended = True
                return self.answer(".")
        return None


def start(server, *arguments, **how):
    environment = {name: value for name, value in os.environ.items() if name != "VEL_MAILTRACE"}
    if not EMULATED:  # where it is an environment variable that says where temporary files go
        environment["TMPDIR"] = str(FOLDER / "temporary")
    return subprocess.Popen(
        [*TOOL, "MailServer=127.0.0.1", f"MailServerPort={server.port}", "MailSenderMailBox=a@host.example",
         f"MailRecipientsMailBox={BOB};{EVE}", "MailSubject=Test", "MailTextFilename=letter", *arguments],
        cwd=FOLDER, env=environment, stdout=subprocess.PIPE,
        **({"stderr": subprocess.PIPE} | how))


def expect(name, server, process, status, *patterns):
    """The process ends so and prints lines of these patterns, and the server has what it says."""
    out, err = ((part or b"").decode("latin-1").replace("\r", "") for part in process.communicate(timeout=120))
    server.stop()
    shown = f"{name}: status {process.returncode}, server has {server.taken}\n{out}{err}"
    print(shown, flush=True)
    said = {BOB, EVE} if status == 0 else set(re.findall("(?m)^sent: ([^:]*): 250", err))
    wrong = [pattern for pattern in patterns if not re.search(f"(?m)^{pattern}$", out + err)]
    wrong += [f"status {status}"] if process.returncode != status else []
    wrong += ["what it says of the server"] if said != set(server.taken) or ("Sent (error 0:" in out) != (status == 0) else []
    wrong += [f"without {left}" for left in (FOLDER / "temporary").iterdir()]
    FAULTS.extend(f"{name}: {each}" for each in wrong)


def refused(code, *mailboxes):
    return [f"refused: {mailbox}: {code} the words" for mailbox in mailboxes or (BOB, EVE)]


def failed(what, code, *more):
    return [f"velmail: {what} failed: error {code}: .*", *more]


# name, the server, the settings, and for SMTP and SUBMISSION the status with the lines
OK = (0, [])
TABLE = (
    ("taken", {}, [], OK, OK),
    ("554 greeting", {"greeting": "554 the words"}, [],
     (4, [*failed("send", "(664|682)"), *refused(554)]), (4, failed("connect", 682, "velmail: reason: .* 554 the words"))),
    ("530 login demanded", {"MAIL": "530 the words"}, [],
     (3, [*refused(530), "velmail: sent to 0 of 2 recipients", "velmail: hint: .*SUBMISSION.*"]),
     (5, failed("send", 655, "velmail: reason: .* 530 the words"))),
    ("530 encryption demanded", {"MAIL": "530 5.7.0 Must issue a STARTTLS command first"}, [],
     (3, [f"refused: {BOB}: 530 5.7.0 Must issue a STARTTLS command first"]), (5, failed("send", 655))),
    ("550 one recipient", {f"RCPT TO:<{EVE}": "550 the words"}, [],
     (3, [*refused(550, EVE), "velmail: sent to 1 of 2 recipients"]),
     (3, [*failed("send", 658), *refused(550, EVE), f"not sent: {BOB}: .*another recipient.*"])),
    ("552 message", {".": "552 the words"}, [], (3, refused(552)), (3, [*failed("send", 62), *refused(552)])),
    ("553 sender", {"MAIL": "553 the words"}, [], (3, refused(553)), (3, [*failed("send", 657), *refused(553)])),
    ("554 data", {"DATA": "554 the words"}, [], (3, refused(554)), (3, [*failed("send", 62), *refused(554)])),
    ("452 recipients", {"RCPT": "452 the words"}, [], (3, refused(452)), (3, [*failed("send", 658), *refused(452)])),
    ("lost in the text", {"text": None}, [], (4, failed("send", 664)), (4, failed("send", 664))),
    ("lost at MAIL", {"MAIL": None}, [], (4, failed("send", 664)), (4, failed("send", 664))),
    ("closed port", {}, ["MailServerPort=1"],
     (4, failed("send", 682, "velmail: reason: .*refused.*", "velmail: property: MailServer, MailServerPort")),
     (4, failed("connect", 653, "velmail: reason: .*", "velmail: property: MailServer, MailServerPort"))),
    ("unknown name", {}, ["MailServer=no.such.host.invalid"],
     (4, failed("send", "67.", "velmail: property: MailServer")),
     (4, failed("connect", "67.", "velmail: reason: .*no.such.host.invalid.*"))),
    ("missing attachment", {}, ["MailAttachmentFilename=missing.pdf"],
     *[(1, failed("send", 659, r"velmail: reason: The file .*missing\.pdf cannot be opened: .*"))] * 2),
    ("missing text", {}, ["MailTextFilename=missing"],
     (1, failed("send", 695, "velmail: reason: .*missing.*", "velmail: property: MailTextFilename")), None),
    ("missing block", {}, ["MailTextMemoryAddress=@missing"], (1, ["velmail: cannot read 'missing': .*"]), None),
    ("comma list", {}, [f"MailRecipientsMailBox={BOB},{EVE}"],
     (1, failed("send", 650, "velmail: property: MailRecipientsMailBox")), None),
    ("unknown property", {}, ["MailSubjekt=x"], (2, ["velmail: .*'MailSubjekt'.*"]), None),
    ("word for a number", {}, ["UseBulkMail=true"], (2, ["velmail: .* write UseBulkMail=1 for yes, .*"]), None),
    ("unknown option", {}, ["--subject=x"], (2, ["velmail: .*--help"]), None),
)


def check_cancel(path):
    """A line on a terminal shows the progress. The server stops reading in the text until the host has ended by itself."""
    server = Server({"text": "stops"})
    screen, terminal = pty.openpty()
    process = start(server, "MailAttachmentFilename=large", *path, start_new_session=True,
                    **({} if EMULATED else {"stderr": terminal}))
    os.close(terminal)
    assert server.in_text.wait(60)
    shown = b""
    while not EMULATED and not re.search(rb"\r[\d.]+ of 50\.0 MB, \d+ %", shown):
        shown += os.read(screen, 1000)
    os.killpg(process.pid, signal.SIGINT)
    expect(f"cancelled, {path[0]}", server, process, 6, *(["velmail: cancelled; the server has no mail"] if EMULATED else []))
    FAULTS.extend(["cancelled: an end of the mail"] * server.ended)
    os.close(screen)


with tempfile.TemporaryDirectory() as name:
    FOLDER = pathlib.Path(name)
    (FOLDER / "temporary").mkdir()
    (FOLDER / "letter").write_text("Hello\n")
    (FOLDER / "large").touch()
    os.truncate(FOLDER / "large", LARGE)
    signal.signal(signal.SIGINT, signal.default_int_handler)  # not ignored, which a host would keep
    for title, replies, settings, *results in TABLE:
        for path, result in zip((SMTP, SUBMISSION), results):
            if result:
                scripted = Server(replies)
                expect(f"{title}, {path[0]}", scripted, start(scripted, *settings, *path), result[0], *result[1])
    for path in (SMTP, SUBMISSION):
        check_cancel(path)
print("\n  WRONG     ".join(["", *FAULTS]))
sys.exit(bool(FAULTS))
