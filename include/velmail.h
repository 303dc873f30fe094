/*
 * velmail.h - the mail library's interface for its host: ten C functions.
 *
 * Conventions
 *
 * 1. Results. Every function returns 1 for success and 0 for failure, never anything else. After a failure
 *    VelMailGetLastError gives the numbered reason and VelMailGetErrorText its sentence.
 * 2. Call order, per thread: any number of VelMailSetProperty, then VelMailConnect, one or more VelMailSend,
 *    then VelMailDisconnect. The query functions may be called at any time.
 * 3. Threads. All state (properties, connection, errors, trace) belongs to the calling thread. Several
 *    threads may use the library at once without locking; a thread never sees another thread's settings.
 *    A thread's state is made by its first call and destroyed when the thread ends.
 * 4. Errors. Each working call (set, get, connect, send, disconnect) forgets the error of the call before it.
 *    One failure reports late: when VelMailSend returns 0 because the *delivery* failed, or when a call
 *    returned 1 although something went wrong beside it, the code surfaces at the next working call. That
 *    call does nothing else, returns 0, and VelMailGetLastError then gives the code. So: after a failed send
 *    DISCONNECT UNTIL IT RETURNS 1, THEN GO ON with the next mail. (It returns 0 without a code when there is
 *    no connection.) A VelMailSetProperty that returned 0 WAS NOT DONE, the property is as before: a host
 *    that sets the next recipient straight after a failed delivery, and does not look at the result, sends
 * the next mail to the previous recipient. With MailProtocol "SUBMISSION" every code is there at once.
 * 5. Strings are zero-terminated single-byte texts; no encoding is assumed. They are copied: nothing the host
 *    passes is kept beyond the call, except memory blocks, which are used during VelMailSend. Error texts are
 *    Windows-1252.
 * 6. Buffers belong to the host. Sizes are bytes and include the terminator.
 * 7. No C++ exception leaves a function, and SIGPIPE never reaches the host.
 * 8. Tracing. The environment variable VEL_MAILTRACE names the trace file ("mail.trc", "mail.trc;DEBUG").
 *    It is read once per thread, at the thread's first call.
 */
#ifndef VELMAIL_H
#define VELMAIL_H

#include <stddef.h>

#if defined(_WIN32)
#if defined(VELMAIL_BUILD)
#define VELMAIL_API __declspec(dllexport)
#else
#define VELMAIL_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define VELMAIL_API __attribute__((visibility("default")))
#else
#define VELMAIL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Sets the property `name` (see the table below) of the calling thread to the text `value`, which is copied.
 * A null `value` empties a text property and sets a boolean one to 0. A null or empty `name` resets every
 * property to its default; `value` is then ignored.
 * Fails with 0 for an unknown name (no error code), for a property that cannot be written, and when it
 * reports the code of a call before it (convention 4). After 0 nothing was set.
 */
VELMAIL_API int VelMailSetProperty(const char* name, const char* value);

/*
 * Reads the property `name` into `buffer` of `size` bytes.
 * Text and list properties: the whole text and its terminator. With size 0 and a buffer, the needed size is
 * written into the buffer as decimal text instead (kept for old hosts; the buffer must hold 12 bytes).
 * Boolean properties: a 32-bit int in machine byte order; size at least 4.
 * Fails with error 47 when the buffer is too small, 29 when it is null, and with 0 and no code for an unknown
 * or null name. A failed read writes nothing.
 */
VELMAIL_API int VelMailGetProperty(const char* name, void* buffer, unsigned int size);

/*
 * Writes the error code of the thread's last working call into `*code`. When there was no error, `*code` is
 * left as it is: preset it to 0. Fails with 0 for a null pointer or when the trace file is unusable.
 */
VELMAIL_API int VelMailGetLastError(int* code);

/*
 * The sentence for the last error (for code 0 the one for success). As VelMailGetErrorText.
 */
VELMAIL_API int VelMailGetLastErrorText(char* buffer, unsigned int size);

/*
 * Writes the German (where that is the user's language) or English sentence for `code` into `buffer` of
 * `size` bytes. A text that does not fit is not cut: the result is 0 and the buffer holds an empty text. 128
 * bytes hold every text. Fails with 0 for an unknown code and for a null buffer. With a size below 1 the
 * result is 0 and the first byte of the buffer is still set to 0.
 */
VELMAIL_API int VelMailGetErrorText(int code, char* buffer, int size);

/*
 * Writes the version number 0x01030002 into `*version`. Fails with 0 for a null pointer.
 */
VELMAIL_API int VelMailGetVersion(unsigned int* version);

/*
 * Writes the version text "VEL mail 1.3.2.0/mt" into `buffer` of `size` bytes, cut to fit and always
 * terminated; the rest of the buffer is filled with zeros. Fails with 0 for a null buffer or size 0.
 */
VELMAIL_API int VelMailGetVersionText(char* buffer, size_t size);

/*
 * Makes the delivery service from the thread's properties, replacing the one it had. For SMTP the server is
 * contacted by VelMailSend, not here. Fails with 656 for an unknown MailProtocol and 697 when no SMTP session
 * can be made. With MailProtocol "SUBMISSION" it connects and logs in here, and fails with 100, 653 to 655,
 * 664, 665, 669 to 679, 682 or 697; a send on that path has its code at once. With MailProtocol "MAPI" the
 * result is 1 whatever the logon's outcome; a failed logon shows at the next call (convention 4).
 */
VELMAIL_API int VelMailConnect(void);

/*
 * Builds one mail from the thread's properties, checks it and delivers it; blocks until the server has
 * answered or broken off.
 * Returns 1 when the server has answered for each recipient, also with a refusal: over SMTP a mail that it
 * took for nobody counts as sent. The property MailDeliveryReport tells who got the mail. Returns 0 when the
 * mail could not be built (the code is available at once) or its delivery failed (the code surfaces at the
 * next working call, convention 4). With MailProtocol "SUBMISSION" it returns 1 only when the server took the
 * mail for all recipients; else nobody gets it, and the code is there at once.
 */
VELMAIL_API int VelMailSend(void);

/*
 * Ends the delivery service of VelMailConnect. Returns 0 without an error code when there is none.
 */
VELMAIL_API int VelMailDisconnect(void);

/*
 * The properties. Names are case-sensitive. "list" is a text whose parts are separated by ";", without
 * blanks. Memory blocks are a ";"-separated list of decimal numbers that alternate between an address in the
 * process and a length in bytes ("140213456789;2048").
 *
 * name                          type   default  meaning
 * ----------------------------- ------ -------- -------------------------------------------------------------
 * MailSenderMailBox             text            sender's address; not required for MAPI
 * MailSenderFullName            text            sender's display name; the address when empty
 * MailRecipientsMailBox         list            To addresses
 * MailRecipientsFullName        list            To display names, by position
 * MailCCRecipientsMailBox       list            Cc addresses
 * MailCCRecipientsFullName      list            Cc display names, by position
 * MailBCCRecipientsMailBox      list            Bcc addresses
 * MailBCCRecipientsFullName     list            Bcc display names, by position
 * MailRecipientCheck            text   "1"      1: a malformed or missing recipient stops the send
 * MailReplyToMailBox            text            Reply-To address
 * MailReplyToFullName           text            Reply-To display name
 * MailSubject                   text            subject; required
 * MailTextFilename              text            file that holds the mail text
 * MailTextMemoryAddress         text            mail text in memory blocks; wins over MailTextFilename
 * MailTextContentType           text            content type of the text; from its file's name when empty
 * MailAttachmentFilename        list            files to attach; names of attachments in memory
 * MailAttachmentMemoryAddress   text            attachments in memory, one block for each name
 * MailAttachmentMimeType        list            MIME types by position; where none: "text/plain", or
 *                                               by the file's name for SUBMISSION
 * MailAdditionalSMTPHeader      text            header lines; sent for SUBMISSION only
 * UseBulkMail                   bool   0        1: one message for each To recipient (not MAPI)
 * MailProtocol                  text            "SMTP" (also when empty), "SUBMISSION" or "MAPI"
 * MailServer                    text            mail server; "localhost" when empty
 * MailServerPort                text            its port; when empty "25", for SUBMISSION "587"
 * MailAuthLogin                 text            login; not used over SMTP
 * MailAuthPassword              text            its password or token; not used over SMTP
 * MailWorkSpace                 text            working directory during a send, for relative file names
 * MailTraceFilename             text            protocol file of each send ("job.trc" or "job.trc;ERROR")
 * MailDialog                    bool   0        MAPI: resolve names
 * MailLogonDialog               bool   0        MAPI: allow the client's logon dialog
 * MailResolveName               bool   0        kept; no delivery path reads it
 * MailAvailable                 text            read only: "MailNone", "MailActive" or "MailDeactivated"
 * MailSecurity                  text            SUBMISSION: "STARTTLS", "TLS", "NONE"; empty: by the port
 * MailSecurityCAFile            text            SUBMISSION: PEM file trusted instead of the system's
 * MailAuthMechanism             text            SUBMISSION: "PLAIN", "LOGIN", "CRAM-MD5", "XOAUTH2", ...
 * MailCharset                   text            SUBMISSION: "UTF-8", "ISO-8859-1" or "WINDOWS-1252"
 * MailDeliveryReport            text            read only: what the server said of each recipient, see below
 * MailProgressMemoryAddress     text            24 bytes of the host: total, read, cancel word, see below
 * MailTimeout                   text            seconds that the server may stay silent, 1 to 86400
 *
 * MailDeliveryReport tells what became of the thread's last send: for each recipient of each message, To, Cc
 * and Bcc in their order, one line that ends in a line feed: "550 eve@example.com 5.1.1 no such user". That
 * is the code, the mailbox and the server's last words for it: on one line, cut at 512 bytes, control bytes
 * as blanks. With a code from 200 to 299 the server has taken the mail for the recipient, with one from 400
 * to 599 refused it. With 0 it has not answered, and the words say why. Over MAPI the code is 250 or 0, and
 * the words are the client's result. The text is empty before the first send, after a reset, after a send
 * that failed in the checks before the delivery, and where there was no memory for it; a send that ends with
 * a code from before (convention 4) leaves it as it is. It is complete when VelMailSend returns, whatever the
 * result, and can be read at once: a code that is pending stays pending and is not told by the read, and the
 * last error stays unless the read itself fails.
 *
 * MailProgressMemoryAddress names one memory block of 24 bytes at an address that is a multiple of 8, three
 * 64-bit unsigned integers in machine byte order; anything else: error 100 at the send. They are accessed
 * atomically and relaxed, by the thread that sends, until VelMailSend returns. It writes the first, the bytes
 * that the texts and attachments of this send have, before the first of them goes out, and the second, how
 * many of them it has read. A source whose size is not known beforehand counts as 0 in the first. The third
 * is the host's: when another thread makes it not 0, the send ends at the next chunk or wait that sees it,
 * nothing is delivered in part, and the result is 0 with the code 151, late or at once as a failed
 * delivery's; messages of a bulk mail that were out stay out. The library never writes it. A mail that is out
 * to its end is not cancelled any more: the result is the server's answer. Over SMTP the waits of the
 * transport do not see it, over MAPI nothing does once the client has been asked.
 *
 * MailTimeout is how long the server may stay silent at any step; with SUBMISSION also how long connecting,
 * encryption and login may take together. Over SMTP the system limits the connecting. Empty: the limits of
 * the paths, 1 to 10 minutes. Anything but a plain number in the range: error 100 at the connect. Not used by
 * MAPI.
 *
 * A reset (empty name) sets the defaults, with two values that a fresh thread does not have: MailServerPort
 * "25" and MailDialog 1.
 */

#ifdef __cplusplus
}
#endif

#endif
