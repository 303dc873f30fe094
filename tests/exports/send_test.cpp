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
    folder.Write("letter.txt", text);
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
                                             {fromFiles ? "MailTextFilename" : "MailAttachmentMemoryAddress",
                                              fromFiles ? folder.Path("letter.txt") : blocks}})),
                          0);
            }).join();
            ASSERT_EQ(server.Mails().size(), 1U);
            const CReceivedMail mail = server.Mails()[0];
            EXPECT_EQ(mail.viaBdat,
                      TransportSendsChunks() && std::ranges::find(offered, "CHUNKING") != offered.end());
            EXPECT_EQ(mail.reversePath, "ada@host.example");
            EXPECT_EQ(mail.recipients, std::vector<std::string>{"bob@host.example"});
            EXPECT_TRUE(server.EndedWithQuit(1));
            EXPECT_TRUE(BoundaryOf(mail.data).starts_with("velmail")) << mail.data.substr(0, 1000);
            const std::string body = Body(mail.data, fromFiles ? "text/plain" : "", wanted, parts);
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

TEST(Send, ChecksTheMailInItsOrderBeforeAnyConnection)
{
    const CTempFolder folder;
    const std::string missing = folder.Path("missing");
    const std::string attached = "Cannot open file  (Property 'MailAttachmentFilename'): ";
    struct
    {
        Settings settings;
        int code;
        std::string line; // of the job protocol
    } const rows[] = {
        {{{"MailSenderMailBox", ""}, {"MailSubject", ""}},
         691,
         "Property 'MailSenderMailBox' has to be set."},
        {{{"MailSenderMailBox", "a b@c"}}, 662, "The eMail address  of the Mail Sender MailBox a b@c is not"},
        {{{"MailRecipientsMailBox", ""}}, 650, "Receiver could not be added, check mail address"},
        {{{"MailCCRecipientsMailBox", "a@b.c;d"}}, 650, "Receiver could not be added, check mail address"},
        {{{"MailReplyToMailBox", "x"}}, 662, "The eMail address  of the MailReplyToMBox x is not a correct"},
        {{{"MailSubject", ""}, {"MailTextMemoryAddress", ""}}, 651, "Property 'MailSubject' must not be"},
        {{{"MailAttachmentFilename", missing}}, 659, attached + missing},
        {{{"MailAttachmentFilename", folder.Path()}}, 659, attached},
        {{{"MailAttachmentFilename", "/dev/null"}}, 659, attached},
        {{{"MailAttachmentFilename", "NUL"}}, 659, attached}, // another system's
        {{{"MailAttachmentFilename", "a;b"}, {"MailAttachmentMemoryAddress", Block("x")}},
         659,
         "Number of attachments in memory 1 is not equal to number of names (Property "
         "'MailAttachmentFilename'): 2"},
        {{{"MailAttachmentFilename", "a"}, {"MailAttachmentMemoryAddress", "0;5"}},
         659,
         "Error in Attachment Memory Adresses  (Property 'MailAttachmentMemoryAddress'): 0;5"},
        {{{"MailTextMemoryAddress", "12"}}, 695, "Error in Mail Text Memory Adresses  (Property"},
        {{{"MailTextMemoryAddress", ""}, {"MailTextFilename", missing}},
         695,
         "Cannot open file  (Property 'MailTextFilename'): " + missing},
        {{{"MailTextMemoryAddress", ""}}, 652, "Mail contains no text. Property 'MailTextFilename' and"},
        {{{"MailWorkSpace", missing}, {"MailTextMemoryAddress", ""}}, 118, "Mail contains"},
    };
    for (const auto& row : rows) {
        CScriptedServer server;
        const std::string trace = RunTraced([&] {
            Set(SmallMail(server.Port(), row.settings));
            Set({{"MailTraceFilename", folder.Path("job.log")}});
            ASSERT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 0);
            EXPECT_EQ(LastError(), row.code) << row.line;
            EXPECT_EQ(VelMailDisconnect(), 1) << row.line;
        });
        EXPECT_EQ(server.Connections(), 0U) << row.line;
        EXPECT_NE(trace.find("Error: Setting error " + std::to_string(row.code)), std::string::npos) << trace;
        std::string protocol;
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            protocol += ReadFile(entry.path().string());
            std::filesystem::remove(entry.path());
        }
        EXPECT_EQ(CountOf(protocol, "Error: " + row.line), 1U) << row.line << "\n" << protocol;
        EXPECT_TRUE(protocol.ends_with("Trace closed.\r\n")) << row.line;
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

TEST(Send, NeverWrapsAPortThatIsNone)
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

// The file is cut, or goes away, between the check and the composition: nothing torn may be delivered.
TEST(Send, NeverEndsAMailThatCouldNotBeComposed)
{
    const std::vector<std::vector<std::string>> extensions = {{}, {"CHUNKING"}};
    for (const auto& offered : extensions) {
        for (const std::string part : {"text", "attachment"}) {
            for (const bool removed : {false, true}) {
#if defined(__SANITIZE_ADDRESS__)
                if (removed && part == "text" && !offered.empty()) {
                    continue; // the transport loses a buffer of its own when the first chunk of BDAT fails
                }
#endif
                const CTempFolder folder;
                const std::string file = folder.Write("file", std::string(500'000, 'x'));
                const auto harm = [&] {
                    removed ? (void)std::filesystem::remove(file)
                            : std::filesystem::resize_file(file, 400'000);
                };
                CScriptedServer server(
                    {{.match = "MAIL", .reply = "250 ok\r\n", .connection = 1, .before = harm}},
                    {.extensions = offered});
                std::thread([&] {
                    Set(SmallMail(server.Port(),
                                  part == "text"
                                      ? Settings{{"MailTextMemoryAddress", ""}, {"MailTextFilename", file}}
                                      : Settings{{"MailAttachmentFilename", file}}));
                    ASSERT_EQ(VelMailConnect(), 1);
                    EXPECT_EQ(VelMailSend(), 0);
                    EXPECT_EQ(VelMailSend(), 0) << "the code surfaces here";
                    EXPECT_EQ(LastError(), removed ? 121 : part == "text" ? 695 : 696);
                    Set(SmallMail(server.Port(), {{"MailAttachmentFilename", ""}}));
                    EXPECT_EQ(SendAndDisconnect(), 0);
                }).join();
                EXPECT_EQ(server.Mails().size(), 1U) << "the second mail alone";
                EXPECT_EQ(server.Connections(), 2U);
            }
        }
    }
}

// As an attachment, and as a text the thread's own trace.
TEST(Send, DeliversOfGrowingFilesWhatTheCheckSaw)
{
    const CTempFolder folder;
    const CTempFolder traces;
    const std::string file = folder.Write("growing", "Man");
    CScriptedServer server({{.match = "MAIL", .reply = "250 ok\r\n", .before = [&] {
                                 (void)folder.Write("growing", "ManSun");
                             }}});
    SetEnvironment("VEL_MAILTRACE", traces.Path("host.log").c_str());
    std::string trace;
    std::thread([&] {
        EXPECT_EQ(VelMailSetProperty("MailSubject", ""), 1); // opens it
        trace = std::filesystem::directory_iterator(traces.Path())->path().string();
        EXPECT_EQ(Deliver(SmallMail(server.Port(), {{"MailTextMemoryAddress", ""},
                                                    {"MailTextFilename", trace},
                                                    {"MailAttachmentFilename", file}})),
                  0);
    }).join();
    SetEnvironment("VEL_MAILTRACE", nullptr);
    ASSERT_EQ(server.Mails().size(), 1U);
    const std::string data = server.Mails()[0].data;
    const std::string head = "Content-Transfer-Encoding: 8bit\r\n\r\n";
    const std::size_t begin = data.find(head) + head.size();
    const std::string sent = data.substr(begin, data.find("\r\n--" + BoundaryOf(data), begin) - begin);
    EXPECT_GT(sent.size(), 1000U);
    EXPECT_EQ(sent, ReadFile(trace).substr(0, sent.size()));
    EXPECT_TRUE(data.ends_with("\r\n\r\n" + Body(data, "text/plain", sent, {{"growing", "Man"}}))) << data;
}

TEST(Send, ResolvesNamesInTheWorkSpaceAndComesBack)
{
    const CTempFolder folder;
    folder.Write("page.html", "<p>Hello</p>\n");
    const std::filesystem::path before = std::filesystem::current_path();
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        EXPECT_EQ(Deliver(SmallMail(server.Port(), {{"MailWorkSpace", folder.Path()},
                                                    {"MailTextMemoryAddress", ""},
                                                    {"MailTextFilename", "page.html"}})),
                  0);
    });
    EXPECT_EQ(std::filesystem::current_path(), before);
    ASSERT_EQ(server.Mails().size(), 1U);
    EXPECT_NE(server.Mails()[0].data.find("\r\nContent-Type: text/html; charset=ISO-8859-1\r\n"),
              std::string::npos);
    EXPECT_EQ(CountOf(trace, "    Working directory: " + folder.Path() + "\r\n"), 1U);
    EXPECT_EQ(CountOf(trace, "File: Current directory changed to '"), 2U);
}

TEST(Send, ServesThreadsAtOnceEachWithItsOwnMail)
{
    CScriptedServer server;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 8; ++i) {
        threads.emplace_back([&server, i] {
            for (unsigned k = 0; k < 10; ++k) {
                const std::string text = Groups(1000, 100 * i + k);
                EXPECT_EQ(Deliver(SmallMail(server.Port(), {{"MailSubject", text},
                                                            {"MailTextMemoryAddress", Block(text)},
                                                            {"MailAttachmentFilename", "part"},
                                                            {"MailAttachmentMemoryAddress", Block(text)}})),
                          0);
            }
        });
    }
    std::ranges::for_each(threads, &std::thread::join);
    std::set<std::string> subjects;
    std::set<std::string> ids;
    for (const CReceivedMail& mail : server.Mails()) {
        const std::string subject = FieldOf(mail.data, "Subject");
        subjects.insert(subject);
        ids.insert(FieldOf(mail.data, "Message-Id"));
        const std::string body = Body(mail.data, "", subject, {{"part", subject}});
        EXPECT_TRUE(mail.data.ends_with("\r\n\r\n" + body)) << mail.data;
    }
    EXPECT_EQ(server.Mails().size(), 80U);
    EXPECT_EQ(subjects.size(), 80U);
    EXPECT_EQ(ids.size(), 80U);
}

} // namespace
