// Delivery to a submission server through the exports: settings, certificates, logins, kept connections.
#include <algorithm>
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
        const char* reason = ""; // in the error line
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
        {{{"MailSecurityCAFile", ""}}, 654, 1, "self-signed certificate; trusted are those of the system"},
        {{{"MailServer", "127.0.0.1"}}, 654, 1, "subject name matches target host name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.settings));
        CScriptedServer server({}, Secured());
        const std::string trace = RunTraced([&] {
            Set(Submission(server, row.settings));
            EXPECT_EQ(VelMailConnect(), 0);
            EXPECT_EQ(LastError(), row.code);
            EXPECT_EQ(VelMailSend(), 0);
            EXPECT_EQ(LastError(), 697) << "not where the host could not connect";
        });
        server.Stop();
        EXPECT_EQ(server.Connections(), row.connections);
        EXPECT_FALSE(Has(server, "AUTH"));
        const std::size_t line = trace.find("Error: Setting error " + std::to_string(row.code) + " (");
        EXPECT_LT(trace.find(row.reason, line), trace.find('\n', line)) << trace;
    }
    CScriptedServer clear;
    std::thread([&] {
        Set(Submission(clear, {{"MailAuthLogin", "ada"}, {"MailAuthPassword", "s3cret"}}));
        EXPECT_EQ(VelMailConnect(), 0);
        EXPECT_EQ(LastError(), 669) << "no STARTTLS";
    }).join();
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
        CScriptedServer server({}, Secured(false, {std::string("AUTH ") + row.offered}));
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
        CScriptedServer server(row.script, Secured());
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

} // namespace
