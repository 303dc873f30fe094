"""Sends mails with the VEL mail library.

    with velmail.connect("mail.example.com", protocol="SUBMISSION", login="me", password=password) as connection:
        connection.send(velmail.Mail(sender="me@example.com", to="you@example.com", subject="Hello", text="Grüße"))

Texts reach the library in the charset of the connection, UTF-8 if it has none. The library is looked for under the name in
the environment variable VELMAIL_LIBRARY, else beside this file, else by the system.
"""

from __future__ import annotations

import ctypes
import dataclasses
import email.message
import email.utils
import functools
import os
import pathlib
import re
import threading
from typing import Callable, Iterable, Union

__all__ = ["Attachment", "Connection", "Error", "Mail", "Progress", "Sent", "connect", "version"]

# "bob@example.com", "Bob <bob@example.com>, eve@example.com", a pair (name, address), or a list of these
Addresses = Union[str, "tuple[str, str]", Iterable[Union[str, "tuple[str, str]"]]]

_INVALID_VALUE, _UNKNOWN_NAME, _REFUSED, _NO_TRACE = 100, 99, 62, 17
_PATHS = {"MailSecurityCAFile", "MailTextFilename", "MailTraceFilename", "MailWorkSpace"}
_MEMORY = b"MailTextMemoryAddress", b"MailAttachmentMemoryAddress", b"MailProgressMemoryAddress"


class Error(Exception):
    """What went wrong: the library's code and sentence, and what the server said to each recipient.

    Code 0 is a use of this module that cannot work, such as a connection in two threads.
    """

    def __init__(self, call: str, code: int, sentence: str, report: str = ""):
        super().__init__(f"{call}: error {code}: {sentence}" if code else f"{call}: {sentence}")
        self.code, self.sentence, self.report = code, sentence, report


@dataclasses.dataclass(frozen=True)
class Sent:
    """What became of a mail that was not refused as a whole.

    The report has a line for each recipient, "250 bob@example.com 2.0.0 Ok"; empty where the library has none. A code
    that is not 0 tells what went wrong beside the delivery: 650, 692 or 693 for a recipient that was left out.
    """

    report: str = ""
    code: int = 0
    sentence: str = ""

    @property
    def refused(self) -> list[str]:
        """The lines of those who do not get the mail."""
        return [line for line in self.report.splitlines() if not line.startswith("2")]


@dataclasses.dataclass
class Attachment:
    """A file, or bytes with a name. Without a MIME type the library decides: by the name with SUBMISSION."""

    content: "bytes | bytearray | memoryview | str | os.PathLike[str]"
    name: str = ""
    mime_type: str = ""


@dataclasses.dataclass
class Mail:
    """A text of type str is sent in the connection's charset, bytes as they are. An attachment may also be a path."""

    sender: Addresses = ""
    to: Addresses = ""
    subject: str = ""
    text: "str | bytes" = ""
    cc: Addresses = ""
    bcc: Addresses = ""
    reply_to: Addresses = ""
    content_type: str = "text/plain"  # the charset is added where it is missing
    attachments: "Iterable[Attachment | str | os.PathLike[str]]" = ()
    bulk: bool = False  # a message of its own for each of `to`
    headers: "dict[str, str]" = dataclasses.field(default_factory=dict)  # further ones, with SUBMISSION only

    @classmethod
    def from_message(cls, message: email.message.EmailMessage) -> Mail:
        """The mail of a message with a text and attachments; a message of another form is an Error with code 100.

        The fields that the library writes itself, such as Date and Message-ID, are not taken over.
        """
        body, *parts = message.iter_parts() if message.get_content_type() == "multipart/mixed" else [message]
        if body.get_content_maintype() != "text" or any(part.is_multipart() for part in parts):
            raise Error("message", _INVALID_VALUE, "Only a text can be sent, and attachments that are not messages.")
        own = {"from", "to", "cc", "bcc", "reply-to", "subject", "date", "message-id", "mime-version"}
        return cls(sender=_header(message, "From"), to=_header(message, "To"), cc=_header(message, "Cc"),
                   bcc=_header(message, "Bcc"), reply_to=_header(message, "Reply-To"), subject=str(message["Subject"] or ""),
                   text=body.get_content(), content_type=body.get_content_type(),
                   attachments=[Attachment(part.get_payload(decode=True), part.get_filename() or "attachment",
                                           part.get_content_type()) for part in parts],
                   headers={name: str(value) for name, value in message.items()
                            if name.lower() not in own and not name.lower().startswith("content-")})


class Progress:
    """Bytes of text and attachments of a send: all, and those read so far. Any thread may read and cancel."""

    def __init__(self) -> None:
        self._block = (ctypes.c_uint64 * 3)()  # the library writes and reads it while it sends

    @property
    def total(self) -> int:
        return self._block[0]

    @property
    def done(self) -> int:
        return self._block[1]

    def cancel(self) -> None:
        """Ends the send, with code 151; nothing is delivered cut short."""
        self._block[2] = 1


class Connection:
    """Sends mails from the thread that made it. One at a time for a thread; close it there, best by `with`."""

    _thread = threading.local()  # .connection is the one that is open

    def __init__(self, server: str = "localhost", port: "int | str" = "", *, protocol: str = "SMTP", security: str = "",
                 ca_file: "str | os.PathLike[str]" = "", login: str = "", password: str = "", mechanism: str = "",
                 charset: str = "", timeout: "int | None" = None, properties: "dict[str, str] | None" = None):
        """`timeout` is in seconds; `properties` are further ones by their names, such as MailRecipientCheck.

        Over SMTP and MAPI the server is reached by a send, not here.
        """
        self._submission = protocol == "SUBMISSION"
        self._charset = charset or ("WINDOWS-1252" if protocol == "MAPI" else "UTF-8")
        if getattr(self._thread, "connection", None):
            raise Error("connect", 0, "There is a connection open on this thread; close it first.")
        while not _library().VelMailSetProperty(None, None):  # at the second call nothing is left of a code from before
            if _code() in (0, _NO_TRACE):
                raise _error("connect", _NO_TRACE)
        settings = {"MailProtocol": protocol, "MailServer": server, "MailServerPort": str(port), "MailSecurity": security,
                    "MailSecurityCAFile": os.fspath(ca_file), "MailAuthLogin": login, "MailAuthPassword": password,
                    "MailAuthMechanism": mechanism, "MailDialog": "0"}
        if self._submission:
            settings["MailCharset"] = self._charset
        if timeout is not None:
            settings["MailTimeout"] = str(timeout)
        for name, value in {**settings, **(properties or {})}.items():
            self._set(name, _encode_path(value) if name in _PATHS else self._encode(name, value))
        connected = _library().VelMailConnect()
        code = _code() or _late_code()
        if code or not connected:
            _disconnect()
            raise _error("connect", code)
        self._open, self._thread.connection = True, self

    def __enter__(self) -> Connection:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection; the second time it does nothing."""
        if self._open:
            self._check("close")
            self._open, self._thread.connection = False, None
            _disconnect()

    def send(self, mail: "Mail | email.message.EmailMessage",
             progress: "Progress | Callable[[Progress], object] | None" = None) -> Sent:
        """Returns when the server has answered. Raises Error unless it took the mail for somebody.

        A function given as `progress` is called on another thread, ten times a second, with a Progress; what it
        raises cancels the send and is raised here.
        """
        self._check("send")
        if isinstance(mail, email.message.EmailMessage):
            mail = Mail.from_message(mail)
        block = progress if isinstance(progress, Progress) else Progress() if progress else None
        memory = _Memory()
        try:
            self._describe(mail, memory)
            if block:
                self._set("MailProgressMemoryAddress", f"{ctypes.addressof(block._block)};24".encode())
            if block is progress:
                return self._deliver()
            with _Watch(progress, block):
                return self._deliver()
        finally:
            for name in _MEMORY if block else _MEMORY[:2]:
                _library().VelMailSetProperty(name, None)  # what they name ends here

    def _check(self, call: str) -> None:
        if not self._open:
            raise Error(call, 0, "The connection is closed.")
        if getattr(self._thread, "connection", None) is not self:
            raise Error(call, 0, "The connection belongs to another thread; make one for each thread.")

    def _encode(self, name: str, text: str, charset: str = "") -> bytes:
        try:
            return text.encode(charset or self._charset)
        except (UnicodeEncodeError, LookupError) as error:
            raise Error(name, _INVALID_VALUE, str(error)) from None

    def _set(self, name: str, value: bytes) -> None:
        if b"\0" in value:
            raise Error(name, _INVALID_VALUE, "There is a NUL in the value.")
        if not _library().VelMailSetProperty(name.encode(), value):
            raise _error(name, _code() or _UNKNOWN_NAME)

    def _set_list(self, name: str, parts: Iterable[str]) -> None:
        parts = list(parts)
        for part in parts:
            if ";" in part:
                raise Error(name, _INVALID_VALUE, f"There is a ';' in {part!r}.")
        self._set(name, self._encode(name, ";".join(parts)))

    def _describe(self, mail: Mail, memory: _Memory) -> None:
        for name, given in ("MailSender", mail.sender), ("MailReplyTo", mail.reply_to):
            pairs = _pairs(given) or [("", "")]
            if len(pairs) > 1:
                raise Error(name + "MailBox", _INVALID_VALUE, "There can be one address only.")
            self._set(name + "MailBox", self._encode(name + "MailBox", pairs[0][1]))
            self._set(name + "FullName", self._encode(name + "FullName", pairs[0][0]))
        for name, given in (("MailRecipients", mail.to), ("MailCCRecipients", mail.cc), ("MailBCCRecipients", mail.bcc)):
            pairs = _pairs(given)
            self._set_list(name + "MailBox", (address for _, address in pairs))
            self._set_list(name + "FullName", (full_name for full_name, _ in pairs))
        if mail.headers and not self._submission:
            raise Error("headers", _INVALID_VALUE, "Further header fields are sent with SUBMISSION only.")
        self._set("MailAdditionalSMTPHeader", self._encode("headers", "\r\n".join(
            f"{name}: {' '.join(value.splitlines())}" for name, value in mail.headers.items())))
        self._set("MailSubject", self._encode("MailSubject", mail.subject))
        self._set("UseBulkMail", b"1" if mail.bulk else b"0")
        text, kind = mail.text, re.sub("(?i)charset", "charset", mail.content_type)  # the library compares it exactly
        if isinstance(text, str):
            named = re.search(r'charset\s*=\s*"?([^\s";]+)', kind)
            text = self._encode("text", text, named[1] if named else "")
            if not named:  # without one the library would name another
                kind = f"{kind}; charset={self._charset}"
        self._set("MailTextContentType", self._encode("MailTextContentType", kind))
        self._set("MailTextMemoryAddress", memory.keep(text))
        self._attach([each if isinstance(each, Attachment) else Attachment(each) for each in mail.attachments], memory)

    def _attach(self, attachments: list[Attachment], memory: _Memory) -> None:
        paths = ["" if isinstance(each.content, (bytes, bytearray, memoryview)) else os.fsdecode(each.content)
                 for each in attachments]
        names = [each.name or os.path.basename(path) for each, path in zip(attachments, paths)]
        self._set_list("MailAttachmentMimeType", (each.mime_type for each in attachments))
        if all(path and name == os.path.basename(path) and ";" not in path and
               _encode_path(path) == path.encode(self._charset, "replace") for path, name in zip(paths, names)):
            self._set_list("MailAttachmentFilename", paths)
            self._set("MailAttachmentMemoryAddress", b"")
            return
        self._set_list("MailAttachmentFilename", names)
        blocks = []
        for each, path in zip(attachments, paths):
            try:
                blocks.append(memory.keep(pathlib.Path(path).read_bytes() if path else bytes(each.content)))
            except OSError as error:
                raise Error("MailAttachmentFilename", 659, str(error)) from None
        self._set("MailAttachmentMemoryAddress", b";".join(blocks))

    def _deliver(self) -> Sent:
        sent = _library().VelMailSend()
        code = _code() or _late_code()  # before the report: where it is unknown, reading it would take the code
        report = _report()
        if not sent:
            raise _error("send", code, report)
        if report and not any(line.startswith("2") for line in report.splitlines()):
            raise _error("send", _REFUSED, report)
        return Sent(report, code, _sentence(code) if code else "")


def connect(*arguments, **settings) -> Connection:
    """A Connection, with its arguments."""
    return Connection(*arguments, **settings)


def version() -> str:
    """The library's name and version."""
    text = ctypes.create_string_buffer(64)
    _library().VelMailGetVersionText(text, 64)
    return text.value.decode()


class _Memory:
    """Blocks that are kept in place for a send."""

    def __init__(self) -> None:
        self._kept: list[object] = []

    def keep(self, content: bytes) -> bytes:
        """The block's address and length, as the library takes them."""
        held = ctypes.c_char_p(content)  # points to the object's own bytes
        self._kept.append((held, content))
        return b"%d;%d" % (ctypes.cast(held, ctypes.c_void_p).value or 0, len(content))


class _Watch:
    """Calls a function from a thread of its own while a send runs."""

    def __init__(self, function: Callable[[Progress], object], progress: Progress):
        self._function, self._progress = function, progress
        self._ended, self._raised = threading.Event(), None
        self._thread = threading.Thread(target=self._run)

    def _run(self) -> None:
        try:
            while not self._ended.wait(0.1):
                self._function(self._progress)
            self._function(self._progress)
        except BaseException as error:  # raised again where the send was called
            self._raised = error
            self._progress.cancel()

    def __enter__(self) -> None:
        self._thread.start()

    def __exit__(self, *_: object) -> None:
        self._ended.set()
        self._thread.join()
        if self._raised:
            raise self._raised


@functools.lru_cache(None)
def _library() -> ctypes.CDLL:
    windows = os.name == "nt"
    names = ["VelMail64.dll"] if windows else ["libVelMail64.so.1", "libVelMail64.so"]
    given = os.environ.get("VELMAIL_LIBRARY")
    beside = [path for path in (pathlib.Path(__file__).resolve().parent / name for name in names) if path.exists()]
    reasons = []
    for name in [given] if given else [*map(str, beside), *names]:
        try:
            library = ctypes.CDLL(name)
            break
        except OSError as error:
            reasons.append(str(error))
    else:
        raise ImportError("The VEL mail library was not found: " + "; ".join(reasons))
    text, size = ctypes.c_char_p, ctypes.c_uint
    for name, arguments in (("SetProperty", [text, text]), ("GetProperty", [text, ctypes.c_void_p, size]),
                            ("GetLastError", [ctypes.POINTER(ctypes.c_int)]), ("Connect", []), ("Send", []), ("Disconnect", []),
                            ("GetErrorText", [ctypes.c_int, text, ctypes.c_int]), ("GetVersionText", [text, ctypes.c_size_t])):
        getattr(library, "VelMail" + name).argtypes = arguments
    return library


def _code() -> int:
    """The code of the thread's last call; 0 for none."""
    code = ctypes.c_int(0)
    return code.value if _library().VelMailGetLastError(code) else _NO_TRACE


def _late_code() -> int:
    """Takes off the code that waits for the next call, and leaves the connection as it is."""
    size = ctypes.create_string_buffer(12)
    return 0 if _library().VelMailGetProperty(b"MailProtocol", size, 0) else _code()


def _report() -> str:
    size = ctypes.create_string_buffer(12)
    if not _library().VelMailGetProperty(b"MailDeliveryReport", size, 0):
        return ""  # a library without it
    text = ctypes.create_string_buffer(int(size.value))
    _library().VelMailGetProperty(b"MailDeliveryReport", text, len(text))
    return text.value.decode("utf-8", "replace")


def _sentence(code: int) -> str:
    text = ctypes.create_string_buffer(128)
    _library().VelMailGetErrorText(code, text, 128)
    return text.value.decode("cp1252") or "no sentence for this code"


def _error(call: str, code: int, report: str = "") -> Error:
    return Error(call, code, _sentence(code) if code else "The library gave no reason.", report)


def _encode_path(path: "str | os.PathLike[str]") -> bytes:
    return os.fspath(path).encode("mbcs", "replace") if os.name == "nt" else os.fsencode(path)


def _disconnect() -> None:
    while not _library().VelMailDisconnect() and _code() not in (0, _NO_TRACE):
        pass  # it reported a code and did nothing else
    _library().VelMailSetProperty(None, None)  # a password among them


def _pairs(given: Addresses) -> "list[tuple[str, str]]":
    """(name, address) of each."""
    pairs: "list[tuple[str, str]]" = []
    for each in [given] if isinstance(given, (str, tuple)) else given:
        pairs += email.utils.getaddresses([each]) if isinstance(each, str) else [each]
    return [pair for pair in pairs if any(pair)]


def _header(message: email.message.EmailMessage, name: str) -> "list[tuple[str, str]]":
    return [(each.display_name, each.addr_spec) for field in message.get_all(name, []) for each in field.addresses]
