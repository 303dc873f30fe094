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

    private static void Fail(string call)
    {
        int code = 0;
        VelMailGetLastError(ref code);
        if (code == 0 && VelMailDisconnect() == 0) // a failed delivery's code surfaces at the next call
            VelMailGetLastError(ref code);
        VelMailDisconnect();
        byte[] sentence = new byte[128];
        VelMailGetErrorText(code, sentence, sentence.Length);
        int length = Array.IndexOf(sentence, (byte)0);
        throw new IOException(call + ": error " + code + ": "
            + Encoding.GetEncoding("ISO-8859-1").GetString(sentence, 0, length)); // no text has more than Latin-1
    }
}

internal static class Program
{
    private static int Main(string[] arguments)
    {
        try
        {
            VelMail.Set("MailServer", "localhost");
            VelMail.Set("MailServerPort", arguments.Length > 0 ? arguments[0] : "25");
            VelMail.Set("MailSenderMailBox", "me@example.com");
            VelMail.Set("MailRecipientsMailBox", "you@example.com");
            VelMail.Set("MailSubject", "Hello");
            VelMail.Set("MailTextContentType", "text/plain");
            VelMail.Send(Encoding.GetEncoding("ISO-8859-1").GetBytes("Grüße\r\n"));
            return 0;
        }
        catch (IOException failure)
        {
            Console.Error.WriteLine(failure.Message);
            return 1;
        }
    }
}
