"""What the measurements of times (run.py) and of counts (counts.py) share: the sink, the mails, the senders."""

import base64
import contextlib
import json
import os
import platform
import statistics
import subprocess
import sys
import time

KB = 1024
MB = 1024 * KB
GB = 1024 * MB
PEERS = {"velmail": "VEL mail", "esmtp": "libESMTP alone", "curl": "libcurl", "write": "bare `write()`"}
BOUNDARY = b"velmail1234567890"


@contextlib.contextmanager
def one_processor():
    """Keeps the programs that are started within on one processor.

    In a dialogue with short mails one side always waits for the other. What it costs to wake it on another
    processor varies threefold with the machine's load and hides the difference between the senders.
    """
    allowed = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(allowed)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, allowed)


class Sink:
    """The server; ends when its standard input closes, however this program ends."""

    def __init__(self, build, *options):
        self.chunking = "--chunking" in options
        self.tls = options[options.index("--tls") + 1] if "--tls" in options else ""
        self.process = subprocess.Popen([os.path.join(build, "bench_sink"), *options], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.port = self.process.stdout.readline().strip()

    def totals(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        mails, size, seconds = self.process.stdout.readline().split()
        return int(mails), int(size), float(seconds)

    def close(self):
        self.process.stdin.close()
        self.process.wait()


class MailFiles:
    """One mail: its text, its attachment, and the whole of it as the library composes it."""

    def __init__(self, folder, name, text_size, attachment_size=0, sparse=False):
        self.text, self.attachment, self.composed = (
            os.path.join(folder, name + end) for end in (".txt", ".bin", ".eml"))
        text = text_lines(text_size)
        self.payload = len(text) + encoded_size(attachment_size)
        write_file(self.text, [text])
        if attachment_size == 0:
            self.attachment = ""
        elif sparse:
            with open(self.attachment, "wb") as file:
                file.truncate(attachment_size)
            self.composed = ""
            return
        else:
            write_file(self.attachment, attachment_blocks(attachment_size))
        write_file(self.composed, composed_blocks(text, os.path.basename(self.attachment), attachment_size))


def text_lines(size):
    line = b"The quick brown fox jumps over the lazy dog and sends its letter home\r\n"
    return (line * (size // len(line) + 1))[: size - 2] + b"\r\n"


def encoded_size(size):
    whole = (size + 2) // 3 * 4
    return whole + (whole + 75) // 76 * 2


BLOCK = os.urandom(57 * 4096)  # a whole number of base64 lines


def attachment_blocks(size):
    for _ in range(size // len(BLOCK)):
        yield BLOCK
    yield BLOCK[: size % len(BLOCK)]


def encode(data):
    return base64.encodebytes(data).replace(b"\n", b"\r\n")


def composed_blocks(text, name, attachment_size):
    yield (b'Content-Type: multipart/mixed;boundary="%s"\r\n\r\nMIME-Version: 1.0\r\n--%s\r\n'
           b"Content-Type: text/plain; charset=ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
           % (BOUNDARY, BOUNDARY)) + text + b"\r\n"
    if attachment_size > 0:
        yield (b'--%s\r\nContent-Type: application/octet-stream; name="%s"\r\n'
               b"Content-Transfer-Encoding: base64\r\n"
               b'Content-Disposition: inline; filename="%s"\r\n\r\n'
               % (BOUNDARY, name.encode(), name.encode()))
        encoded = encode(BLOCK)
        for _ in range(attachment_size // len(BLOCK)):
            yield encoded
        yield encode(BLOCK[: attachment_size % len(BLOCK)]) + b"\r\n"
    yield b"--%s--\r\n" % BOUNDARY


def write_file(name, blocks):
    with open(name, "wb") as file:
        for block in blocks:
            file.write(block)


class Senders:
    """The benchmark's programs, and what is written while they run."""

    def __init__(self, build, folder, limit):
        self.build, self.folder, self.limit = build, folder, limit
        self.environment = {name: value for name, value in os.environ.items() if name != "VEL_MAILTRACE"}

    def run(self, peer, mail, sink, under=(), **options):
        """Runs one sender, `under` another program if one is given, and returns what the sender says of itself.

        Returns None when it took too long.
        """
        program = ([sys.executable, os.path.join(os.path.dirname(__file__), "peer_smtplib.py")]
                   if peer == "smtplib" else [os.path.join(self.build, "peer_" + peer)])
        command = [*under, *program, "--port", sink.port, "--text", mail.text,
                   "--composed", mail.composed]
        if mail.attachment:
            command += ["--attachment", mail.attachment]
        if sink.chunking:
            command += ["--chunking", "1"]
        if sink.tls:
            command += ["--tls", sink.tls]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        before = sink.totals()
        try:
            done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=self.limit,
                                  env=self.environment)
        except subprocess.TimeoutExpired:
            say(f"{peer} took longer than {self.limit} s and was ended")
            return None
        if done.returncode != 0:
            raise SystemExit(f"{peer} failed: {' '.join(command)}")
        result = json.loads(done.stdout)
        arrived, arrived_size, result["sink"] = (now - then for now, then in zip(sink.totals(), before))
        if arrived != result["mails"] or arrived_size < arrived * mail.payload:
            raise SystemExit(f"{peer}: {result['mails']} mails sent, {arrived} arrived, {arrived_size} bytes")
        if arrived > 0:
            result["rate"] = arrived / result["seconds"]
            result["work"] = result["processor"] / arrived
            result["slow"] = 1000 * result["slow"] / arrived
        return result


def median(results, field):
    values = [result[field] for result in results if result is not None and field in result]
    return statistics.median(values) if values else None


def ratios(ours, theirs, field="rate"):
    """Ours over theirs, turn by turn."""
    return [a[field] / b[field] for a, b in zip(ours, theirs) if a and b and a.get(field) and b.get(field)]


def ratio_text(values):
    return f"{statistics.median(values):.2f} ({min(values):.2f}–{max(values):.2f})" if values else "–"


def say(text):
    print(text, file=sys.stderr, flush=True)


def number(value, digits=0):
    return "–" if value is None else f"{value:,.{digits}f}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|---" + "|---:" * (len(head) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


class Goals:
    """What is aimed at, beside what was measured."""

    def __init__(self):
        self.rows = []

    def at_least(self, what, wanted, values):
        if values:
            found = statistics.median(values)
            held = "yes" if found >= wanted else "no"
            self.rows.append([what, f"at least {wanted:.2f}", f"{found:.2f}", held])

    def at_most(self, what, wanted, found, unit=""):
        if found is not None:
            held = "yes" if found <= wanted else "no"
            limit = f"{wanted:g} {unit}" if unit else f"{wanted:.2f}"
            self.rows.append([what, f"at most {limit}", f"{found:.2f} {unit}".strip(), held])

    def text(self):
        return "### Goals\n\n" + table(["goal", "wanted", "measured", "held"], self.rows)


def size_text(size):
    return f"{size // GB} GB" if size >= GB else f"{size // MB} MB"


def machine():
    model = platform.processor()
    with open("/proc/cpuinfo", encoding="ascii") as file:
        model = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), model)
    versions = [subprocess.run(["pkg-config", "--modversion", package], stdout=subprocess.PIPE,
                               text=True).stdout.strip() for package in ("libesmtp-1.0", "libcurl")]
    return (f"{time.strftime('%Y-%m-%d')}, {os.cpu_count()} processors ({model}), "
            f"Linux {platform.release()}, libESMTP {versions[0]}, libcurl {versions[1]}")
