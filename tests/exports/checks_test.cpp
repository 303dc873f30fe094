// What the checks of a send say of a mail that cannot be sent, before anything of it reaches a server.
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "velmail.h"

namespace {

const Settings kSubmission = {{"MailProtocol", "SUBMISSION"}, {"MailSecurity", "NONE"}};

struct Row
{
    Settings settings;
    int code;
    std::string words; // in an error line of the job's protocol
};

void Check(const Row& row, const Settings& path)
{
    SCOPED_TRACE(row.words + testing::PrintToString(row.settings));
    const CTempFolder jobs;
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        Set(SmallMail(server.Port(), path));
        Set({{"MailTraceFilename", jobs.Path("job.trc")}});
        Set(row.settings);
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), row.code);
        EXPECT_EQ(VelMailDisconnect(), 1);
    });
    if (path.empty()) {
        EXPECT_EQ(server.Connections(), 0U);
    }
    for (const std::string& command : server.Commands()) {
        EXPECT_FALSE(command.starts_with("MAIL"));
    }
    const std::size_t line = trace.find("Error: Setting error " + std::to_string(row.code));
    ASSERT_NE(line, std::string::npos) << trace;
    if (!path.empty()) {
        EXPECT_LT(trace.find(row.words, line), trace.find('\n', line)) << trace;
    }
    const std::string job = ReadFile(std::filesystem::directory_iterator(jobs.Path())->path().string());
    std::istringstream lines(job);
    std::size_t count = 0;
    for (std::string each; std::getline(lines, each);) {
        count += CountOf(each, " Error: ") > 0 ? CountOf(each, row.words) : 0;
    }
    EXPECT_EQ(count, 1U) << job;
    EXPECT_TRUE(job.ends_with("Trace closed.\r\n")) << job;
}

TEST(Checks, TellInTheirOrderWhatIsWrongWithAMail)
{
    const CTempFolder folder;
    const std::string missing = folder.Path("missing");
    const std::string attached = "Cannot open file  (Property 'MailAttachmentFilename'): ";
    const Settings oneBlock = {{"MailAttachmentFilename", "a;b"},
                               {"MailAttachmentMemoryAddress", Block("x")}};
    const Row rows[] = {
        {{{"MailSenderMailBox", ""}, {"MailSubject", ""}}, 691, "'MailSenderMailBox' has to be set."},
        {{{"MailSenderMailBox", "a b@c"}}, 662, "address  of the Mail Sender MailBox a b@c is not"},
        {{{"MailRecipientsMailBox", ""}}, 650, "Receiver could not be added, check mail address"},
        {{{"MailCCRecipientsMailBox", "a@b.c;d"}}, 650, "Receiver could not be added, check mail"},
        {{{"MailReplyToMailBox", "x"}}, 662, "address  of the MailReplyToMBox x is not a correct"},
        {{{"MailSubject", ""}, {"MailTextMemoryAddress", ""}}, 651, "'MailSubject' must not be"},
        {{{"MailAttachmentFilename", missing}}, 659, attached + missing},
        {{{"MailAttachmentFilename", folder.Path()}}, 659, attached},
        {{{"MailAttachmentFilename", "/dev/null"}}, 659, attached},
        {{{"MailAttachmentFilename", "NUL"}}, 659, attached}, // another system's
        {oneBlock, 659, "in memory 1 is not equal to number of names (Property 'MailAttachmentFilename'): 2"},
        {{{"MailAttachmentFilename", "a"}, {"MailAttachmentMemoryAddress", "0;5"}}, 659, "Address'): 0;5"},
        {{{"MailTextMemoryAddress", "12"}}, 695, "Error in Mail Text Memory Adresses  (Property"},
        {{{"MailTextMemoryAddress", ""}, {"MailTextFilename", missing}}, 695, "TextFilename'): " + missing},
        {{{"MailTextMemoryAddress", ""}}, 652, "Mail contains no text. Property 'MailTextFilename' and"},
        {{{"MailWorkSpace", missing}, {"MailTextMemoryAddress", ""}}, 118, "Mail contains"},
    };
    for (const Row& row : rows) {
        Check(row, {});
    }
    const Settings badType = {{"MailAttachmentFilename", "/etc/hosts"}, {"MailAttachmentMimeType", "pdf"}};
    const auto unchecked = [](Settings settings) {
        settings["MailRecipientCheck"] = "no";
        return settings;
    };
    const Row submissionRows[] = {
        {{{"MailCharset", "UTF-16"}}, 100, "'MailCharset' has a value that cannot be used: UTF-16"},
        {{{"MailAdditionalSMTPHeader", "no field"}}, 100, "'MailAdditionalSMTPHeader', line no field"},
        {{{"MailAdditionalSMTPHeader", "X-A: b\nBCC: c@d"}}, 100, "BCC: c@d: belongs to the library"},
        {{{"MailTextContentType", "html"}}, 100, "content type for the mail text: html"},
        {badType, 100, "content type for an attachment: pdf"},
        {{{"MailReplyToMailBox", "a@b@c"}}, 662, "MailReplyToMBox a@b@c is not"},
        {{{"MailSenderMailBox", "a b@c"}}, 662, "Mail Sender MailBox a b@c is not"},
        {unchecked({{"MailRecipientsMailBox", "a@b>\r\nRCPT TO:<c@d"}}), 662, "sent: a@b>  RCPT TO:<c@d"},
        {unchecked({{"MailBCCRecipientsMailBox", "\xE4@host.example"}}), 662, "sent: \xE4@host.example"},
        {unchecked({{"MailRecipientsMailBox", ""}}), 650, "There is no recipient."},
        {unchecked({{"MailRecipientsMailBox", ""}, {"MailCCRecipientsMailBox", "a@b"}, {"UseBulkMail", "1"}}),
         650, "There is no recipient."},
    };
    for (const Row& row : submissionRows) {
        Check(row, kSubmission);
    }
}

// "|" stands between the values.
TEST(Checks, AcceptWhatMayStandInAStandardMessage)
{
    const std::string a998(998, 'a');
    const struct
    {
        const char* property;
        int code;
        std::string values;
    } groups[] = {
        {"MailAdditionalSMTPHeader", 0,
         "|X-A: b\r\n|X-A: b\nX-B:\n c\n\td|Received-SPF: b\nContent: c\nTo-Do: d|X-A: " + a998.substr(5) +
             "|X-A: \xfc " + a998 + a998 + "|X-A: \xfc\n " + a998 + a998},
        {"MailAdditionalSMTPHeader", 100,
         "X-A: " + a998.substr(4) + "|" + a998 + ": \xfc|no field|: x|X A: x|X-A : x|X-\xfc: x| X-A: x|" +
             "X-A: x\n\nbody|X-A: x\n \n|X-A: x\rBcc: y|X-A: x\r\r\nX-B: y|X-A: x\x01|" +
             "X-A: x\nbCC: y|CONTENT-Foo: x|Mime-Version: 1.0|from: x|Date: x|sender-x: y\nTO: y|Cc: y|" +
             "Subject: y|message-id: <y>|Reply-To: y|X-User-Agent: y|Return-Path: y|Received: y|" +
             "Resent-Bcc: y"},
        {"MailCharset", 0, "|utf-8|Windows-1252|iso-8859-1"},
        {"MailCharset", 100, "UTF8|UTF-16|UTF-8 "},
        {"MailRecipientsMailBox", 0, "a@host.example|a@[127.0.0.1]|root|" + std::string(320, 'a')},
        {"MailRecipientsMailBox", 662,
         "\xfc@host.example|a@h\xc3\xbcst.example|a@host>, <b@host|a@host,b@host|a@host\r\nBcc: b@host|"
         "a b@host|a\x7f@host|<a@b>|" +
             std::string(321, 'a')},
        {"MailTextContentType", 0,
         "|text/plain;| text/html ;charset=x ; b=\"c;\\\"d\";;e=f|application/x+y.z"},
        {"MailTextContentType", 100,
         "html|text/|/plain|text/plain charset=x|text/plain; charset|text/plain; charset=|"
         "text/plain; charset = x|text/plain; a=b; A=c|text/plain; a=\"b|text/plain; a=\"b\\|text/plain; "
         "a=\xfc|text/plain\r\nBcc: x|text/<x>|text/plain; a=" +
             a998},
        {"multipart", 0, "--x\r\n\r\na\r\n--x--"}, // its text, which cannot be encoded
        {"multipart", 100, "--x\r\n\r\n\xfc\r\n--x--|" + a998 + "a"},
    };
    for (const auto& group : groups) {
        std::istringstream values(group.values + "|");
        for (std::string value; std::getline(values, value, '|');) {
            SCOPED_TRACE(group.property + std::string(": ") + testing::PrintToString(value));
            CScriptedServer server;
            std::thread([&] {
                Set(SmallMail(server.Port(), kSubmission));
                Set({{"MailRecipientCheck", "no"}});
                if (group.property == std::string("multipart")) {
                    Set({{"MailTextContentType", "multipart/alternative; boundary=x"},
                         {"MailTextMemoryAddress", Block(value)}});
                } else {
                    Set({{group.property, value}});
                }
                EXPECT_EQ(VelMailConnect(), 1);
                EXPECT_EQ(VelMailSend(), group.code == 0 ? 1 : 0);
                EXPECT_EQ(LastError(), group.code);
                EXPECT_EQ(VelMailDisconnect(), 1);
            }).join();
            EXPECT_EQ(server.Mails().size(), group.code == 0 ? 1U : 0U);
        }
    }
}

// No port may wrap around to the one where the server listens.
TEST(Checks, RefuseAPortThatIsNone)
{
    CScriptedServer server;
    for (const std::string& port :
         {std::string("0"), std::string("-1"), std::string("99999"),
          std::to_string(std::stoi(server.Port()) + 65536), std::string("9").append(30, '9')}) {
        const std::string trace = RunTraced([&] { EXPECT_EQ(Deliver(SmallMail(port)), 678) << port; });
        EXPECT_EQ(CountOf(trace, "Error: The port " + port + " is none"), 1U);
    }
    EXPECT_EQ(server.Connections(), 0U);
}

} // namespace
