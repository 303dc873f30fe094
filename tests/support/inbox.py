"""A mail server on a free loopback port, on a thread of its own."""

from aiosmtpd.controller import Controller


class Inbox(Controller):
    """It refuses recipients whose name begins with "no", and breaks off at the end of mails to "lost"."""

    def __init__(self, **options):
        super().__init__(self, "127.0.0.1", 0, **options)
        self.mails = []

    def _trigger_server(self):  # at the end of the start
        self.port = self.server.sockets[0].getsockname()[1]
        super()._trigger_server()

    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("no"):
            return "550 5.1.1 no such user"
        envelope.rcpt_tos.append(address)
        return "250 2.1.5 Ok"

    async def handle_DATA(self, server, session, envelope):
        if envelope.rcpt_tos[0].startswith("lost"):
            server.transport.abort()
        else:
            self.mails.append(envelope)
        return "250 kept"

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()
