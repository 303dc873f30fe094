"""The tables of the submission path: in clear and TLS, with and without PIPELINING and CHUNKING."""

import contextlib
import os
import subprocess

from common import KB, MailFiles, Sink, median, number, one_processor, ratio_text, ratios, size_text, table

MB = KB * KB
SENDERS = {"velmail": "VEL mail, SUBMISSION", "smtp": "VEL mail, SMTP", "curl": "libcurl, upload of a composed mail",
           "smtplib": "Python's smtplib", "write": "bare write"}
SIZES_KB = [1, 3, 30]
BOTH = ("--pipelining", "--chunking")
RECIPIENTS = 100
ROUND_TRIP = 20  # milliseconds


def certificate(folder):
    """A PEM file with a key and its certificate for 127.0.0.1, the same for all servers of a run."""
    key, made, both = (os.path.join(folder, name) for name in ("key.pem", "certificate.pem", "server.pem"))
    if os.path.exists(both):
        return both
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out",
                    made], check=True, stderr=subprocess.DEVNULL)
    with open(both, "w", encoding="ascii") as file:
        for name in (key, made):
            with open(name, encoding="ascii") as part:
                file.write(part.read())
    return both


@contextlib.contextmanager
def sinks(bench, tls, *options):
    made = {"clear": Sink(bench.build, *options)}
    if tls:
        made["TLS"] = Sink(bench.build, "--tls", certificate(bench.folder), *options)
    try:
        yield made
    finally:
        for sink in made.values():
            sink.close()


def send(bench, sender, mail, sink, **options):
    if sender in ("velmail", "curl"):
        options["protocol"] = "SUBMISSION"
    return bench.run("velmail" if sender == "smtp" else sender, mail, sink, **options)


def large_attachment(bench, goals):
    size = bench.extent.large
    mail = MailFiles(bench.folder, "submission", 100, size)
    with sinks(bench, True) as plain, sinks(bench, True, *BOTH) as both:
        cases = {}
        for way, offered in (("DATA", plain), ("BDAT", both)):
            for security, sink in offered.items():
                for sender in SENDERS:
                    if (sender == "smtp" and security == "TLS") or (way == "BDAT" and sender in ("curl", "smtplib")):
                        continue  # they do not know it
                    cases[(security, way, sender)] = lambda sender=sender, sink=sink: send(bench, sender, mail, sink)
        results = bench.in_turn(bench.extent.budgets["submission"], cases)
    os.remove(mail.composed)

    rows = []
    for (security, way, sender), found in results.items():
        ours = results[(security, way, "velmail")]
        seconds = median(found, "seconds")
        rows.append([f"{security}, {way}, {SENDERS[sender]}", number(seconds, 2),
                     number(seconds and size / MB / seconds), number(median(found, "processor"), 2),
                     number(median(found, "sink"), 2),
                     "" if sender == "velmail" else ratio_text(ratios(ours, found))])
    for way in ("DATA", "BDAT"):
        for sender, wanted in (("smtp", 2), ("write", 0.5)):
            goals.at_least(f"SUBMISSION, {size_text(size)}, clear, {way}: speed over {SENDERS[sender]}", wanted,
                           ratios(results[("clear", way, "velmail")], results[("clear", way, sender)]))
    goals.at_least(f"SUBMISSION, {size_text(size)}, TLS, DATA: speed over libcurl's upload", 1,
                   ratios(results[("TLS", "DATA", "velmail")], results[("TLS", "DATA", "curl")]))
    return f"### SUBMISSION: one file attachment of {size_text(size)}\n\n" + table(
        ["connection, dialogue, sender", "seconds", "MB/s", "processor seconds", "the sink's processor seconds",
         "SUBMISSION / sender: speed"], rows)


def small_mails(bench, goals):
    mails = {size: MailFiles(bench.folder, f"submission{size}", size * KB) for size in SIZES_KB}
    options = dict(mails=1000000, seconds=bench.extent.small_seconds, memory=1)
    with one_processor(), sinks(bench, True, *BOTH) as offered:
        cases = {(security, connect, size, sender): lambda sender=sender, mail=mail, sink=sink, connect=connect: send(
            bench, sender, mail, sink, connect=connect, **options)
            for security, sink in offered.items() for connect in ("each", "once") for size, mail in mails.items()
            for sender in SENDERS if sender != "smtp" or security == "clear"}
        results = bench.in_turn(bench.extent.budgets["submission_small"], cases)

    rows = []
    for security in ("clear", "TLS"):
        for connect, name in (("each", "new"), ("once", "kept")):
            for size in SIZES_KB:
                found = {sender: results.get((security, connect, size, sender), []) for sender in SENDERS}
                ours = found["velmail"]
                rows.append([f"{security}, {name} connection, {size} KB"] +
                            [number(median(theirs, "rate")) for theirs in found.values()] +
                            [ratio_text(ratios(ours, found[sender])) for sender in SENDERS if sender != "velmail"])
                if connect == "once":
                    goals.at_least(f"SUBMISSION, {security}, kept connection, {size} KB: mails a second over libcurl's upload",
                                   1.3, ratios(ours, found["curl"]))
    names = list(SENDERS.values())
    return "### SUBMISSION: small mails, PIPELINING and CHUNKING offered\n\n" + table(
        ["mails"] + [f"{name}, mails/s" for name in names] + [f"SUBMISSION / {name}" for name in names[1:]], rows)


def many_recipients(bench, goals):
    mail = MailFiles(bench.folder, "recipients", 3 * KB)
    rows = []
    for offer, options in (("nothing", ()), ("PIPELINING", BOTH[:1]), ("PIPELINING, CHUNKING", BOTH)):
        with sinks(bench, False, "--delay", str(ROUND_TRIP), *options) as offered:
            for sender, name in SENDERS.items():
                if sender == "write":
                    continue  # it has one recipient
                found = send(bench, sender, mail, offered["clear"], connect="once", recipients=RECIPIENTS, memory=1)
                trips = found and found["send_us"] / 1000 / ROUND_TRIP
                rows.append([f"{offer}: {name}", number(found and found["send_us"] / 1000), number(trips, 1)])
                if sender == "velmail" and options:
                    goals.at_most(f"SUBMISSION, {RECIPIENTS} recipients, {ROUND_TRIP} ms, {offer}: from MAIL to the "
                                  "final answer", 5, trips, "round trips")
    return (f"### One mail of 3 KB to {RECIPIENTS} recipients, round trip of {ROUND_TRIP} ms, on a connection that "
            "stands\n\n" + table(["offered, sender", "ms", "round trips"], rows))
