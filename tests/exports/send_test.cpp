// Building, composing and delivering mails through the exports, against a scripted server.
#include <algorithm>
#include <array>
#include <clocale>
#include <filesystem>
#include <regex>
#include <set>
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

// A text that says which part of it is which, of groups that are easy to encode.
std::string Groups(std::size_t count, unsigned seed)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        seed = seed * 1664525U + 1013904223U;
        text += seed >> 31U != 0 ? "Man" : "Sun";
    }
    return text;
}

std::string Base64Lines(std::string groups)
{
    for (const auto& [group, digits] : {std::pair("Man", "TWFu"), {"Sun", "U3Vu"}, {"!$", "IQ=="}}) {
        groups = std::regex_replace(groups, std::regex(group), digits);
    }
    return std::regex_replace(groups, std::regex(".{1,76}"), "$&\r\n");
}

struct Part
{
    std::string name, content, type = "text/plain";
};

// What follows the header.
std::string Body(const std::string& message, const std::string& type, const std::string& text,
                 const std::vector<Part>& parts)
{
    const std::string line = "--" + BoundaryOf(message);
    std::string body = "MIME-Version: 1.0\r\n" + line + "\r\nContent-Type: " + type +
                       "; charset=ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + text + "\r\n";
    for (const Part& part : parts) { // one without a byte leaves its line end alone
        body += part.content.empty() ? "\r\n"
                                     : line + "\r\nContent-Type: " + part.type + "; name=\"" + part.name +
                                           "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: "
                                           "inline; filename=\"" +
                                           part.name + "\"\r\n\r\n" + Base64Lines(part.content) + "\r\n";
    }
    return body + line + "--\r\n";
}

TEST(Send, DeliversTextAndAttachmentsToTheByte)
{
    const std::string text = "Dear Bob\n\n.a dot\r\n.\r\nlone \r stays\nlast line without end";
    const std::string wanted = "Dear Bob\r\n\r\n.a dot\r\n.\r\nlone \r stays\r\nlast line without end";
    const std::vector<Part> parts = {
        {"none", ""}, {"57", Groups(19, 1), "a/b"}, {"58", Groups(19, 2) + "!"}, {"all", Groups(30'000, 3)}};
    const CTempFolder folder;
    folder.Write("letter.html", text);
    const std::filesystem::path before = std::filesystem::current_path();
    std::string files;
    std::string blocks;
    for (const Part& part : parts) {
        files += folder.Write(part.name, part.content) + ";";
        blocks += Block(part.content) + ";";
    }
    const std::vector<std::vector<std::string>> extensions = {
        {}, {"PIPELINING"}, {"CHUNKING"}, {"CHUNKING", "PIPELINING"}};
    for (const bool fromFiles : {true, false}) {
        for (const auto& offered : extensions) {
            CScriptedServer server({}, {.extensions = offered});
            std::thread([&] {
                EXPECT_EQ(Deliver(SmallMail(server.Port(),
                                            {{"MailAttachmentFilename", files},
                                             {"MailAttachmentMimeType", ";a/b"},
                                             {"MailTextMemoryAddress", fromFiles ? "" : Block(text)},
                                             {"MailWorkSpace", fromFiles ? folder.Path() : ""},
                                             {fromFiles ? "MailTextFilename" : "MailAttachmentMemoryAddress",
                                              fromFiles ? "letter.html" : blocks}})),
                          0);
            }).join();
            EXPECT_EQ(std::filesystem::current_path(), before);
            ASSERT_EQ(server.Mails().size(), 1U);
            const CReceivedMail mail = server.Mails()[0];
            EXPECT_EQ(mail.viaBdat,
                      TransportSendsChunks() && std::ranges::find(offered, "CHUNKING") != offered.end());
            EXPECT_EQ(mail.reversePath, "ada@host.example");
            EXPECT_EQ(mail.recipients, std::vector<std::string>{"bob@host.example"});
            EXPECT_TRUE(server.EndedWithQuit(1));
            EXPECT_TRUE(BoundaryOf(mail.data).starts_with("velmail")) << mail.data.substr(0, 1000);
            const std::string body = Body(mail.data, fromFiles ? "text/html" : "", wanted, parts);
            EXPECT_TRUE(mail.data.ends_with("\r\n\r\n" + body)) << mail.data.substr(0, 5000);
        }
    }
}

TEST(Send, WritesHeaderFieldsAndEnvelope)
{
    const std::string chapter(1500, 'n');
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        const CTempFolder folder;
        Set(SmallMail(server.Port(), {{"MailSenderFullName", "Ada\r\n\nX: injected"},
                                      {"MailSubject", "Two\r\nlines"},
                                      {"MailRecipientsMailBox", "bob@host.example;eve@host.example"},
                                      {"MailRecipientsFullName", "Bob"},
                                      {"MailCCRecipientsMailBox", "carol@host.example"},
                                      {"MailBCCRecipientsMailBox", "dan@host.example"},
                                      {"MailReplyToMailBox", "reply@host.example"},
                                      {"UseBulkMail", "2"}, // of no meaning
                                      {"MailTextContentType", "text/html; charset=UTF-8"},
                                      {"MailAdditionalSMTPHeader", "X-Extra: no"},
                                      {"MailAttachmentFilename", "C:\\a/" + chapter + ".txt"},
                                      {"MailAttachmentMemoryAddress", Block("ManSun")}}));
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 1);
        Set({{"UseBulkMail", "1"}});
        EXPECT_EQ(VelMailSend(), 1);
        Set({{"MailRecipientsMailBox", ""},
             {"MailRecipientsFullName", ""},
             {"MailRecipientCheck", "no"},
             {"UseBulkMail", ""}});
        EXPECT_EQ(SendAndDisconnect(), 0);
    });
    ASSERT_EQ(server.Mails().size(), 4U);
    const CReceivedMail mail = server.Mails()[0];
    EXPECT_EQ(mail.recipients, (std::vector<std::string>{"bob@host.example", "eve@host.example",
                                                         "carol@host.example", "dan@host.example"}));
    const std::pair<const char*, std::string> fields[] = {
        {"From", "\"Ada X: injected\" <ada@host.example>"},
        {"Subject", "Two lines"},
        {"To", "\"Bob\" <bob@host.example>, \"\" <eve@host.example>"},
        {"Cc", "\"\" <carol@host.example>"},
        {"Bcc", "\"\" <dan@host.example>"},
        {"Reply-To", "\"\" <reply@host.example>"},
        {"X-User-Agent", "VEL Mail 1.3.2"},
        {"X-MIME-Version", "1.0"},
        {"X", ""},
        {"X-Extra", ""}};
    for (const auto& [name, value] : fields) {
        EXPECT_EQ(FieldOf(mail.data, name), value) << name;
        EXPECT_LE(CountOf(mail.data, std::string("\r\n") + name + ": "), 1U) << name;
    }
    EXPECT_TRUE(mail.data.ends_with(
        "\r\n\r\n" +
        std::regex_replace(Body(mail.data, "text/html", "Hello Bob\r\n", {{chapter + ".txt", "ManSun"}}),
                           std::regex("ISO-8859-1"), "UTF-8")))
        << mail.data;
    for (const std::size_t i : {0U, 1U}) { // each alone, in bulk mails
        const CReceivedMail each = server.Mails()[i + 1];
        EXPECT_EQ(FieldOf(each.data, "To"),
                  i == 0 ? "\"Bob\" <bob@host.example>" : "\"\" <eve@host.example>");
        EXPECT_EQ(each.recipients,
                  (std::vector<std::string>{mail.recipients[i], "carol@host.example", "dan@host.example"}));
    }
    EXPECT_EQ(FieldOf(server.Mails()[3].data, "To"), "");
    EXPECT_EQ(BoundaryOf(server.Mails()[3].data), BoundaryOf(mail.data));
    EXPECT_EQ(CountOf(trace, "Warning: Line ends in property 'MailSubject' are replaced by blanks."), 3U);
    EXPECT_EQ(CountOf(trace, "Warning: Property 'MailAdditionalSMTPHeader' is not sent."), 3U);
    EXPECT_EQ(CountOf(trace, "SMTP session is made anew"), 0U);
    EXPECT_NE(trace.find(" bytes to server: \nRCPT TO:<bob@host.example>\r\n"), std::string::npos);
    EXPECT_NE(trace.find("received 16 bytes from server: \n220 test ESMTP\r\n"), std::string::npos);
    EXPECT_NE(trace.find("\nSubject: Two lines\r\n"), std::string::npos);
}

// A file changes between the check and the composition: nothing torn may be delivered.
TEST(Send, NeverEndsAMailThatCouldNotBeComposed)
{
    std::string content(450'000, '\n');
    for (std::size_t i = 900; i < content.size(); i += 900) {
        content.replace(i - 899, 898, 898, 'x');
    }
    const struct
    {
        bool text; // or an attachment
        std::size_t size;
        std::string becomes; // empty: it goes away
        int code, submissionCode;
    } rows[] = {{true, content.size(), "", 121, 121},
                {true, content.size(), content.substr(0, 400'000), 695, 695},
                {true, content.size(), "\xFC" + content, 0, 695}, // no plain text any more
                {true, content.size(), std::string(content.size(), 'x'), 0, 695},
                {true, content.size(), content + "#more", 0, 0}, // what the check saw is sent
                {false, content.size(), content + "#more", 0, 0},
                {true, 1000, "short", 695, 695},
                {false, content.size(), "", 121, 121},
                {false, content.size(), content.substr(0, 400'000), 696, 696},
                {false, content.size(), "\xFC" + content, 0, 0}};
    for (const auto& row : rows) {
        for (const bool submission : {false, true}) {
            for (const char* const offered : {"8BITMIME", "CHUNKING"}) {
                const int code = submission ? row.submissionCode : row.code;
#if defined(__SANITIZE_ADDRESS__)
                if (!submission && code != 0 && row.text && offered[0] == 'C' &&
                    (row.becomes.empty() || row.size == 1000)) {
                    continue; // the transport loses a buffer of its own when the first chunk of BDAT fails
                }
#endif
                SCOPED_TRACE(std::to_string(&row - rows) + offered + (submission ? " submission" : ""));
                const CTempFolder folder;
                const std::string file = folder.Write("file", content.substr(0, row.size));
                const auto change = [&] {
                    std::filesystem::remove(file);
                    if (!row.becomes.empty()) {
                        (void)folder.Write("file", row.becomes);
                    }
                };
                CScriptedServer server(
                    {{.match = "MAIL", .nth = 1, .reply = "250 ok\r\n", .connection = 1, .before = change}},
                    {.extensions = {offered}});
                std::thread([&] {
                    Set(SmallMail(server.Port(), {{"MailProtocol", submission ? "SUBMISSION" : ""},
                                                  {"MailSecurity", submission ? "NONE" : ""}}));
                    Set({{row.text ? "MailTextFilename" : "MailAttachmentFilename", file},
                         {row.text ? "MailTextMemoryAddress" : "MailSubject", row.text ? "" : "s"}});
                    ASSERT_EQ(VelMailConnect(), 1);
                    EXPECT_EQ(VelMailSend(), code == 0 ? 1 : 0);
                    if (code != 0 && !submission) {
                        EXPECT_EQ(VelMailSend(), 0) << "the code surfaces here";
                    }
                    EXPECT_EQ(LastError(), code);
                    Set({{"MailAttachmentFilename", ""}, {"MailTextMemoryAddress", Block("whole")}});
                    EXPECT_EQ(SendAndDisconnect(), 0);
                }).join();
                ASSERT_EQ(server.Mails().size(), code == 0 ? 2U : 1U) << "the second mail at least";
                for (const char* const more : {"#more", "I21v"}) { // as it is, and encoded
                    EXPECT_EQ(CountOf(server.Mails()[0].data, more), 0U);
                }
                EXPECT_EQ(server.Connections(), code == 0 && submission ? 1U : 2U);
            }
        }
    }
}

TEST(Send, AnswersWithoutServiceAndWithoutProtocol)
{
    std::thread([] {
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), 10);
        Set({{"MailTraceFilename", "/missing/folder/job.log"}});
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), 17);
    }).join();
}

TEST(Send, RefusesMailboxesThatWouldSpoilTheDialogue)
{
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        Set(SmallMail(server.Port(), {{"MailRecipientCheck", "0"},
                                      {"MailRecipientsMailBox",
                                       "a>\r\nRSET\r\n@x;\"not > checked\\\"\"@x;" + std::string(1001, 'l') +
                                           "@x;a@b.c> BODY=8BITMIME;<a@b.c;a b@c;\"a\\\"@b;\"a\" b@c"},
                                      {"MailRecipientsFullName", "one;two;three;4;5;6;7;8;a name alone"},
                                      {"MailBCCRecipientsMailBox", ";dan@host.example"}}));
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 1) << "the others are served";
        EXPECT_EQ(VelMailDisconnect(), 0);
        EXPECT_EQ(LastError(), 650);
    });
    ASSERT_EQ(server.Mails().size(), 1U);
    EXPECT_EQ(server.Mails()[0].recipients,
              (std::vector<std::string>{"\"not > checked\\\"\"@x", "dan@host.example"}));
    EXPECT_EQ(FieldOf(server.Mails()[0].data, "To"), "\"two\" <\"not > checked\\\"\"@x>");
    EXPECT_EQ(CountOf(trace, "Error: Current error: 650. Additional error 650 (Failed to add Recipient "),
              7U);
    EXPECT_EQ(CountOf(trace, "Possibly invalid Recipient string >>>  <<<"), 1U);
    EXPECT_EQ(CountOf(trace,
                      "Additional error 693 (Failed to add BCC Recipient to message! Possibly invalid BCC "
                      "Recipient string >>>  <<<) in src/smtpmailmessage("),
              1U);
    EXPECT_TRUE(std::ranges::none_of(server.Commands(),
                                     [](const std::string& line) { return line.starts_with("RSET"); }));
}

TEST(Send, ServesThreadsAtOnceEachWithItsOwnMail)
{
    constexpr std::size_t kThreads = 8;
    constexpr std::size_t kSends = 8;
    SetEnvironment("ALL_PROXY", "http://127.0.0.1:1"); // goes through none
    for (const bool submission : {false, true}) {
        DisturbWithSignals(submission); // the transport gives up where a signal interrupts it
        CScriptedServer server({}, submission ? Secured(true, {"PIPELINING", "CHUNKING", "AUTH PLAIN"})
                                              : CServerOptions{});
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                Set(submission ? Submission(server, {{"MailSecurity", ServesTls() ? "TLS" : "NONE"},
                                                     {"MailAuthLogin", ServesTls() ? "ada" : ""},
                                                     {"MailAuthPassword", "s3cret"}})
                               : SmallMail(server.Port()));
                EXPECT_EQ(VelMailConnect(), 1);
                for (unsigned k = 0; k < kSends; ++k) {
                    const std::string text = Groups(300, 100 * i + k);
                    Set({{"MailSubject", text},
                         {"MailTextMemoryAddress", Block(text)},
                         {"MailAttachmentFilename", "part"},
                         {"MailAttachmentMemoryAddress", Block(text)}});
                    EXPECT_EQ(VelMailSend(), 1);
                }
                if (i % 2 == 0) { // the others' end with their threads
                    EXPECT_EQ(VelMailDisconnect(), 1);
                }
            });
        }
        std::ranges::for_each(threads, &std::thread::join);
        std::set<std::string> texts;
        std::set<std::string> ids;
        for (const CReceivedMail& mail : server.Mails()) {
            const std::size_t at = mail.data.find("\r\n\r\n", mail.data.find("Content-Transfer-Encoding: "));
            const std::string text = mail.data.substr(at + 4, 900);
            texts.insert(text);
            ids.insert(FieldOf(mail.data, submission ? "Message-ID" : "Message-Id"));
            EXPECT_EQ(CountOf(mail.data, Base64Lines(text)), 1U) << mail.data;
        }
        EXPECT_EQ(server.Mails().size(), kThreads * kSends);
        EXPECT_EQ(texts.size(), kThreads * kSends);
        EXPECT_EQ(ids.size(), kThreads * kSends);
        EXPECT_EQ(server.Connections(), submission ? kThreads : kThreads * kSends);
    }
    DisturbWithSignals(false);
    SetEnvironment("ALL_PROXY", nullptr);
}

} // namespace
