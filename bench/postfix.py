"""Mails a second into the queue of a Postfix on this machine, and what a host sees when that Postfix is down.

    VELMAIL_LIBRARY=build/native/libVelMail64.so /usr/bin/python3 bench/postfix.py    (as root; half a minute)

Each run sends 1,000 mails of 2 KB in 1 and in 8 threads, one TCP connection for each mail, as the path SMTP does.
Postfix stores each mail with its own fsync before it says 250, and delivers to a mailbox at the same time.
"""

import pathlib
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "scripts"), str(ROOT / "bindings/python")]
import velmail
from private_postfix import postfix, read_until

MAILS = 1000
MAIL = velmail.Mail(sender="me@host.example", to="you@host.example", subject="Report", text="A line of the report.\n" * 93)


def send(port, count):
    with velmail.connect("127.0.0.1", port) as connection:
        for _ in range(count):
            connection.send(MAIL)


def measure(port, threads):
    workers = [threading.Thread(target=send, args=(port, MAILS // threads)) for _ in range(threads)]
    start = time.monotonic()
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return MAILS / (time.monotonic() - start)


def main():
    with tempfile.TemporaryDirectory(dir="/var/tmp") as folder, postfix(pathlib.Path(folder)) as (ports, log):
        read_until("daemon started", 1, log)
        threading.Thread(target=log.read, daemon=True).start()  # else a full pipe stops Postfix
        for threads in (1, 8):
            rates = sorted(measure(ports[0], threads) for _ in range(3))
            print(f"{threads} threads: {rates[1]:.0f} mails a second ({rates[0]:.0f} to {rates[2]:.0f})", flush=True)
    for attempt in ("first", "second"):
        start = time.monotonic()
        try:
            send(ports[0], 1)
        except velmail.Error as error:
            print(f"down, {attempt} attempt: {error}, after {1000 * (time.monotonic() - start):.1f} ms")


if __name__ == "__main__":
    main()
