"""Sends with Python's smtplib, over text that is composed and encoded already; as harness.cpp has it for the others.

--port N --composed FILE [--tls PEMFILE] [--recipients N] [--mails N] [--seconds S] [--connect each|once]; what else the
other senders take is taken and left alone.
"""

import json
import resource
import smtplib
import ssl
import statistics
import sys
import time

options = dict(zip(sys.argv[1::2], sys.argv[2::2]))
with open(options["--composed"], "rb") as file:
    MAIL = file.read()
RECIPIENTS = ["bob@example.net"] + [f"bob{i}@example.net" for i in range(1, int(options.get("--recipients", 1)))]
SLOW = 0.035  # as in harness.cpp
context = ssl.create_default_context(cafile=options["--tls"]) if options.get("--tls") else None


def connect():
    if context:
        server = smtplib.SMTP_SSL("127.0.0.1", int(options["--port"]), local_hostname="bench", context=context)
    else:
        server = smtplib.SMTP("127.0.0.1", int(options["--port"]), local_hostname="bench")
    server.ehlo()
    return server


def processor():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


limit, wanted, once = float(options.get("--seconds", 3600)), int(options.get("--mails", 1)), options.get("--connect") == "once"
times, slow, used = [], 0, processor()
start = time.monotonic()
server = connect() if once else None
while len(times) < wanted and time.monotonic() - start < limit:
    begin = time.monotonic()
    if not once:
        server = connect()
    sent = time.monotonic()
    if server.sendmail("ada@example.org", RECIPIENTS, MAIL):
        sys.exit("a recipient was refused")
    times.append(time.monotonic() - sent)
    if not once:
        server.quit()
        slow += time.monotonic() - begin >= SLOW
if once:
    server.quit()
print(json.dumps(dict(mails=len(times), slow=slow, seconds=time.monotonic() - start, processor=processor() - used,
                      peak_kb=resource.getrusage(resource.RUSAGE_SELF).ru_maxrss,
                      send_us=1e6 * statistics.median(times))))
