// What a host learns of a send beside its result: who got the mail, how far it is, and how it is ended.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "submission.h"
#include "system.h"
#include "velmail.h"

namespace {
using enum EServerAction;

Settings MailBy(const std::string& protocol, const CScriptedServer& server, const Settings& more)
{
    return protocol == "SMTP" ? SmallMail(server.Port(), more) : Submission(server, more);
}

TEST(Report, TellsTheServersWordsForEachRecipient)
{
    const std::string three = "a@host.example;b@host.example;c@host.example";
    const std::string all = "250 a@host.example ok\n250 b@host.example ok\n250 c@host.example ok\n";
    const auto each = [](const std::string& code, const std::string& words) {
        std::string lines;
        for (const char* const name : {"a", "b", "c"}) {
            lines.append(code).append(" ").append(name).append("@host.example ").append(words).append("\n");
        }
        return lines;
    };
    const std::string other = "not sent: another recipient was refused";
    const std::string lost = "connection lost";
    const struct
    {
        std::string name;
        CServerRule rule;
        int code[2];           // SMTP, SUBMISSION; 0: the send succeeds
        std::string report[2]; // the second one where it differs
        std::string extension{};
    } rows[] = {
        {"takes it", {}, {0, 0}, {all}},
        {"says more",
         {"DOT", 1, "250-2.0.0 Ok:\r\n250 2.0.0 queued\tas 47\x7F\r\n"},
         {0, 0},
         {each("250", "2.0.0 Ok: 2.0.0 queued as 47")}},
        {"has enhanced codes",
         {"DOT", 1, "250 2.6.0 queued\r\n"},
         {0, 0},
         {each("250", "2.6.0 queued")},
         "ENHANCEDSTATUSCODES"},
        {"has none but numbers",
         {"DOT", 1, "250 2 queued\r\n"},
         {0, 0},
         {each("250", "2 queued")},
         "ENHANCEDSTATUSCODES"},
        {"says nothing",
         {"DOT", 1, "250\r\n"},
         {665, 0},
         {each("0", "Invalid respons syntax"), each("250", "")}},
        {"says very much",
         {"DOT", 1, "250 " + std::string(900, 'x') + "\r\n"},
         {0, 0},
         {each("250", std::string(512, 'x'))}},
        {"wants a login",
         {"MAIL", 1, "530 5.7.0 Authentication required\r\n"},
         {0, 655},
         {each("530", "5.7.0 Authentication required")}},
        {"wants encryption",
         {"MAIL", 1, "530 5.7.0 Must issue a STARTTLS command first\r\n"},
         {0, 655},
         {each("530", "5.7.0 Must issue a STARTTLS command first")},
         "ENHANCEDSTATUSCODES"},
        {"knows not the sender",
         {"MAIL", 1, "553-who\r\n553 are you\r\n"},
         {0, 657},
         {each("553", "who are you")}},
        {"knows not one",
         {"RCPT", 2, "550 5.1.1 no such user\r\n"},
         {0, 658},
         {"250 a@host.example ok\n550 b@host.example 5.1.1 no such user\n250 c@host.example ok\n",
          "0 a@host.example " + other + "\n550 b@host.example 5.1.1 no such user\n0 c@host.example " + other +
              "\n"}},
        {"knows nobody", {"RCPT", 0, "550 no\r\n"}, {0, 658}, {each("550", "no")}},
        {"is full",
         {"RCPT", 3, "452 later\r\n"},
         {0, 658},
         {"250 a@host.example ok\n250 b@host.example ok\n452 c@host.example later\n",
          "0 a@host.example " + other + "\n0 b@host.example " + other + "\n452 c@host.example later\n"}},
        {"wants no message", {"DATA", 1, "554 no\r\n"}, {0, 62}, {each("554", "no")}},
        {"wants not this one", {"DOT", 1, "552 too large\r\n"}, {0, 62}, {each("552", "too large")}},
        {"leaves",
         {"RCPT", 2, "421 busy\r\n", Close},
         {664, 664},
         {"0 a@host.example " + lost + "\n421 b@host.example busy\n0 c@host.example " + lost + "\n",
          each("421", "busy")}},
        {"is gone",
         {"DOT", 1, "", Close},
         {664, 664},
         {each("0", lost), each("0", "The server closed the connection.")}},
        {"answers what is none",
         {"DOT", 1, "what?\r\n"},
         {665, 665},
         {each("0", "Invalid respons syntax"), each("0", "The server's answer is not SMTP.")}},
        {"wants no client",
         {"connect", 1, "554-no\r\n554 service\r\n"},
         {682, -1},
         {each("554", "no service")}},
        {"wants not this client", {"EHLO", 1, "550 go away\r\n"}, {664, -1}, {each("550", "go away")}},
    };
    for (const auto& row : rows) {
        for (const int path : {0, 1}) {
            const int code = row.code[path];
            if (code < 0) {
                continue; // the connect fails: there is no send
            }
            SCOPED_TRACE(row.name + (path == 0 ? ", SMTP" : ", SUBMISSION"));
            CServerOptions options = path == 0 ? CServerOptions{} : Secured();
            options.extensions.push_back(row.extension.empty() ? "8BITMIME" : row.extension);
            CScriptedServer server({row.rule, {"DOT", 0, "250 ok\r\n"}}, options);
            std::thread([&] {
                Set(MailBy(path == 0 ? "SMTP" : "", server, {{"MailRecipientsMailBox", three}}));
                EXPECT_EQ(Get("MailDeliveryReport"), "");
                EXPECT_EQ(VelMailConnect(), 1);
                EXPECT_EQ(VelMailSend(), code == 0 ? 1 : 0);
                const int atOnce = LastError();
                EXPECT_EQ(atOnce, path == 0 ? 0 : code);
                const std::string& wanted =
                    path == 0 || row.report[1].empty() ? row.report[0] : row.report[1];
                EXPECT_EQ(Get("MailDeliveryReport"), wanted);
                EXPECT_EQ(LastError(), atOnce);
                const bool pending = path == 0 && code != 0;
                EXPECT_EQ(VelMailDisconnect(), pending ? 0 : 1);
                EXPECT_EQ(LastError(), pending ? code : 0);
                EXPECT_EQ(Get("MailDeliveryReport"), wanted) << "until the next send";
            }).join();
        }
    }
}

TEST(Report, IsReadBesideACodeThatIsPending)
{
    std::thread([] {
        char room[1024] = "untouched";
        const std::string wanted = "0 bob@host.example no connection: Connection refused.\n";
        Set(SmallMail("1"));
        EXPECT_EQ(VelMailSetProperty("MailDeliveryReport", "mine"), 0);
        EXPECT_EQ(LastError(), 0);
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(VelMailGetProperty("MailDeliveryReport", room, static_cast<unsigned>(wanted.size())), 0);
        EXPECT_EQ(LastError(), 47) << "the read's own";
        EXPECT_STREQ(room, "untouched");
        EXPECT_EQ(VelMailGetProperty("MailDeliveryReport", nullptr, sizeof room), 0);
        EXPECT_EQ(LastError(), 29);
        EXPECT_EQ(VelMailGetProperty("MailDeliveryReport", room, 0), 1);
        EXPECT_EQ(room, std::to_string(wanted.size() + 1));
        EXPECT_EQ(VelMailGetProperty("MailDeliveryReport", room, static_cast<unsigned>(wanted.size() + 1)),
                  1);
        EXPECT_EQ(room, wanted);
        EXPECT_EQ(LastError(), 29) << "of the read that failed";

        EXPECT_EQ(VelMailSend(), 0) << "which tells the code, and does nothing";
        EXPECT_EQ(LastError(), 682);
        EXPECT_EQ(Get("MailDeliveryReport"), wanted);
        EXPECT_EQ(LastError(), 682);
        Set({{"MailSubject", ""}});
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), 651);
        EXPECT_EQ(Get("MailDeliveryReport"), "") << "of a send that came to no delivery";
        Set({{"MailSubject", "Hello"}});
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(VelMailDisconnect(), 0);
        EXPECT_EQ(Get("MailDeliveryReport"), wanted);
        EXPECT_EQ(VelMailSetProperty("", nullptr), 1);
        EXPECT_EQ(Get("MailDeliveryReport"), "");
        EXPECT_EQ(VelMailDisconnect(), 1);
    }).join();
}

TEST(Report, HasEveryRecipientOfEveryMessage)
{
    const Settings people = {{"MailRecipientsMailBox", "a@host.example;b@host.example;c@host.example"},
                             {"MailCCRecipientsMailBox", "d@host.example"},
                             {"MailBCCRecipientsMailBox", "e@host.example"},
                             {"UseBulkMail", "1"}};
    const std::string lost[] = {"connection lost", "The server closed the connection."};
    for (const int path : {0, 1}) {
        CScriptedServer server({{.match = "DOT", .nth = 2, .action = Close}, {"DOT", 0, "250 ok\r\n"}},
                               path == 0 ? CServerOptions{} : Secured());
        const std::string trace = RunTraced([&] {
            Set(MailBy(path == 0 ? "SMTP" : "", server, people));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 0);
            // The path for today's servers connects again for the messages behind.
            const std::string end = path == 0 ? "0 ? " + lost[0] : "250 ? ok";
            std::string wanted;
            for (const auto& [line, names] : {std::pair<std::string, std::string>{"250 ? ok", "ade"},
                                              {"0 ? " + lost[path], "bde"},
                                              {end, "cde"}}) {
                for (const char name : names) {
                    std::string each = line;
                    wanted += each.replace(each.find('?'), 1, std::string(1, name) + "@host.example") + "\n";
                }
            }
            EXPECT_EQ(Get("MailDeliveryReport"), wanted);
            EXPECT_EQ(VelMailDisconnect(), path);
            Set({{"MailRecipientsMailBox", "a@host.example;b b;c@host.example"},
                 {"MailRecipientCheck", "0"},
                 {"MailCCRecipientsMailBox", ""},
                 {"MailBCCRecipientsMailBox", ""},
                 {"UseBulkMail", "0"}});
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 1 - path) << "the others get it over SMTP";
            EXPECT_EQ(Get("MailDeliveryReport"),
                      path == 0
                          ? "250 a@host.example ok\n0 b b not sent: the mailbox cannot stand in a command\n"
                            "250 c@host.example ok\n"
                          : "0 a@host.example not sent: String not valid\n0 b b not sent: String not valid\n"
                            "0 c@host.example not sent: String not valid\n");
            VelMailDisconnect();
        });
        EXPECT_EQ(CountOf(trace, "MailDeliveryReport"), 2U) << "in the reads, and in no dump";
    }
}

// The host's block; its words are read and written while another thread sends.
struct Progress
{
    alignas(8) std::uint64_t words[3] = {7, 7, 0};

    [[nodiscard]] std::uint64_t At(int word) { return std::atomic_ref(words[word]).load(); }
    void Cancel() { std::atomic_ref(words[2]).store(1); }
    [[nodiscard]] std::string Address() const
    {
        return std::to_string(reinterpret_cast<std::uintptr_t>(words)) + ";24";
    }
};

TEST(Progress, EndsASendAtTheNextChunkOrWait)
{
    std::string large;
    large.resize(104'857'600, 'x');
    const std::string not1 = "0 bob@host.example not sent: cancelled\n";
    const std::string was = "250 bob@host.example ok\n";
    const std::string first = "250 a@host.example ok\n0 b@host.example not sent: cancelled\n"
                              "0 c@host.example not sent: cancelled\n";
    const struct
    {
        std::string name;
        CServerRule rule; // at whose step the host cancels, on the server's thread
        int code[2];      // SMTP, SUBMISSION
        std::string report;
        bool attached = false, bulk = false, chunks = false;
    } rows[] = {
        {"before the connect", {}, {151, 151}, not1},
        {"in the envelope", {"RCPT", 1, "250 ok\r\n"}, {151, 151}, not1},
        {"at the text", {"DATA", 1, "354 go\r\n"}, {151, 151}, not1},
        {"in the attachment", {"BODY", 1, "", Continue, 3'000'000}, {151, 151}, not1, true},
        {"in the chunks", {"BODY", 1, "", Continue, 3'000'000}, {151, 151}, not1, true, false, true},
        {"between two messages", {"DOT", 1, "250 ok\r\n"}, {151, 151}, first, false, true},
        {"at the final answer", {"DOT", 1, "250 ok\r\n"}, {0, 0}, was},
        {"at a refusal", {"DOT", 1, "550 no\r\n"}, {0, 62}, "550 bob@host.example no\n"},
        {"in a wait", {"DATA", 1, "", Silent}, {-1, 151}, not1},
        {"in a connect", {"connect", 1, "", Silent, 0, 2}, {-1, 151}, not1},
    };
    for (const auto& row : rows) {
        for (const int path : {0, 1}) {
            if (row.code[path] < 0) {
                continue; // this transport's waits are its own
            }
            SCOPED_TRACE(row.name + (path == 0 ? ", SMTP" : ", SUBMISSION"));
            Progress progress;
            CServerRule rule = row.rule;
            const bool before = rule.match.empty();
            rule.before = [&] { progress.Cancel(); };
            CServerOptions options = path == 0 ? CServerOptions{} : Secured();
            if (row.chunks) {
                options.extensions.emplace_back("CHUNKING");
            }
            CScriptedServer server({rule, {"DOT", 0, "250 ok\r\n"}, {"LAST", 0, "250 ok\r\n"}}, options);
            std::thread([&] {
                Set(MailBy(path == 0 ? "SMTP" : "", server, {}));
                EXPECT_EQ(VelMailConnect(), 1);
                if (rule.connection == 2) {
                    server.DropConnections();
                }
                Set({{"MailProgressMemoryAddress", progress.Address()}});
                if (row.bulk) {
                    Set({{"MailRecipientsMailBox", "a@host.example;b@host.example;c@host.example"},
                         {"UseBulkMail", "1"}});
                }
                if (row.attached) {
                    Set({{"MailAttachmentFilename", "large"}, {"MailAttachmentMemoryAddress", Block(large)}});
                }
                if (before) {
                    progress.Cancel();
                }
                const int code = row.code[path];
                EXPECT_EQ(VelMailSend(), code == 0 ? 1 : 0);
                EXPECT_EQ(LastError(), path == 0 ? 0 : code);
                EXPECT_EQ(Get("MailDeliveryReport"), row.report);
                EXPECT_EQ(VelMailDisconnect(), path == 0 && code != 0 ? 0 : 1);
                EXPECT_EQ(LastError(), path == 0 ? code : 0);
                const std::uint64_t text = 10;
                const std::uint64_t total = (text + (row.attached ? large.size() : 0)) * (row.bulk ? 3 : 1);
                EXPECT_EQ(progress.At(0), total);
                EXPECT_EQ(row.code[0] == 0 ? progress.At(1) : total, total);
                EXPECT_LT(progress.At(1), row.attached ? total / 2 : row.bulk ? total : total + 1);
            }).join();
            server.Stop();
            EXPECT_EQ(server.Mails().size(), CountOf(row.report, "250 "));
            EXPECT_EQ(before && path == 0 ? server.Connections() : 0, 0U);
        }
    }
}

TEST(Progress, RefusesABlockThatIsNone)
{
    CScriptedServer server;
    std::thread([&] {
        Progress progress;
        const auto address = reinterpret_cast<std::uintptr_t>(progress.words);
        Set(SmallMail(server.Port()));
        EXPECT_EQ(VelMailConnect(), 1);
        for (const std::string& block :
             {std::to_string(address) + ";16", std::to_string(address) + ";32",
              std::to_string(address + 4) + ";24", progress.Address() + ";" + progress.Address(),
              std::to_string(address), std::string("0;24"), std::string("here")}) {
            Set({{"MailProgressMemoryAddress", block}});
            EXPECT_EQ(VelMailSend(), 0) << block;
            EXPECT_EQ(LastError(), 100) << block;
        }
        Set({{"MailProgressMemoryAddress", progress.Address()}});
        EXPECT_EQ(SendAndDisconnect(), 0);
        EXPECT_EQ(progress.At(0), 10U);
        EXPECT_EQ(progress.At(1), 10U);
    }).join();
    EXPECT_EQ(server.Mails().size(), 1U);
}

TEST(Timeout, EndsTheServersSilence)
{
    for (const char* const step : {"connect", "EHLO", "MAIL", "RCPT", "DATA", "DOT", "BDAT", "LAST"}) {
        for (const int path : {0, 1}) {
            const bool chunks = std::string(step) == "BDAT" || std::string(step) == "LAST";
            if (chunks && path == 0 && !TransportSendsChunks()) {
                continue;
            }
            SCOPED_TRACE(std::string(step) + (path == 0 ? ", SMTP" : ", SUBMISSION"));
            CServerOptions options = path == 0 ? CServerOptions{} : Secured();
            if (chunks) {
                options.extensions.emplace_back("CHUNKING");
            }
            const bool single = path == 1 && std::string(step) == "BDAT"; // all in the last chunk
            CScriptedServer server({{.match = single ? "LAST" : step, .action = Silent}}, options);
            std::thread([&] {
                Set(MailBy(path == 0 ? "SMTP" : "", server, {{"MailTimeout", "1"}}));
                EXPECT_EQ(VelMailConnect() == 1 ? SendAndDisconnect() : LastError(), 664);
            }).join();
            EXPECT_EQ(server.Mails().size(), 0U);
        }
    }
}

TEST(Timeout, IsANumberOfSeconds)
{
    CScriptedServer server;
    for (const char* const protocol : {"SMTP", "SUBMISSION", "MAPI"}) {
        std::thread([&] {
            Set(MailBy("SMTP", server, {{"MailProtocol", protocol}}));
            for (const char* const value :
                 {"0", "-1", "86401", "1.5", " 1", "1 ", "ten", "99999999999999999999"}) {
                Set({{"MailTimeout", value}});
                EXPECT_EQ(VelMailConnect(), 0) << value;
                EXPECT_EQ(LastError(), 100) << value;
            }
        }).join();
    }
    std::thread([&] { EXPECT_EQ(Deliver(SmallMail(server.Port(), {{"MailTimeout", "86400"}})), 0); }).join();
}

} // namespace
