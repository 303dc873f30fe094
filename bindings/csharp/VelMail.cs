// VEL mail for .NET: the ten functions of VelMail64.dll or libVelMail64.so as two classes. One file, for .NET Standard 2.0
// and later, .NET Framework 4.6.1 and later, and Mono; the process must be a 64-bit one.
//
// Texts are handed to the library as UTF-8, or in Settings.Charset; the mail's text is labelled so. With the protocol
// "SUBMISSION" names and subject are encoded from it for the reader; over "SMTP" their bytes go out as they are.
//
// Failures are VelMailException, also what this layer refuses because the library could not take it: 99 for a property that
// the library does not have, 100 for a text or a combination of settings. A code that the library reports late, by the call
// after the one that failed, is fetched before the failing method returns: the next mail can be sent at once, on the same
// connection.
using System;
using System.Collections.Generic;
using System.Globalization;
using System.IO;
using System.Linq;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

namespace VelMail
{
    /// <summary>A connection that was not made, or a mail that was not sent or not to everyone.</summary>
    public sealed class VelMailException : Exception
    {
        internal const int NoTrace = 17, Refused = 62, Unknown = 99, Invalid = 100, Cancelled = 151, Attachment = 659;

        internal VelMailException(int code, string sentence, string report = "")
            : base("error " + code + ": " + sentence)
        {
            Code = code;
            Sentence = sentence;
            Report = report;
        }

        /// <summary>The library's number for the failure, see docs/errors.md; 0 where it gave none.</summary>
        public int Code { get; }

        /// <summary>The library's sentence for it, in English or German.</summary>
        public string Sentence { get; }

        /// <summary>What the server said of each recipient, see <see cref="Sent.Report"/>.</summary>
        public string Report { get; }
    }

    /// <summary>What became of a mail that the server took for somebody.</summary>
    public sealed class Sent
    {
        internal Sent(string report, VelMailException beside)
        {
            Report = report;
            Code = beside?.Code ?? 0;
            Sentence = beside?.Sentence ?? "";
        }

        /// <summary>
        /// A line for each recipient of each message, "250 bob@example.com 2.0.0 Ok"; empty with a library that has none.
        /// </summary>
        public string Report { get; }

        /// <summary>The lines of those who do not get the mail. With SUBMISSION there are none.</summary>
        public string[] Refused => Report.Split(new[] { '\n' }, StringSplitOptions.RemoveEmptyEntries)
            .Where(line => line[0] != '2').ToArray();

        /// <summary>What went wrong beside the delivery, such as 650 for a recipient left out; 0 for nothing.</summary>
        public int Code { get; }

        public string Sentence { get; }
    }

    /// <summary>
    /// A mailbox, "local@domain", with an optional display name. With MAPI a name alone is looked up by the mail client.
    /// </summary>
    public sealed class Address
    {
        public Address(string mailbox, string name = null)
        {
            Mailbox = mailbox ?? "";
            Name = name ?? "";
        }

        public string Mailbox { get; }

        public string Name { get; }

        public static implicit operator Address(string mailbox) => new Address(mailbox);
    }

    /// <summary>
    /// One mail. It may be sent several times and over several connections, and must not be changed while it is sent.
    /// Dispose lets go of the attachments in memory.
    /// </summary>
    public sealed class Mail : IDisposable
    {
        internal sealed class Attachment
        {
            public string Path, Name, MimeType;
            public byte[] Content; // null: the file at Path
        }

        internal List<Attachment> Attachments { get; } = new List<Attachment>();

        public Address From { get; set; }

        public Address ReplyTo { get; set; }

        public List<Address> To { get; } = new List<Address>();

        public List<Address> Cc { get; } = new List<Address>();

        /// <summary>Over SMTP they stand in the message as it is submitted: the server must drop the field.</summary>
        public List<Address> Bcc { get; } = new List<Address>();

        /// <summary>Required.</summary>
        public string Subject { get; set; }

        public string Text { get; set; }

        /// <summary>The text's type, such as "text/html", without a charset: the connection's is added.</summary>
        public string ContentType { get; set; } = "text/plain";

        /// <summary>Further header lines, "Name: value", with line ends between them; with SUBMISSION only.</summary>
        public string Headers { get; set; }

        /// <summary>One message for each To recipient.</summary>
        public bool Bulk { get; set; }

        /// <summary>
        /// Attaches a file, read while the mail is sent: by the library in pieces where it can be, else as a whole into
        /// memory. The latter in a mail that also has attachments in memory, for another name than the path's, a path
        /// with ";", and a path that is not ASCII on Windows or with another charset than UTF-8.
        /// </summary>
        /// <param name="name">The name in the mail; null: the path's last part.</param>
        /// <param name="mimeType">Without parameters; null: "text/plain", for SUBMISSION by the name.</param>
        public void Attach(string path, string name = null, string mimeType = null)
        {
            if (string.IsNullOrEmpty(path))
                throw new VelMailException(VelMailException.Invalid, "An attachment needs a path.");
            Add(path, name ?? LastPart(path), mimeType, null);
        }

        /// <summary>Attaches `content`, which is not copied. Over SMTP an attachment without a byte is left out.</summary>
        public void Attach(byte[] content, string name, string mimeType = null)
        {
            Add(null, name, mimeType, content ?? throw new ArgumentNullException(nameof(content)));
        }

        /// <summary>Reads the stream to its end, into memory, and attaches that. The stream stays the caller's.</summary>
        public void Attach(Stream content, string name, string mimeType = null)
        {
            using (var copy = new MemoryStream())
            {
                (content ?? throw new ArgumentNullException(nameof(content))).CopyTo(copy);
                Add(null, name, mimeType, copy.ToArray());
            }
        }

        public void Dispose()
        {
            Attachments.Clear();
        }

        // As the library takes it, on every system.
        internal static string LastPart(string path) => path.Substring(path.LastIndexOfAny(new[] { '/', '\\' }) + 1);

        private void Add(string path, string name, string mimeType, byte[] content)
        {
            if (string.IsNullOrEmpty(name))
                throw new VelMailException(VelMailException.Invalid, "An attachment needs a name.");
            Attachments.Add(new Attachment { Path = path, Name = name, MimeType = mimeType ?? "", Content = content });
        }
    }

    /// <summary>How to reach the server. Null stands for the library's default, see docs/properties.md.</summary>
    public sealed class Settings
    {
        /// <summary>"SMTP", to a relay, without encryption and login; "SUBMISSION"; on Windows "MAPI".</summary>
        public string Protocol { get; set; } = "SMTP";

        public string Server { get; set; }

        public string Port { get; set; }

        /// <summary>SUBMISSION: "STARTTLS", "TLS" or "NONE"; null: by the port.</summary>
        public string Security { get; set; }

        /// <summary>SUBMISSION: a PEM file that is trusted instead of the system's certificates.</summary>
        public string CAFile { get; set; }

        /// <summary>SUBMISSION: null for no login.</summary>
        public string Login { get; set; }

        public string Password { get; set; }

        public string Mechanism { get; set; }

        /// <summary>"UTF-8", "ISO-8859-1", or "WINDOWS-1252", for which .NET needs CodePagesEncodingProvider registered;
        /// null: UTF-8, with MAPI ISO-8859-1.</summary>
        public string Charset { get; set; }

        /// <summary>Seconds that the server may stay silent; null: the library's limits.</summary>
        public int? Timeout { get; set; }

        /// <summary>Others by name, such as MailTraceFilename.</summary>
        public Dictionary<string, string> Properties { get; } = new Dictionary<string, string>();
    }

    /// <summary>
    /// A thread's connection. It belongs to the thread that made it, as all that the library keeps, so do not await
    /// between making and disposing it; a thread has one at a time. SMTP reaches the server at each send, SUBMISSION
    /// connects and logs in when the object is made.
    /// </summary>
    public sealed class Connection : IDisposable
    {
        [ThreadStatic]
        private static Connection s_current;

        private readonly Encoding m_encoding;
        private readonly string m_charset;
        private readonly bool m_submission;
        private volatile long[] m_progress = new long[3]; // bytes to send, bytes read, the cancel word
        private bool m_disposed;

        /// <exception cref="VelMailException">There is no connection, or the settings cannot be used.</exception>
        /// <exception cref="InvalidOperationException">The thread has a connection.</exception>
        public Connection(Settings settings)
        {
            if (s_current != null)
                throw new InvalidOperationException("This thread has a connection: dispose it first.");
            m_submission = settings.Protocol == "SUBMISSION";
            if (!m_submission && new[] { settings.Security, settings.CAFile, settings.Login, settings.Password,
                    settings.Mechanism }.Any(text => !string.IsNullOrEmpty(text)))
                throw new VelMailException(VelMailException.Invalid, "Encryption and login need the protocol SUBMISSION.");
            m_charset = settings.Charset ?? (settings.Protocol == "MAPI" ? "ISO-8859-1" : "UTF-8");
            try
            {
                m_encoding = Encoding.GetEncoding(m_charset, EncoderFallback.ExceptionFallback,
                    DecoderFallback.ReplacementFallback);
            }
            catch (Exception failure) when (failure is ArgumentException || failure is NotSupportedException)
            {
                throw new VelMailException(VelMailException.Invalid, "The runtime has no charset " + m_charset + ".");
            }
            TakeLateCode(); // of a host that called the functions itself
            s_current = this;
            try
            {
                Native.VelMailSetProperty(new byte[1], null); // all to their defaults
                Require("MailProtocol", settings.Protocol);
                Require("MailServer", settings.Server);
                Require("MailServerPort", settings.Port);
                Require("MailDialog", "0"); // the defaults of a reset have it on
                Require("MailSecurity", settings.Security);
                Require("MailSecurityCAFile", settings.CAFile);
                Require("MailAuthLogin", settings.Login);
                Require("MailAuthPassword", settings.Password);
                Require("MailAuthMechanism", settings.Mechanism);
                Require("MailCharset", m_submission ? m_charset : null);
                if (settings.Timeout != null)
                    Require("MailTimeout", settings.Timeout.Value.ToString(CultureInfo.InvariantCulture));
                foreach (var property in settings.Properties)
                    Require(property.Key, property.Value);
                bool connected = Native.VelMailConnect() != 0;
                int code = connected ? TakeLateCode() : LastError(); // MAPI tells late that nobody logged on
                if (!connected || code != 0)
                    throw Failure(code);
            }
            catch
            {
                Dispose();
                throw;
            }
        }

        /// <summary>The library's version, such as "VEL mail 1.3.2.0/mt".</summary>
        public static string LibraryVersion
        {
            get
            {
                var text = new byte[64];
                Native.VelMailGetVersionText(text, new UIntPtr((uint)text.Length));
                return FromZeroTerminated(text, Encoding.ASCII);
            }
        }

        /// <summary>
        /// The bytes of text and attachments of the send that runs, 0 until the library has counted them. May be asked
        /// on any thread.
        /// </summary>
        public long BytesToSend => Volatile.Read(ref m_progress[0]);

        /// <summary>Sends one mail and waits for the server's answer.</summary>
        /// <param name="progress">Is told the bytes read so far, ten times a second, on a thread of its own and a last
        /// time when the send has ended, which may be after this method has returned. It must not throw.</param>
        /// <param name="cancel">Ends the send as soon as the library sees it, with nothing delivered cut short.</param>
        /// <returns>The report, which over SMTP may hold refusals beside what was taken. With a library
        /// that has none it is empty, and a mail that was refused for everyone counts as sent.</returns>
        /// <exception cref="VelMailException">The mail was not sent, or broke off: some may have got it, if the report
        /// says so. Code 62 when the server refused it for everyone.</exception>
        /// <exception cref="OperationCanceledException">By `cancel`; the inner exception has the report.</exception>
        public Sent Send(Mail mail, IProgress<long> progress = null,
            CancellationToken cancel = default(CancellationToken))
        {
            CheckThread();
            cancel.ThrowIfCancellationRequested();
            TakeLateCode(); // of a host that called the functions itself
            var pinned = new List<GCHandle>();
            try
            {
                Describe(mail, pinned);
                int result, code;
                using (Watch(progress, cancel, pinned))
                {
                    result = Native.VelMailSend();
                    code = result == 0 ? LastError() : 0;
                }
                if (code == 0)
                    code = TakeLateCode();
                string report = GetProperty("MailDeliveryReport") ?? "";
                bool taken = report == "" || ("\n" + report).Contains("\n2");
                var failure = Failure(result != 0 && !taken ? VelMailException.Refused : code, report);
                if (result != 0 && taken)
                    return new Sent(report, code != 0 ? failure : null);
                if (code == VelMailException.Cancelled && cancel.IsCancellationRequested)
                    throw new OperationCanceledException(failure.Message, failure, cancel);
                throw failure;
            }
            finally
            {
                // The library must not keep addresses of memory that may move from here on.
                foreach (string name in new[] { "MailTextMemoryAddress", "MailAttachmentMemoryAddress",
                             "MailProgressMemoryAddress" })
                    Native.VelMailSetProperty(Encoding.ASCII.GetBytes(name + "\0"), null);
                pinned.ForEach(handle => handle.Free());
            }
        }

        /// <summary>Ends the connection and forgets the settings, the password among them.</summary>
        public void Dispose()
        {
            if (m_disposed)
                return;
            CheckThread();
            TakeLateCode();
            Native.VelMailDisconnect();
            TakeLateCode();
            Native.VelMailSetProperty(new byte[1], null);
            s_current = null;
            m_disposed = true;
        }

        private void CheckThread()
        {
            if (m_disposed)
                throw new ObjectDisposedException(nameof(Connection));
            if (s_current != this)
                throw new InvalidOperationException("This connection belongs to another thread: make, use and dispose it on "
                    + "one, without an await in between.");
        }

        // All that belongs to a mail, so that nothing of the one before remains.
        private void Describe(Mail mail, List<GCHandle> pinned)
        {
            if (mail.ContentType != null && mail.ContentType.IndexOf("charset", StringComparison.OrdinalIgnoreCase) >= 0)
                throw new VelMailException(VelMailException.Invalid, "The text is in the connection's charset: give its type alone.");
            Require("MailSenderMailBox", mail.From?.Mailbox);
            Require("MailSenderFullName", mail.From?.Name);
            Require("MailReplyToMailBox", mail.ReplyTo?.Mailbox);
            Require("MailReplyToFullName", mail.ReplyTo?.Name);
            RequireAddresses("MailRecipients", mail.To);
            RequireAddresses("MailCCRecipients", mail.Cc);
            RequireAddresses("MailBCCRecipients", mail.Bcc);
            Require("MailSubject", mail.Subject);
            if (!m_submission && !string.IsNullOrEmpty(mail.Headers))
                throw new VelMailException(VelMailException.Invalid, "Header lines need the protocol SUBMISSION.");
            Require("MailAdditionalSMTPHeader", mail.Headers);
            Require("UseBulkMail", mail.Bulk ? "1" : "0");
            Require("MailTextContentType", (string.IsNullOrEmpty(mail.ContentType) ? "text/plain" : mail.ContentType)
                + "; charset=" + m_charset);
            Require("MailTextMemoryAddress", Block(Encode(mail.Text ?? "", m_encoding), pinned));
            // The library takes all from files or all from memory.
            bool inMemory = !mail.Attachments.TrueForAll(IsForLibrary);
            Require("MailAttachmentFilename", List(mail.Attachments.Select(one => inMemory ? one.Name : one.Path)));
            Require("MailAttachmentMimeType", List(mail.Attachments.Select(one => one.MimeType)));
            Require("MailAttachmentMemoryAddress", inMemory ? List(mail.Attachments.Select(
                one => Block(one.Content ?? Read(one), pinned)), true) : "");
        }

        private static byte[] Read(Mail.Attachment attachment)
        {
            try
            {
                return File.ReadAllBytes(attachment.Path);
            }
            catch (Exception failure) when (failure is IOException || failure is UnauthorizedAccessException)
            {
                throw new VelMailException(VelMailException.Attachment, failure.Message);
            }
        }

        // The library reads names of files in the system's encoding, and sends the last part as it is.
        private bool IsForLibrary(Mail.Attachment attachment)
        {
            bool utf8 = Path.DirectorySeparatorChar == '/' && m_encoding.CodePage == Encoding.UTF8.CodePage;
            return attachment.Content == null && attachment.Name == Mail.LastPart(attachment.Path) &&
                attachment.Path.All(character => character != ';' && (character < 128 || utf8));
        }

        // Has the library write its progress and look for cancellation, where somebody asked for it; until disposed.
        private IDisposable Watch(IProgress<long> progress, CancellationToken cancel, List<GCHandle> pinned)
        {
            var words = m_progress = new long[3];
            if (progress == null && !cancel.CanBeCanceled)
                return null;
            Require("MailProgressMemoryAddress", Block(words, pinned));
            return new Watcher(words, progress, cancel);
        }

        private void RequireAddresses(string kind, List<Address> addresses)
        {
            Require(kind + "MailBox", List(addresses.Select(address => address?.Mailbox)));
            Require(kind + "FullName", List(addresses.Select(address => address?.Name)));
        }

        private void Require(string name, string value)
        {
            if (string.IsNullOrEmpty(name)) // which would be a reset
                throw new VelMailException(VelMailException.Unknown, "A property has a name.");
            if (Native.VelMailSetProperty(Bytes(name, Encoding.ASCII), Bytes(value, m_encoding)) != 0)
                return;
            int code = LastError();
            if (code != 0)
                throw Failure(code);
            if (!string.IsNullOrEmpty(value)) // an empty one that an older library lacks is as good as set
                throw new VelMailException(VelMailException.Unknown, "The library cannot set the property " + name + ".");
        }

        // Null: the library does not know the property.
        private string GetProperty(string name)
        {
            byte[] asciiName = Bytes(name, Encoding.ASCII), size = new byte[12];
            if (Native.VelMailGetProperty(asciiName, size, 0) == 0)
                return null;
            var text = new byte[int.Parse(FromZeroTerminated(size, Encoding.ASCII), CultureInfo.InvariantCulture)];
            return Native.VelMailGetProperty(asciiName, text, (uint)text.Length) != 0 ?
                FromZeroTerminated(text, m_encoding) : null;
        }

        private static string List(IEnumerable<string> parts, bool blocks = false)
        {
            if (!blocks && parts.Any(part => part != null && part.Contains(";")))
                throw new VelMailException(VelMailException.Invalid, "An address, a name or a MIME type cannot contain \";\".");
            return string.Join(";", parts);
        }

        private static string Block(Array memory, List<GCHandle> pinned)
        {
            var handle = GCHandle.Alloc(memory, GCHandleType.Pinned);
            pinned.Add(handle);
            return handle.AddrOfPinnedObject().ToInt64().ToString(CultureInfo.InvariantCulture) + ";"
                + Buffer.ByteLength(memory).ToString(CultureInfo.InvariantCulture);
        }

        private static byte[] Bytes(string text, Encoding encoding)
        {
            if (text != null && text.IndexOf('\0') >= 0)
                throw new VelMailException(VelMailException.Invalid, "A setting cannot contain the character 0.");
            return Encode((text ?? "") + "\0", encoding);
        }

        private static byte[] Encode(string text, Encoding encoding)
        {
            try
            {
                return encoding.GetBytes(text);
            }
            catch (EncoderFallbackException)
            {
                throw new VelMailException(VelMailException.Invalid, "A text is not in the charset " + encoding.WebName + ".");
            }
        }

        private static string FromZeroTerminated(byte[] bytes, Encoding encoding)
        {
            int end = Array.IndexOf(bytes, (byte)0);
            return encoding.GetString(bytes, 0, end < 0 ? bytes.Length : end);
        }

        private static int LastError()
        {
            int code = 0;
            // It fails when the thread's trace file cannot be used: then all calls fail, and none can say so.
            return Native.VelMailGetLastError(ref code) != 0 ? code : VelMailException.NoTrace;
        }

        // The code that is waiting for the next working call, if any: this one, which changes nothing.
        private static int TakeLateCode()
        {
            return Native.VelMailGetProperty(Encoding.ASCII.GetBytes("UseBulkMail\0"), new byte[4], 4) != 0 ? 0 : LastError();
        }

        private static VelMailException Failure(int code, string report = "")
        {
            var sentence = new byte[128];
            Native.VelMailGetErrorText(code, sentence, sentence.Length);
            // Windows-1252, but no text has more than what Latin-1 has.
            string text = FromZeroTerminated(sentence, Encoding.GetEncoding("ISO-8859-1"));
            return new VelMailException(code, code == 0 || text == "" ? "no reason is known" : text, report);
        }

        private sealed class Watcher : IDisposable
        {
            private readonly ManualResetEventSlim m_end = new ManualResetEventSlim();
            private readonly CancellationTokenRegistration m_cancel;

            public Watcher(long[] words, IProgress<long> progress, CancellationToken cancel)
            {
                m_cancel = cancel.Register(() => Volatile.Write(ref words[2], 1));
                if (progress == null)
                    return;
                // Nobody waits for it: a report that needs the sending thread could not end before that.
                new Thread(() =>
                {
                    bool ended;
                    do
                    {
                        ended = m_end.Wait(100);
                        progress.Report(Volatile.Read(ref words[1]));
                    } while (!ended);
                }) { IsBackground = true }.Start();
            }

            public void Dispose()
            {
                m_cancel.Dispose();
                m_end.Set();
            }
        }

        private static class Native
        {
            private const string Library = "VelMail64"; // VelMail64.dll, elsewhere libVelMail64.so

            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailSetProperty(byte[] name, byte[] value);
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailGetProperty(byte[] name, byte[] buffer, uint size);
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailGetLastError(ref int code);
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailGetErrorText(int code, byte[] buffer, int size);
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailGetVersionText(byte[] buffer, UIntPtr size);
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailConnect();
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailSend();
            [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
            public static extern int VelMailDisconnect();
        }
    }
}
