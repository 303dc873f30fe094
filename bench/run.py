"""Runs the benchmark's programs against its sink and prints times and memory as Markdown tables.

All senders of a table run in turn (A B C D, A B C D, ...), so that whatever else the machine does meets
them alike. A ratio is the median of the ratios within each turn; the range behind it is the least and the
greatest. Only loopback is used, every run is bounded, and everything written lies in one temporary folder.
"""

import argparse
import os
import signal
import statistics
import sys
import tempfile
import time

import submission
from common import (GB, KB, MB, PEERS, Goals, MailFiles, Senders, Sink, machine, median, number, one_processor,
                    ratio_text, ratios, say, size_text, table)

SIZES_KB = [1, 2, 3, 4, 8, 16, 30, 64]
THREADS = [1, 2, 4, 8]
SENDS = 1000
GROUP = 100  # of sends compared with each other; as in harness.cpp
ROUND_TRIP = 20  # milliseconds over the delayed link


class Extent:
    """How much is measured. The budgets (seconds for a table) end a table's turns early on a slow machine."""

    def __init__(self, quick):
        self.rounds = 3 if quick else 5
        self.large = 64 * MB if quick else 256 * MB
        self.far, self.far_rounds = (16 * MB, 1) if quick else (64 * MB, 2)
        self.small_seconds = 0.12 if quick else 0.4
        self.budgets = dict(
            large=20, far=10, small=20, once=8, threads=12, submission=25, submission_small=25) if quick else dict(
            large=100, far=50, small=90, once=20, threads=70, submission=90, submission_small=120)
        # (attachment, threads); the sparse one of 2 GB in eight threads is what takes long
        sizes = [1 * MB, self.large, 2 * GB]
        self.memory = [(size, threads) for size in sizes for threads in (1, 8)
                       if not quick or size * threads < 4 * GB]
        self.limit = 30 if quick else 110  # seconds for one program


class Bench(Senders):
    def __init__(self, build, folder, extent):
        super().__init__(build, folder, extent.limit)
        self.extent = extent
        self.sink = Sink(build)
        self.chunking = Sink(build, "--chunking")
        self.far = Sink(build, "--delay", str(ROUND_TRIP))
        self.far_chunking = Sink(build, "--chunking", "--delay", str(ROUND_TRIP))
        with one_processor():
            self.near_sink = Sink(build)
            self.near_pipelining = Sink(build, "--pipelining")

    def close(self):
        for sink in (self.sink, self.chunking, self.far, self.far_chunking, self.near_sink,
                     self.near_pipelining):
            sink.close()

    def run(self, peer, mail, sink=None, **options):
        return super().run(peer, mail, sink or self.sink, **options)

    def in_turn(self, budget, cases, rounds=None):
        """Runs every case once a turn; returns for each key its results, those of turn i at index i."""
        results = {key: [] for key in cases}
        end = time.monotonic() + budget
        for turn in range(rounds or self.extent.rounds):
            if turn > 0 and time.monotonic() > end:
                say(f"this machine is slow: {turn} turns must do")
                break
            for key, case in cases.items():
                results[key].append(case())
        return results


def large_attachment(bench, goals):
    size = bench.extent.large
    mail = MailFiles(bench.folder, "large", 100, size)
    cases = {}
    for peer in PEERS:
        cases[("DATA", peer)] = lambda peer=peer: bench.run(peer, mail)
    for peer in ("velmail", "esmtp", "write"):  # libcurl does not know CHUNKING
        cases[("CHUNKING", peer)] = lambda peer=peer: bench.run(peer, mail, bench.chunking)
    results = bench.in_turn(bench.extent.budgets["large"], cases)
    os.remove(mail.composed)

    rows = []
    for (way, peer), found in results.items():
        seconds = median(found, "seconds")
        ours = results[(way, "velmail")]
        rows.append([f"{way}, {PEERS[peer]}", number(seconds, 2), number(seconds and size / MB / seconds),
                     number(median(found, "processor"), 2),
                     "" if peer == "velmail" else ratio_text(ratios(ours, found)),
                     "" if peer == "velmail" else ratio_text(ratios(found, ours, "work"))])
    data, chunks = results[("DATA", "velmail")], results[("CHUNKING", "velmail")]
    for way in ("DATA", "CHUNKING"):
        goals.at_least(f"{size_text(size)}, {way}: speed over libESMTP alone", 0.95,
                       ratios(results[(way, "velmail")], results[(way, "esmtp")]))
    goals.at_least(f"{size_text(size)}, DATA: speed over libcurl", 4, ratios(data, results[("DATA", "curl")]))
    goals.at_least(f"{size_text(size)}: speed with CHUNKING over DATA", 1, ratios(chunks, data))
    return f"### One file attachment of {size_text(size)}\n\n" + table(
        ["dialogue, sender", "seconds", "MB/s", "processor seconds", "VEL mail / sender: speed",
         "VEL mail / sender: data for each processor second"], rows) + (
        f"\n\nVEL mail, CHUNKING / DATA: speed {ratio_text(ratios(chunks, data))}.")


def delayed_link(bench, goals):
    size = bench.extent.far
    mail = MailFiles(bench.folder, "far", 100, size, sparse=True)
    sinks = {"DATA": bench.far, "CHUNKING": bench.far_chunking}
    results = bench.in_turn(bench.extent.budgets["far"], {
        way: lambda sink=sink: bench.run("velmail", mail, sink) for way, sink in sinks.items()},
        bench.extent.far_rounds)
    os.remove(mail.attachment)

    link = f"{size_text(size)}, round trip of {ROUND_TRIP} ms"
    compared = ratios(results["CHUNKING"], results["DATA"])
    goals.at_least(f"{link}: speed with CHUNKING over DATA", 1, compared)
    rows = []
    for way, found in results.items():
        seconds = median(found, "seconds")
        rows.append([way, number(seconds, 2), number(seconds and size / MB / seconds)])
    return f"### One file attachment of {link}, VEL mail\n\n" + table(["dialogue", "seconds", "MB/s"], rows) + (
        f"\n\nCHUNKING / DATA: speed {ratio_text(compared)}.")


def small_mails(bench, goals):
    seconds = bench.extent.small_seconds
    mails = {size: MailFiles(bench.folder, f"text{size}", size * KB) for size in SIZES_KB}
    kinds = {f"{size} KB": (mail, bench.near_sink, 1) for size, mail in mails.items()}
    kinds["3 KB, text from a file"] = (mails[3], bench.near_sink, 0)
    kinds["3 KB, PIPELINING offered"] = (mails[3], bench.near_pipelining, 1)
    cases = {(kind, peer): lambda peer=peer, mail=mail, sink=sink, memory=memory: bench.run(
        peer, mail, sink, mails=1000000, seconds=seconds, memory=memory)
        for kind, (mail, sink, memory) in kinds.items() for peer in PEERS}
    with one_processor():
        results = bench.in_turn(bench.extent.budgets["small"], cases)

    rows = []
    for kind in kinds:
        ours = results[(kind, "velmail")]
        others = [results[(kind, peer)] for peer in PEERS if peer != "velmail"]
        rows.append([kind, number(1e6 / median(ours, "rate"))] +
                    [number(median(results[(kind, peer)], "rate")) for peer in PEERS] +
                    [ratio_text(ratios(ours, other)) for other in others] +
                    [ratio_text(ratios(ours, results[(kind, "esmtp")], "work")), slow_text(results, kind)])
    for kind in ("1 KB", "3 KB", "30 KB"):
        for peer, wanted in (("esmtp", 0.9), ("curl", 1)):
            goals.at_least(f"mail of {kind}: mails a second over {PEERS[peer]}", wanted,
                           ratios(results[(kind, "velmail")], results[(kind, peer)]))
    goals.at_most("longest step between two neighbouring sizes from 1 to 64 KB", 1000,
                  longest_step(results), "µs a mail")
    return "### Connect, one mail, disconnect, in a row\n\n" + table(
        ["text of", "VEL mail, µs a mail"] + [f"{name}, mails/s" for name in PEERS.values()] +
        [f"VEL mail / {name}" for peer, name in PEERS.items() if peer != "velmail"] +
        ["VEL mail / libESMTP alone: processor time a mail",
         "mails of 35 ms and more, of 1,000: VEL mail / libESMTP alone"], rows)


def slow_text(results, kind):
    """How many of a thousand mails waited for an acknowledgement, here and with libESMTP alone."""
    return " / ".join(number(median(results[(kind, peer)], "slow"), 1) for peer in ("velmail", "esmtp"))


def longest_step(results):
    """What a mail costs more than one of the next smaller size, at most, in microseconds."""
    times = [1e6 / median(results[(f"{size} KB", "velmail")], "rate") for size in SIZES_KB]
    return max(after - before for before, after in zip(times, times[1:]))


def one_connection(bench, goals):
    mail = MailFiles(bench.folder, "once", 3 * KB)
    cases = {peer: lambda peer=peer: bench.run(
        peer, mail, bench.near_sink, mails=SENDS, seconds=4, connect="once", memory=1) for peer in PEERS}
    # What one earlier send adds is small: more turns, so that it stands out from what else the machine does.
    with one_processor():
        results = bench.in_turn(bench.extent.budgets["once"], cases, 3 * bench.extent.rounds)

    rows = []
    for peer, found in results.items():
        first, last = median(found, "first_us"), median(found, "last_us")
        rows.append([PEERS[peer], number(median(found, "rate")), number(first, 1), number(last, 1),
                     number(added(found, "first_us", "last_us", 1000)),
                     number(added(found, "resident_early_kb", "resident_late_kb", KB)),
                     "" if peer == "velmail" else ratio_text(ratios(results["velmail"], found))])
    goals.at_least(f"{SENDS:,} sends on one connection: mails a second over libESMTP alone", 0.9,
                   ratios(results["velmail"], results["esmtp"]))
    return f"### One connection, {SENDS:,} sends of 3 KB\n\n" + table(
        ["sender", "mails/s", f"first {GROUP}: µs a send", f"last {GROUP}: µs a send",
         "each earlier send adds, ns", "each earlier send adds, bytes", "VEL mail / sender: mails/s"], rows)


def added(found, early, late, unit):
    """What each earlier send adds, in units of `unit` to one, median over the turns."""
    values = [(result[late] - result[early]) * unit / (SENDS - GROUP) for result in found
              if result and late in result and result["mails"] == SENDS]
    return statistics.median(values) if values else None


def several_threads(bench, goals):
    mail = MailFiles(bench.folder, "threads", 3 * KB)
    cases = {(threads, peer): lambda threads=threads, peer=peer: bench.run(
        peer, mail, mails=1000000, seconds=bench.extent.small_seconds, threads=threads, memory=1)
        for threads in THREADS for peer in PEERS}
    results = bench.in_turn(bench.extent.budgets["threads"], cases)

    rows = []
    for threads in THREADS:
        ours = results[(threads, "velmail")]
        others = [results[(threads, peer)] for peer in PEERS if peer != "velmail"]
        rows.append([str(threads)] + [number(median(results[(threads, peer)], "rate")) for peer in PEERS] +
                    [ratio_text(ratios(ours, other)) for other in others] +
                    [ratio_text(ratios(ours, results[(threads, "esmtp")], "work")),
                     slow_text(results, threads)])
        for peer, wanted in (("esmtp", 0.9), ("curl", 1)):
            if threads > 1:
                goals.at_least(f"{threads} threads: mails a second over {PEERS[peer]}", wanted,
                               ratios(ours, results[(threads, peer)]))
    goals.at_most(f"{THREADS[-1]} threads: mails of 35 ms and more", 0.5,
                  median(results[(THREADS[-1], "velmail")], "slow"), "of 1,000")
    return "### Several threads, each connect, one mail of 3 KB, disconnect\n\n" + table(
        ["threads"] + [f"{name}, mails/s" for name in PEERS.values()] +
        [f"VEL mail / {name}" for peer, name in PEERS.items() if peer != "velmail"] +
        ["VEL mail / libESMTP alone: processor time a mail",
         "mails of 35 ms and more, of 1,000: VEL mail / libESMTP alone"], rows)


def peak_memory(bench, goals):
    rows = []
    worst = None
    for size in sorted({size for size, _ in bench.extent.memory}):
        mail = MailFiles(bench.folder, "memory", 100, size, sparse=True)
        row = [size_text(size)]
        for threads in (1, 8):
            above = above_idle(bench, mail, threads) if (size, threads) in bench.extent.memory else None
            row += [number(above, 2), number(above and above / threads, 2)]
            if above is not None:
                worst = max(worst or 0, above / threads)
        rows.append(row)
        os.remove(mail.attachment)
    goals.at_most("peak resident memory above an idle process, for each thread", 1, worst, "MB")
    return "### Peak resident memory above an idle process, MB\n\n" + table(
        ["attachment in each mail", "1 thread", "for each thread", "8 threads", "for each thread"], rows)


def memory_attachment(bench, goals):
    sizes = [16 * KB, 16 * MB]
    peaks = []
    for size in sizes:
        mail = MailFiles(bench.folder, "lent", 100, size, sparse=True)
        found = [bench.run("velmail", mail, mails=1, memory=1, attachment_memory=1) for _ in range(3)]
        peaks.append(median(found, "peak_kb"))
        os.remove(mail.attachment)
    added_mb = (peaks[1] - peaks[0]) / KB - (sizes[1] - sizes[0]) / MB if all(peaks) else None
    goals.at_most("attachment of 16 MB from memory: peak memory more than with 16 KB, the host's own block left out",
                  1, added_mb, "MB")
    return "### An attachment of 16 MB from the host's memory\n\n" + (
        "Peak resident memory more than with one of 16 KB, the host's own block left out: "
        f"{number(added_mb, 2)} MB.")


def above_idle(bench, mail, threads):
    idle = statistics.median(
        bench.run("velmail", mail, mails=0, threads=threads)["peak_kb"] for _ in range(3))
    sending = bench.run("velmail", mail, mails=1, threads=threads)
    return (sending["peak_kb"] - idle) / KB if sending else None


def main():
    parser = argparse.ArgumentParser(description="Measures VEL mail beside other senders, on loopback only.")
    parser.add_argument("--build", required=True, help="the build folder of the benchmark's programs")
    parser.add_argument("--quick", action="store_true", help="a smaller run")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    start = time.monotonic()
    extent = Extent(arguments.quick)
    goals = Goals()
    command = "scripts/bench --quick" if arguments.quick else "scripts/bench"
    print(f"{machine()}; `{command}`, {extent.rounds} turns, medians.\n", flush=True)
    with tempfile.TemporaryDirectory(prefix="velmail-bench-") as folder:
        bench = Bench(arguments.build, folder, extent)
        try:
            for measure in (large_attachment, delayed_link, small_mails, one_connection, several_threads, peak_memory,
                            memory_attachment, submission.large_attachment, submission.small_mails,
                            submission.many_recipients):
                say(f"{time.monotonic() - start:4.0f} s  {measure.__name__.replace('_', ' ')}")
                print(measure(bench, goals) + "\n", flush=True)
        finally:
            bench.close()
    print(goals.text())
    say(f"{time.monotonic() - start:4.0f} s  done")


if __name__ == "__main__":
    main()
