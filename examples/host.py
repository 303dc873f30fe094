"""Three mails: a text, two attachments, and a letter to each of the others, where one that fails stops no other."""

import sys

import velmail

server, port, file, first, *others = sys.argv[1:]  # host.py SERVER PORT FILE RECIPIENT...
failures = 0
with velmail.connect(server, port) as connection:
    connection.send(velmail.Mail(sender="Me <me@example.com>", to=first, subject="Hello", text="Grüße\n"))
    connection.send(velmail.Mail(
        sender="Me <me@example.com>", to=first, subject="Two files", text="Grüße\n",
        attachments=[velmail.Attachment(file, mime_type="application/octet-stream"),
                     velmail.Attachment("Grüße\r\n".encode(), "note.txt", "text/plain")]))
    for recipient in others:
        try:
            connection.send(velmail.Mail(sender="Me <me@example.com>", to=recipient, subject="To each", text="Grüße\n"))
        except velmail.Error as error:  # of this mail; the connection goes on
            print(f"{recipient}: {error}", error.report, sep="\n", file=sys.stderr)
            failures += 1
sys.exit(failures != 0)
