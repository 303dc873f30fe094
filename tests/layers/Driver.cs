// Does what the lines of its input say, in fields with tabs between them, and answers each one that can fail with a line:
// "ok", "ok" and a code beside the success and a report, or what was raised.
using System;
using System.Collections.Generic;
using System.IO;
using System.Text;
using System.Threading;
using VelMail;

internal static class Driver
{
    private static Connection s_connection;
    private static Mail s_mail;

    private static void Main()
    {
        var output = new StreamWriter(Console.OpenStandardOutput(), new UTF8Encoding(false));
        var input = new StreamReader(Console.OpenStandardInput(), new UTF8Encoding(false));
        for (string line; (line = input.ReadLine()) != null;)
        {
            string answer = Attempt(line.Replace("\\n", "\n").Replace("\\0", "\0").Split('\t'));
            if (answer != null)
                output.WriteLine(answer.Replace("\n", "|"));
        }
        output.Flush();
    }

    private static string Attempt(string[] fields)
    {
        try
        {
            return Do(fields);
        }
        catch (VelMailException failure)
        {
            return failure.Code + " " + failure.Sentence + "|" + failure.Report;
        }
        catch (InvalidOperationException)
        {
            return "misuse";
        }
        catch (OperationCanceledException failure)
        {
            return "cancelled: " + ((VelMailException)failure.InnerException).Code;
        }
    }

    private static string Do(string[] fields)
    {
        string command = fields[0], first = fields.Length > 1 ? fields[1] : null, second = fields.Length > 2 ? fields[2] : null;
        switch (command)
        {
            case "connect":
                s_connection = new Connection(ReadSettings(fields));
                return "ok";
            case "close":
                s_connection.Dispose();
                return null;
            case "mail":
                s_mail = new Mail { From = "ada@host.example", To = { "bob@host.example" }, Subject = "Hello", Text = "Text" };
                return null;
            case "From":
                s_mail.From = new Address(first, second);
                return null;
            case "ReplyTo":
                s_mail.ReplyTo = new Address(first, second);
                return null;
            case "To":
            case "Cc":
            case "Bcc":
                ((List<Address>)typeof(Mail).GetProperty(command).GetValue(s_mail)).Add(new Address(first, second));
                return null;
            case "nobody":
                s_mail.To.Clear();
                return null;
            case "Bulk":
                s_mail.Bulk = true;
                return null;
            case "path":
                s_mail.Attach(first, second, fields[3]);
                return null;
            case "memory":
                s_mail.Attach(Encoding.UTF8.GetBytes(first), second, fields[3]);
                return null;
            case "stream":
                s_mail.Attach(new MemoryStream(Encoding.UTF8.GetBytes(first)), second, fields[3]);
                return null;
            case "send":
                return Show(s_connection.Send(s_mail));
            case "watch":
                return Watch();
            case "cancel":
                var source = new CancellationTokenSource();
                return Show(s_connection.Send(s_mail, new Told(bytes => source.Cancel()), source.Token));
            case "elsewhere":
                string answer = null;
                var thread = new Thread(() => answer = Attempt(new[] { "send" }));
                thread.Start();
                thread.Join();
                return answer;
            default:
                typeof(Mail).GetProperty(command).SetValue(s_mail, first);
                return null;
        }
    }

    private static Settings ReadSettings(string[] fields)
    {
        var settings = new Settings { Server = "127.0.0.1" };
        for (int i = 1; i < fields.Length; ++i)
        {
            string[] setting = fields[i].Split('=');
            var property = typeof(Settings).GetProperty(setting[0]);
            if (property == null)
                settings.Properties[setting[0]] = setting[1];
            else
                property.SetValue(settings, setting[0] == "Timeout" ? (object)int.Parse(setting[1]) : setting[1]);
        }
        return settings;
    }

    // The last report may come when the send has returned.
    private static string Watch()
    {
        var all = new ManualResetEvent(false);
        s_connection.Send(s_mail, new Told(bytes =>
        {
            if (bytes != 0 && bytes == s_connection.BytesToSend)
                all.Set();
        }));
        all.WaitOne();
        return "ok " + s_connection.BytesToSend;
    }

    private static string Show(Sent sent)
    {
        return "ok " + sent.Code + " " + sent.Report + "refused:" + sent.Refused.Length;
    }

    private sealed class Told : IProgress<long>
    {
        private readonly Action<long> m_action;

        public Told(Action<long> action)
        {
            m_action = action;
        }

        public void Report(long bytes)
        {
            m_action(bytes);
        }
    }
}
