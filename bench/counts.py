"""Counts what a mail costs: instructions, system calls, allocations. Prints Markdown tables.

Instructions are those of user space, counted by valgrind's callgrind, allocations by its memcheck, system calls
by strace, in the whole process. Each figure is the difference between a run with many mails and one with few (or
of a large attachment and a small one), so that what a process does once drops out; it does not depend on the
machine's load. Only loopback is used, every run is bounded, and all that is written lies in one temporary folder.
"""

import argparse
import os
import re
import signal
import sys
import tempfile
import time

from common import KB, MB, PEERS, Goals, MailFiles, Senders, Sink, machine, number, one_processor, say, table

SIZES_KB = [1, 3, 30]
MAILS = (20, 120)
ATTACHMENTS = (2 * MB, 10 * MB)
SHOWN = 3  # KB, of the mail whose system calls are shown by name
LIMIT = 110  # seconds for one program
COUNTED = ("velmail", "esmtp", "curl")


class Counter:
    def __init__(self, senders, folder):
        self.senders, self.log = senders, os.path.join(folder, "log")

    def under(self, tool, peer, mail, sink, options):
        """Runs a sender under a tool and returns what the tool wrote."""
        if self.senders.run(peer, mail, sink, tool, **options) is None:
            raise SystemExit("no figures without it")
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def instructions(self, *what):
        log = self.under(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                          "--log-file=" + self.log], *what)
        return int(re.search(r"Collected : (\d+)", log)[1])

    def allocations(self, *what):
        """Their number and their bytes; a block that was resized counts again."""
        log = self.under(["valgrind", "--tool=memcheck", "--undef-value-errors=no", "--leak-check=no",
                          "--log-file=" + self.log], *what)
        return [int(text.replace(",", ""))
                for text in re.search(r"total heap usage: ([\d,]+) allocs, .* ([\d,]+) bytes", log).groups()]

    def system_calls(self, *what):
        """How often each was called, by name."""
        log = self.under(["strace", "-f", "-c", "-U", "calls,name", "-o", self.log], *what)
        return {name: int(calls) for calls, name in re.findall(r"^ *(\d+) (\w+)$", log, re.MULTILINE)
                if name != "total"}


def by_name(few, many, count):
    """The system calls that one of `count` mails adds, those that are not rare."""
    added = {name: (many[name] - few.get(name, 0)) / count for name in many}
    return {name: calls for name, calls in added.items() if abs(calls) >= 0.05}


def one_mail(counter, peer, mail, sink):
    """Instructions, system calls by name, allocations and allocated bytes of a mail."""
    def both(count):
        return [count(peer, mail, sink, dict(mails=mails, memory=1)) for mails in MAILS]

    mails = MAILS[1] - MAILS[0]
    few, many = both(counter.instructions)
    allocated = both(counter.allocations)
    return ((many - few) / mails, by_name(*both(counter.system_calls), mails),
            *((many - few) / mails for few, many in zip(*allocated)))


def mails_table(counter, folder, sink, goals):
    rows = []
    shown = {}
    for size in SIZES_KB:
        mail = MailFiles(folder, f"text{size}", size * KB)
        found = {peer: one_mail(counter, peer, mail, sink) for peer in COUNTED}
        calls = {peer: sum(figures[1].values()) for peer, figures in found.items()}
        if size == SHOWN:
            shown = {peer: figures[1] for peer, figures in found.items()}
        for peer, (instructions, _, allocations, allocated) in found.items():
            ours = found["velmail"][0] / instructions, calls["velmail"] / calls[peer]
            rows.append([f"{size} KB, {PEERS[peer]}", number(instructions), number(calls[peer], 1),
                         number(allocations, 1), number(allocated / KB, 1)] +
                        ["" if peer == "velmail" else number(ratio, 2) for ratio in ours])
            if peer == "esmtp":
                goals.at_most(f"mail of {size} KB: instructions over libESMTP alone", 1.1, ours[0])
                goals.at_most(f"mail of {size} KB: system calls over libESMTP alone", 1.1, ours[1])
    return "### What a mail takes: connect, one mail, disconnect, in a row\n\n" + table(
        ["text of, sender", "instructions", "system calls", "allocations", "KB allocated",
         "VEL mail / sender: instructions", "VEL mail / sender: system calls"], rows) + (
        "\n\n" + names_table(shown))


def names_table(shown):
    names = sorted({name for calls in shown.values() for name in calls},
                   key=lambda name: (-shown["velmail"].get(name, 0), name))
    return f"### System calls of a mail of {SHOWN} KB\n\n" + table(
        ["system call"] + [PEERS[peer] for peer in shown],
        [[f"`{name}`"] + [number(calls.get(name, 0), 1) for calls in shown.values()] for name in names])


def encoded_bytes(counter, folder, sinks):
    mails = [MailFiles(folder, f"attachment{size}", 100, size) for size in ATTACHMENTS]
    cases = [("file", peer, way, {}) for way in sinks for peer in COUNTED
             if way == "DATA" or peer != "curl"]  # libcurl does not know CHUNKING
    cases += [("memory", "velmail", way, dict(memory=1, attachment_memory=1)) for way in sinks]
    encoded = mails[1].payload - mails[0].payload
    rows = []
    for source, peer, way, options in cases:
        few, many = (counter.instructions(peer, mail, sinks[way], dict(mails=1, **options)) for mail in mails)
        calls = [sum(counter.system_calls(peer, mail, sinks[way], dict(mails=1, **options)).values())
                 for mail in mails]
        name = PEERS[peer] + (", from memory" if source == "memory" else "")
        rows.append([f"{way}, {name}", number((many - few) / encoded, 2),
                     number((calls[1] - calls[0]) * MB / encoded, 1)])
    return "### What an encoded byte takes\n\n" + table(
        ["dialogue, sender", "instructions for each encoded byte", "system calls for each encoded MB"], rows)


def main():
    parser = argparse.ArgumentParser(description="Counts what a mail costs VEL mail and other senders.")
    parser.add_argument("--build", required=True, help="the build folder of the benchmark's programs")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    start = time.monotonic()
    goals = Goals()
    print(f"{machine()}; `scripts/bench --counts`, {MAILS[1]} mails less {MAILS[0]}.\n", flush=True)
    with tempfile.TemporaryDirectory(prefix="velmail-bench-") as folder, one_processor():
        sinks = {"DATA": Sink(arguments.build), "CHUNKING": Sink(arguments.build, "--chunking")}
        counter = Counter(Senders(arguments.build, folder, LIMIT), folder)
        try:
            say("mails")
            print(mails_table(counter, folder, sinks["DATA"], goals) + "\n", flush=True)
            say(f"{time.monotonic() - start:4.0f} s  encoded bytes")
            print(encoded_bytes(counter, folder, sinks) + "\n", flush=True)
        finally:
            for sink in sinks.values():
                sink.close()
    print(goals.text())
    say(f"{time.monotonic() - start:4.0f} s  done")


if __name__ == "__main__":
    main()
