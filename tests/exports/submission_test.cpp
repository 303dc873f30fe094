// Delivery to a submission server through the exports: settings, certificates, logins, kept connections.
#include <algorithm>
#include <filesystem>
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

bool Has(const CScriptedServer& server, const std::string& command)
{
    return std::ranges::any_of(server.Commands(),
                               [&](const auto& each) { return each.starts_with(command); });
}

TEST(Submission, TellsCertificatesApart)
{
    if (!ServesTls()) {
        GTEST_SKIP() << "needs a server with TLS";
    }
    const struct
    {
        ECertificate kind;
        const char* server;
        bool ownAuthority;
        int code;
        const char* reason; // in the one error line
    } rows[] = {{ECertificate::Right, "localhost", true, 0, ""},
                {ECertificate::Right, "127.0.0.1", true, 0, ""},
                {ECertificate::Right, "localhost.", true, 0, ""},
                {ECertificate::CommonNameOnly, "localhost", true, 0, ""},
                {ECertificate::Right, "localhost", false, 654,
                 "local issuer certificate; trusted are those of the system"},
                {ECertificate::OtherName, "localhost", true, 654, "subject name matches target host name"},
                {ECertificate::OtherName, "127.0.0.1", true, 654, "subject name matches target host name"},
                {ECertificate::Expired, "localhost", true, 654, "certificate has expired"},
                {ECertificate::SelfSigned, "localhost", true, 654,
                 "self-signed certificate; trusted are those of '/"}};
    for (const auto& row : rows) {
        for (const bool atOnce : {false, true}) {
            CScriptedServer server({}, Secured(row.kind, atOnce, {"AUTH PLAIN"}));
            const std::string trace = RunTraced([&] {
                Set(Submission(server, {{"MailServer", row.server},
                                        {"MailSecurity", atOnce ? "TLS" : "STARTTLS"},
                                        {"MailSecurityCAFile", row.ownAuthority ? Authority() : ""},
                                        {"MailAuthLogin", "ada"},
                                        {"MailAuthPassword", "s3cret"}}));
                EXPECT_EQ(VelMailConnect(), row.code == 0 ? 1 : 0);
                EXPECT_EQ(LastError(), row.code);
                EXPECT_EQ(VelMailSend(), row.code == 0 ? 1 : 0);
                EXPECT_EQ(LastError(), row.code == 0 ? 0 : 697) << "not where the host could not connect";
                EXPECT_EQ(VelMailDisconnect(), 1);
            });
            SCOPED_TRACE(std::to_string(static_cast<int>(row.kind)) + " at " + row.server);
            EXPECT_EQ(server.Mails().size(), row.code == 0 ? 1U : 0U);
            EXPECT_EQ(Has(server, "AUTH"), row.code == 0);
            const std::size_t line = trace.find("Error: Setting error 654 (");
            EXPECT_TRUE(row.code == 0 || trace.find(row.reason, line) < trace.find('\n', line)) << trace;
        }
    }
}

TEST(Submission, RefusesSettingsThatCannotBeRight)
{
    if (!ServesTls()) {
        GTEST_SKIP() << "needs a server with TLS";
    }
    const CTempFolder folder;
    const std::string text = folder.Write("text.pem", "no certificate");
    const std::string broken =
        folder.Write("broken.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const struct
    {
        Settings settings;
        int code;
        std::size_t connections;
    } rows[] = {
        {{{"MailSecurity", "starttls"}}, 100, 0},
        {{{"MailSecurity", "SSL"}}, 100, 0},
        {{{"MailSecurityCAFile", folder.Path("missing.pem")}}, 100, 0},
        {{{"MailSecurityCAFile", folder.Path()}}, 100, 0},
        {{{"MailSecurityCAFile", text}}, 100, 0},
        {{{"MailSecurityCAFile", broken}}, 100, 1},
        {{{"MailAuthMechanism", "NTLM"}}, 100, 0},
        {{{"MailAuthMechanism", "PLAIN;AUTH=NTLM"}}, 100, 0},
        {{{"MailSecurity", "NONE"}, {"MailAuthLogin", "ada"}}, 655, 0},
        {{{"MailServerPort", "0"}}, 678, 0},
        {{{"MailServerPort", "70000"}}, 678, 0},
        {{{"MailServerPort", "no-such-service"}}, 678, 0},
        {{{"MailServerPort", "1"}}, 653, 0},
        {{{"MailServerPort", "1"}, {"MailServer", "[::1]"}}, 653, 0},
        {{{"MailServerPort", "1"}, {"MailServer", "::1"}}, 653, 0},
        {{{"MailServer", "no such host"}}, 677, 0},
        {{{"MailServer", "user@localhost/x?y"}}, 677, 0},
        {{{"MailServer", "local\r\nhost"}}, 677, 0},
        {{{"MailAuthLogin", "ada"}}, 669, 1},
        {{{"MailAuthLogin", "ada"}, {"MailSecurity", "TLS"}}, 654, 1},
    };
    for (const auto& row : rows) {
        CScriptedServer server({}, Secured(ECertificate::Right));
        RunTraced([&] {
            Set(Submission(server, row.settings));
            EXPECT_EQ(VelMailConnect(), 0);
            EXPECT_EQ(LastError(), row.code) << testing::PrintToString(row.settings);
        });
        server.Stop();
        EXPECT_EQ(server.Connections(), row.connections) << testing::PrintToString(row.settings);
    }
    CScriptedServer clear;
    std::thread([&] {
        Set(Submission(clear, {{"MailAuthLogin", "ada"}, {"MailAuthPassword", "s3cret"}}));
        EXPECT_EQ(VelMailConnect(), 0);
        EXPECT_EQ(LastError(), 669) << "no STARTTLS";
        Set({{"MailSenderMailBox", ""}, {"MailAuthLogin", ""}, {"MailSecurity", "NONE"}});
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), 691);
    }).join();
    EXPECT_FALSE(Has(clear, "MAIL"));
}

TEST(Submission, LogsInAsTheServerAndTheHostWant)
{
    if (!ServesTls()) {
        GTEST_SKIP() << "needs a server with TLS";
    }
    const struct
    {
        const char* mechanism;
        const char* offered;
        int code;
        std::vector<std::string> said; // from AUTH on
    } rows[] = {
        {"", "CRAM-MD5 NTLM LOGIN PLAIN", 0, {"AUTH PLAIN", "AGFkYQBzM2NyZXQ="}},
        {"", "NTLM LOGIN", 0, {"AUTH LOGIN", "YWRh", "czNjcmV0"}},
        {"", "CRAM-MD5 NTLM GSSAPI", 669, {}},
        {"PLAIN", "LOGIN PLAIN", 0, {"AUTH PLAIN", "AGFkYQBzM2NyZXQ="}},
        {"LOGIN", "LOGIN PLAIN", 0, {"AUTH LOGIN", "YWRh", "czNjcmV0"}},
        {"CRAM-MD5", "CRAM-MD5 PLAIN", 0, {"AUTH CRAM-MD5", "YWRhID"}}, // and the digest
        {"XOAUTH2", "XOAUTH2 PLAIN", 0, {"AUTH XOAUTH2", "dXNlcj1hZGEBYXV0aD1CZWFyZXIgczNjcmV0AQE="}},
        {"OAUTHBEARER", "OAUTHBEARER PLAIN", 0, {"AUTH OAUTHBEARER", "bixhPWFkYSwBaG9zdD1sb2NhbGhvc3QB"}},
        {"CRAM-MD5", "PLAIN LOGIN", 669, {}},
        {"XOAUTH2", "PLAIN LOGIN", 669, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.mechanism) + " of " + row.offered);
        CScriptedServer server({}, Secured(ECertificate::Right, false, {std::string("AUTH ") + row.offered}));
        const std::string trace = RunTraced([&] {
            Set(Submission(server, {{"MailAuthMechanism", row.mechanism},
                                    {"MailAuthLogin", "ada"},
                                    {"MailAuthPassword", "s3cret"}}));
            EXPECT_EQ(VelMailConnect(), row.code == 0 ? 1 : 0);
            EXPECT_EQ(LastError(), row.code);
            EXPECT_EQ(VelMailDisconnect(), 1);
        });
        std::vector<std::string> commands = server.Commands();
        commands.erase(commands.begin(), std::ranges::find_if(commands, [](const auto& each) {
                           return each.starts_with("AUTH");
                       }));
        ASSERT_EQ(commands.size(), row.said.empty() ? 0 : row.said.size() + 1) << "and QUIT";
        for (std::size_t i = 0; i < row.said.size(); ++i) {
            EXPECT_TRUE(commands[i].starts_with(row.said[i])) << commands[i];
            EXPECT_TRUE(i == 0 || CountOf(trace, commands[i]) == 0) << commands[i];
        }
        EXPECT_EQ(CountOf(trace, "s3cret"), 0U);
        EXPECT_EQ(CountOf(trace, "Property MailAuthPassword = (set)"), 1U);
        EXPECT_EQ(CountOf(trace, "(login data)") > 0, !row.said.empty());
        EXPECT_GT(CountOf(trace, "250-test\r\n"), 0U) << "what comes before is shown";
    }
}

TEST(Submission, ShowsItsPropertiesOnlyWhereTheyAreUsed)
{
    const std::string trace = RunTraced([] {
        Set({{"MailProtocol", "x"}, {"MailAuthPassword", "s3cret"}});
        EXPECT_EQ(VelMailConnect(), 0);
        Set({{"MailCharset", "UTF-8"}, {"MailSecurity", "NONE"}});
        EXPECT_EQ(VelMailConnect(), 0);
        EXPECT_EQ(VelMailSetProperty("", nullptr), 1);
        for (const char* const name :
             {"MailSecurity", "MailSecurityCAFile", "MailAuthMechanism", "MailCharset"}) {
            EXPECT_EQ(Get(name), "");
        }
        Set({{"MailProtocol", "x"}});
        EXPECT_EQ(VelMailConnect(), 0);
    });
    EXPECT_EQ(CountOf(trace, "propertyset hashtablesize 127 hashtableentries 31\r\n"), 2U);
    EXPECT_EQ(CountOf(trace, "propertyset hashtablesize 127 hashtableentries 33\r\n"), 1U);
    EXPECT_EQ(CountOf(trace, "Property MailCharset = UTF-8\r\n"), 1U);
    EXPECT_EQ(CountOf(trace, "Property MailSecurity = NONE\r\n"), 1U);
    EXPECT_EQ(CountOf(trace, "MailSecurityCAFile =") + CountOf(trace, "MailAuthMechanism ="), 0U);
    EXPECT_EQ(CountOf(trace, "Property MailAuthPassword = s3cret\r\n"), 2U) << "as ever on the other paths";
}

TEST(Submission, KeepsItsConnectionAndReplacesOneThatWillNotDo)
{
    const struct
    {
        const char* name;
        std::vector<CServerRule> script;
        std::size_t connections;
        int code;             // of the second send
        bool dropped = false; // before it
    } rows[] = {
        {"kept", {}, 1, 0},
        {"closed", {}, 2, 0, true},
        {"421", {{.match = "DOT", .nth = 1, .reply = "250 ok\r\n421 bye\r\n", .connection = 1}}, 2, 0},
        {"unread", {{.match = "DOT", .nth = 1, .reply = "250 ok\r\n250 ok\r\n", .connection = 1}}, 2, 0},
        {"refused", {{.match = "MAIL", .nth = 2, .reply = "550 no\r\n", .connection = 1}}, 1, 657},
        {"wants a login", {{.match = "MAIL", .nth = 2, .reply = "530 who?\r\n", .connection = 1}}, 1, 655},
        {"broken at MAIL", {{.match = "MAIL", .nth = 2, .action = Close, .connection = 1}}, 2, 664},
        {"no other one",
         {{.match = "connect", .reply = "554 no\r\n", .action = Close, .connection = 2}},
         3,
         682,
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CScriptedServer server(row.script, Secured(ECertificate::Right));
        const std::string trace = RunTraced([&] {
            Set(Submission(server));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 1);
            if (row.dropped) {
                server.DropConnections();
            }
            EXPECT_EQ(VelMailSend(), row.code == 0 ? 1 : 0);
            EXPECT_EQ(LastError(), row.code);
            EXPECT_EQ(VelMailSend(), 1);
            EXPECT_EQ(VelMailDisconnect(), 1);
        });
        server.Stop();
        EXPECT_EQ(server.Connections(), row.connections);
        EXPECT_EQ(server.Mails().size(), row.code == 0 ? 3U : 2U);
        EXPECT_TRUE(server.EndedWithQuit(row.connections));
        EXPECT_EQ(CountOf(trace, "Error: Setting error "), row.code == 0 ? 0U : 1U);
    }
}

TEST(Submission, TriesEachMessageOfABulkMail)
{
    const struct
    {
        std::vector<CServerRule> script;
        int code;
        std::vector<std::string> reached;
    } rows[] = {{{}, 0, {"a", "b", "c"}},
                {{{.match = "RCPT", .nth = 3, .reply = "550 unknown\r\n"}}, 658, {"a", "c"}},
                {{{.match = "RCPT", .nth = 1, .action = Close, .connection = 1},
                  {.match = "DOT", .nth = 1, .reply = "451 full\r\n", .connection = 2}},
                 664,
                 {"c"}}};
    for (const auto& row : rows) {
        CScriptedServer server(row.script, {.extensions = {"PIPELINING", "SIZE 1000000"}});
        std::thread([&] {
            Set(Submission(server, {{"MailSecurity", "NONE"},
                                    {"UseBulkMail", "1"},
                                    {"MailRecipientsMailBox", "a@host.example;b@host.example;c@host.example"},
                                    {"MailCCRecipientsMailBox", "d@host.example"}}));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), row.code == 0 ? 1 : 0);
            EXPECT_EQ(LastError(), row.code);
            EXPECT_EQ(VelMailDisconnect(), 1);
        }).join();
        std::vector<std::string> reached;
        for (const CReceivedMail& mail : server.Mails()) {
            reached.push_back(mail.recipients.at(0).substr(0, 1));
            EXPECT_EQ(mail.recipients.size(), 2U);
        }
        EXPECT_EQ(reached, row.reached);
    }
}

TEST(Submission, TellsAtOnceWhatCannotBeSent)
{
    const struct
    {
        Settings settings;
        int code;
        std::string words;
    } rows[] = {
        {{{"MailCharset", "UTF-16"}}, 100, "'MailCharset' has a value that cannot be used: UTF-16"},
        {{{"MailAdditionalSMTPHeader", "no field"}}, 100, "'MailAdditionalSMTPHeader', line no field"},
        {{{"MailAdditionalSMTPHeader", "X-A: b\nBCC: c@d"}}, 100, "BCC: c@d: belongs to the library"},
        {{{"MailTextContentType", "html"}}, 100, "content type for the mail text: html"},
        {{{"MailAttachmentFilename", "/etc/hosts"}, {"MailAttachmentMimeType", "pdf"}},
         100,
         "content type for an attachment: pdf"},
        {{{"MailReplyToMailBox", "a@b@c"}}, 662, "MailReplyToMBox a@b@c is not"},
        {{{"MailSenderMailBox", "a b@c"}}, 662, "Mail Sender MailBox a b@c is not"},
        {{{"MailRecipientsMailBox", "a@b>\r\nRCPT TO:<c@d"}}, 662, "can be sent: a@b>  RCPT TO:<c@d"},
        {{{"MailRecipientsMailBox", "a b@c"}}, 662, "can be sent: a b@c"},
        {{{"MailCCRecipientsMailBox", "<a@b>"}}, 662, "can be sent: <a@b>"},
        {{{"MailBCCRecipientsMailBox", "\xE4@host.example"}}, 662, "can be sent: \xE4@host.example"},
        {{{"MailRecipientsMailBox", ""}}, 650, "There is no recipient."},
        {{{"MailRecipientsMailBox", ""}, {"MailCCRecipientsMailBox", "a@b"}, {"UseBulkMail", "1"}},
         650,
         "There is no recipient."},
    };
    for (const auto& row : rows) {
        const CTempFolder jobs;
        CScriptedServer server;
        const std::string trace = RunTraced([&] {
            Set(Submission(server, {{"MailSecurity", "NONE"}, {"MailRecipientCheck", "no"}}));
            Set({{"MailTraceFilename", jobs.Path("job.trc")}});
            Set(row.settings);
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 0);
            EXPECT_EQ(LastError(), row.code) << row.words;
            EXPECT_EQ(VelMailDisconnect(), 1);
        });
        EXPECT_FALSE(Has(server, "MAIL")) << row.words;
        const std::size_t line = trace.find("Error: Setting error ");
        EXPECT_LT(trace.find(row.words, line), trace.find('\n', line)) << row.words;
        const std::string job = ReadFile(std::filesystem::directory_iterator(jobs.Path())->path().string());
        const std::size_t first = job.find(" Error: ");
        EXPECT_LT(job.find(row.words, first), job.find('\n', first)) << row.words << "\n" << job;
    }
}

TEST(Submission, SendsWhatTodaysReadersExpect)
{
    CScriptedServer server;
    RunTraced([&] {
        Set(Submission(server,
                       {{"MailSecurity", "NONE"},
                        {"MailSenderFullName", "J\xFCrgen"},
                        {"MailReplyToMailBox", "fay@host.example"},
                        {"MailReplyToFullName", "Fay"},
                        {"MailBCCRecipientsMailBox", "eve@host.example"},
                        {"MailAttachmentFilename", "a.pdf;b.csv;c"},
                        {"MailAttachmentMimeType", ";image/png"},
                        {"MailAttachmentMemoryAddress", Block("1") + ";" + Block("2") + ";" + Block("3")},
                        {"MailTextContentType", "text/html"}}));
        Set({{"MailTextMemoryAddress", Block("gr\xFC\xDF dich")}});
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
    });
    ASSERT_EQ(server.Mails().size(), 1U);
    const CReceivedMail mail = server.Mails()[0];
    EXPECT_EQ(mail.recipients, (std::vector<std::string>{"bob@host.example", "eve@host.example"}));
    EXPECT_EQ(CountOf(mail.data, "eve"), 0U);
    for (const char* const line :
         {"From: =?UTF-8?Q?J=C3=BCrgen?= <ada@host.example>\r\nReply-To: Fay <fay@host.example>\r\n",
          "Content-Type: text/html; charset=WINDOWS-1252\r\n", "\r\ngr=FC=DF dich\r\n",
          "Content-Type: application/pdf;\r\n name=\"a.pdf\"", "Content-Type: image/png;\r\n name=\"b.csv\"",
          "Content-Type: application/octet-stream;\r\n name=\"c\""}) {
        EXPECT_EQ(CountOf(mail.data, line), 1U) << line << "is not once in\n" << mail.data;
    }
}

TEST(Submission, NeverEndsAMessageThatCannotBeComposed)
{
    for (const char* const transfer : {"8BITMIME", "CHUNKING"}) {
        for (const std::size_t size : {1'000U, 1'000'000U}) {
            const CTempFolder folder;
            const std::string text = folder.Write("letter.txt", std::string(size, '\n'));
            // It gets shorter while the server thinks about the sender.
            CScriptedServer server({{.match = "MAIL",
                                     .nth = 1,
                                     .reply = "250 ok\r\n",
                                     .connection = 1,
                                     .before = [&text] { std::filesystem::resize_file(text, 500); }}},
                                   {.extensions = {transfer}});
            RunTraced([&] {
                Set(Submission(
                    server,
                    {{"MailSecurity", "NONE"}, {"MailTextMemoryAddress", ""}, {"MailTextFilename", text}}));
                EXPECT_EQ(VelMailConnect(), 1);
                EXPECT_EQ(VelMailSend(), 0);
                EXPECT_EQ(LastError(), 695);
                EXPECT_EQ(VelMailSend(), 1);
                EXPECT_EQ(VelMailDisconnect(), 1);
            });
            EXPECT_EQ(server.Connections(), 2U);
            EXPECT_EQ(server.Mails().size(), 1U);
        }
    }
}

TEST(Submission, ServesManyThreadsAtOnce)
{
    constexpr std::size_t kThreads = 8;
    constexpr std::size_t kSends = 5;
    CScriptedServer server({}, Secured(ECertificate::Right, true, {"PIPELINING", "CHUNKING", "AUTH PLAIN"}));
    SetEnvironment("ALL_PROXY", "http://127.0.0.1:1"); // goes through none
    DisturbWithSignals(true);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&server, i] {
            Set(Submission(server, {{"MailSecurity", ServesTls() ? "TLS" : "NONE"},
                                    {"MailAuthLogin", ServesTls() ? "ada" : ""},
                                    {"MailAuthPassword", "s3cret"},
                                    {"MailSenderMailBox", std::to_string(i).append("@host.example")}}));
            EXPECT_EQ(VelMailConnect(), 1);
            for (std::size_t k = 0; k < kSends; ++k) {
                EXPECT_EQ(VelMailSend(), 1);
            }
            if (i % 2 == 0) { // the others' end with their threads
                EXPECT_EQ(VelMailDisconnect(), 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    DisturbWithSignals(false);
    SetEnvironment("ALL_PROXY", nullptr);
    EXPECT_EQ(server.Connections(), kThreads);
    ASSERT_EQ(server.Mails().size(), kThreads * kSends);
    for (const CReceivedMail& mail : server.Mails()) {
        EXPECT_TRUE(mail.data.ends_with("Hello Bob\r\n")) << mail.data;
    }
}

} // namespace
