using System;
using System.Text;
using VelMail;

// Host SERVER PORT FILE RECIPIENT...: a text, two attachments, and a letter to each of the others, where one that fails
// stops no other. Mono: mcs examples/Host.cs bindings/csharp/VelMail.cs
internal static class Program
{
    private static int Main(string[] arguments)
    {
        if (arguments.Length < 4)
            return 2;
        int failures = 0;
        using (var connection = new Connection(new Settings { Server = arguments[0], Port = arguments[1] }))
        using (var files = Describe(arguments[3], "Two files"))
        {
            connection.Send(Describe(arguments[3], "Hello"));
            files.Attach(arguments[2], mimeType: "application/octet-stream");
            files.Attach(Encoding.UTF8.GetBytes("Grüße\r\n"), "note.txt", "text/plain");
            connection.Send(files);
            for (int i = 4; i < arguments.Length; ++i)
            {
                try
                {
                    connection.Send(Describe(arguments[i], "To each"));
                }
                catch (VelMailException failure) // of this mail; the connection goes on
                {
                    Console.Error.WriteLine(arguments[i] + ": " + failure.Message + "\n" + failure.Report);
                    ++failures;
                }
            }
        }
        return failures == 0 ? 0 : 1;
    }

    private static Mail Describe(string recipient, string subject)
    {
        return new Mail
        {
            From = new Address("me@example.com", "Me"), To = { recipient }, Subject = subject, Text = "Grüße\n"
        };
    }
}
