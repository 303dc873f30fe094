using System;
using System.IO;
using System.Runtime.InteropServices;
using System.Text;

// The functions keep what belongs to a mail for the calling thread: make all calls of a mail on one thread, not
// across an await.
internal static class VelMail
{
    private const string Library = "VelMail64";

    [DllImport(Library, CharSet = CharSet.Ansi, ThrowOnUnmappableChar = true, BestFitMapping = false)]
    private static extern int VelMailSetProperty(string name, string value);
    [DllImport(Library)]
    private static extern int VelMailGetLastError(ref int code);
    [DllImport(Library)]
    private static extern int VelMailGetErrorText(int code, byte[] buffer, int size);
    [DllImport(Library)]
    private static extern int VelMailConnect();
    [DllImport(Library)]
    private static extern int VelMailSend();
    [DllImport(Library)]
    private static extern int VelMailDisconnect();

    // One that fails was not done: the property is as before.
    public static void Set(string name, string value)
    {
        if (VelMailSetProperty(name, value) == 0)
            Fail(name);
    }

    // `text` is the mail's text, which the library reads while it sends.
    public static void Send(byte[] text)
    {
        GCHandle pinned = GCHandle.Alloc(text, GCHandleType.Pinned);
        try
        {
            Set("MailTextMemoryAddress", pinned.AddrOfPinnedObject().ToInt64() + ";" + text.Length);
            if (VelMailConnect() == 0)
                Fail("connect");
            if (VelMailSend() == 0)
                Fail("send");
            if (VelMailDisconnect() == 0)
                Fail("disconnect");
        }
        finally
        {
            pinned.Free();
        }
    }

    // The code of a failed delivery surfaces at the next call, which does nothing else: so this disconnects until that
    // returns 1, and only then may another mail be described.
    private static void Fail(string call)
    {
        int first = 0, code;
        VelMailGetLastError(ref first);
        do
        {
            code = 0;
            if (VelMailDisconnect() != 0)
                break;
            VelMailGetLastError(ref code);
            first = first != 0 ? first : code;
        } while (code != 0); // no code: there is no connection
        byte[] sentence = new byte[128];
        VelMailGetErrorText(first, sentence, sentence.Length);
        int length = Array.IndexOf(sentence, (byte)0);
        throw new IOException(call + ": error " + first + ": "
            + Encoding.GetEncoding("ISO-8859-1").GetString(sentence, 0, length)); // no text has more than Latin-1
    }
}

internal static class Program
{
    private static int Main(string[] arguments) // [PORT [RECIPIENT...]]
    {
        int failures = 0;
        for (int i = 1; i < Math.Max(arguments.Length, 2); ++i)
        {
            try
            {
                VelMail.Set("MailServer", "localhost");
                VelMail.Set("MailServerPort", arguments.Length > 0 ? arguments[0] : "25");
                VelMail.Set("MailSenderMailBox", "me@example.com");
                VelMail.Set("MailRecipientsMailBox", i < arguments.Length ? arguments[i] : "you@example.com");
                VelMail.Set("MailSubject", "Hello");
                VelMail.Set("MailTextContentType", "text/plain");
                VelMail.Send(Encoding.GetEncoding("ISO-8859-1").GetBytes("Grüße\r\n"));
            }
            catch (IOException failure) // of this mail: the next one goes out
            {
                Console.Error.WriteLine(failure.Message);
                ++failures;
            }
        }
        return failures == 0 ? 0 : 1;
    }
}
