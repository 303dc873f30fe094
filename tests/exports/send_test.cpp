// Building, composing and delivering mails through the exports, against a scripted server.
#include <algorithm>
#include <array>
#include <clocale>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "mime.h"
#include "smtpserver.h"
#include "system.h"
#include "velmail.h"

namespace {

std::string Bytes(std::size_t count)
{
    std::string bytes(count, '\0');
    std::uint32_t value = 12345;
    for (char& byte : bytes) {
        value = value * 1664525U + 1013904223U;
        byte = static_cast<char>(value >> 24U);
    }
    return bytes;
}

std::string BoundaryOf(const std::string& message)
{
    const std::string type = SplitMessage(message).Values("Content-Type").at(0);
    const std::size_t start = type.find('"') + 1;
    return type.substr(start, type.size() - start - 1);
}

// Everything is checked against the bytes that arrived; a fault of the dialogue shows as a missing mail.
TEST(Send, DeliversTextAndAttachmentsToTheByte)
{
    const std::string text = "Dear Bob\n\n.a dot\r\n.\r\nlone \r stays\nlast line without end";
    const std::string wantedText = "Dear Bob\r\n\r\n.a dot\r\n.\r\nlone \r stays\r\nlast line without end";
    const std::vector<std::string> contents = {"", Bytes(57), Bytes(58), Bytes(300'000)};
    const CTempFolder folder;
    folder.Write("letter.txt", text);
    std::string files;
    std::string blocks;
    for (std::size_t i = 0; i < contents.size(); ++i) {
        files += folder.Write("part" + std::to_string(i) + ".bin", contents[i]) + ";";
        blocks += Block(contents[i]) + ";";
    }
    const std::vector<std::vector<std::string>> extensions = {
        {}, {"PIPELINING"}, {"CHUNKING"}, {"CHUNKING", "PIPELINING"}};
    for (const bool fromFiles : {true, false}) {
        for (const auto& offered : extensions) {
            CScriptedServer server({}, {.extensions = offered});
            std::thread([&] {
                Set(SmallMail(server.Port()));
                Set({{"MailAttachmentFilename", files}, {"MailAttachmentMimeType", ";a/b"}});
                Set(fromFiles ? Settings{{"MailTextMemoryAddress", ""},
                                         {"MailTextFilename", folder.Path("letter.txt")}}
                              : Settings{{"MailTextMemoryAddress", Block(text)},
                                         {"MailAttachmentMemoryAddress", blocks}});
                ASSERT_EQ(VelMailConnect(), 1);
                EXPECT_EQ(SendAndDisconnect(), 0);
            }).join();
            ASSERT_EQ(server.Mails().size(), 1U);
            const CReceivedMail mail = server.Mails()[0];
            EXPECT_EQ(mail.viaBdat,
                      TransportSendsChunks() && std::ranges::find(offered, "CHUNKING") != offered.end());
            EXPECT_EQ(mail.reversePath, "ada@host.example");
            EXPECT_EQ(mail.recipients, std::vector<std::string>{"bob@host.example"});
            EXPECT_TRUE(server.EndedWithQuit(1));

            const std::string boundary = BoundaryOf(mail.data);
            EXPECT_TRUE(boundary.starts_with("velmail"));
            const CMessageText message = SplitMessage(mail.data);
            const std::string type = fromFiles ? "text/plain" : "";
            const std::string head = "MIME-Version: 1.0\r\n--" + boundary + "\r\nContent-Type: " + type +
                                     "; charset=ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\n";
            // The attachment without a byte leaves its line end alone.
            ASSERT_EQ(message.body.substr(0, head.size() + wantedText.size() + 4),
                      head + wantedText + "\r\n\r\n");
            const CMultipart parts = SplitMultipart(message.body, boundary);
            EXPECT_TRUE(parts.closed);
            EXPECT_EQ(parts.epilogue, "\r\n");
            ASSERT_EQ(parts.parts.size(), contents.size());
            for (std::size_t i = 1; i < contents.size(); ++i) {
                const std::string name = "part" + std::to_string(i) + ".bin";
                const std::string partType = i == 1 ? "a/b" : "text/plain";
                EXPECT_EQ(parts.parts[i].first, "Content-Type: " + partType + "; name=\"" + name +
                                                    "\"\r\nContent-Transfer-Encoding: "
                                                    "base64\r\nContent-Disposition: inline; filename=\"" +
                                                    name + "\"");
                EXPECT_TRUE(DecodeBase64(parts.parts[i].second) == contents[i]) << name;
            }
            EXPECT_EQ(parts.parts[1].second.size(), 78U) << "57 bytes are one full line";
            EXPECT_EQ(parts.parts[2].second.substr(76),
                      "\r\n" + parts.parts[2].second.substr(78, 2) + "==\r\n");
        }
    }
}

TEST(Send, WritesHeaderFieldsAndEnvelope)
{
    const std::string chapter(1500, 'n');
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        const CTempFolder folder;
        Set(SmallMail(server.Port()));
        Set({{"MailSenderFullName", "Ada\r\n\nX: injected"},
             {"MailSubject", "Two\r\nlines"},
             {"MailRecipientsMailBox", "bob@host.example;eve@host.example"},
             {"MailRecipientsFullName", "Bob"},
             {"MailCCRecipientsMailBox", "carol@host.example"},
             {"MailBCCRecipientsMailBox", "dan@host.example"},
             {"MailReplyToMailBox", "reply@host.example"},
             {"MailTextContentType", "text/html; charset=UTF-8"},
             {"MailAdditionalSMTPHeader", "X-Extra: no"},
             {"MailAttachmentFilename", "C:\\a/" + chapter + ".txt"},
             {"MailAttachmentMemoryAddress", Block("Hello")}});
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 1);
        Set({{"MailRecipientsMailBox", ""}, {"MailRecipientsFullName", ""}, {"MailRecipientCheck", "no"}});
        EXPECT_EQ(SendAndDisconnect(), 0);
    });
    ASSERT_EQ(server.Mails().size(), 2U);
    const CReceivedMail mail = server.Mails()[0];
    EXPECT_EQ(mail.recipients, (std::vector<std::string>{"bob@host.example", "eve@host.example",
                                                         "carol@host.example", "dan@host.example"}));
    const CMessageText message = SplitMessage(mail.data);
    const std::vector<std::pair<std::string, std::string>> fields = {
        {"From", "\"Ada X: injected\" <ada@host.example>"},
        {"Subject", "Two lines"},
        {"To", "\"Bob\" <bob@host.example>, \"\" <eve@host.example>"},
        {"Cc", "\"\" <carol@host.example>"},
        {"Bcc", "\"\" <dan@host.example>"},
        {"Reply-To", "\"\" <reply@host.example>"},
        {"X-User-Agent", "VEL Mail 1.3.2"},
        {"X-MIME-Version", "1.0"}};
    for (const auto& [name, value] : fields) {
        EXPECT_EQ(message.Values(name), std::vector<std::string>{value}) << name;
    }
    EXPECT_TRUE(message.Values("X").empty());
    EXPECT_TRUE(message.Values("X-Extra").empty());
    EXPECT_NE(message.body.find(
                  "\r\nContent-Type: text/html; charset=UTF-8\r\nContent-Transfer-Encoding: 8bit\r\n"),
              std::string::npos);
    const CMultipart parts = SplitMultipart(message.body, BoundaryOf(mail.data));
    ASSERT_EQ(parts.parts.size(), 2U);
    EXPECT_NE(parts.parts[1].first.find("; name=\"" + chapter + ".txt\"\r\n"), std::string::npos);
    EXPECT_EQ(DecodeBase64(parts.parts[1].second), "Hello");

    EXPECT_TRUE(SplitMessage(server.Mails()[1].data).Values("To").empty());
    EXPECT_EQ(BoundaryOf(server.Mails()[1].data), BoundaryOf(mail.data));
    EXPECT_EQ(CountOf(trace, "Warning: Line ends in property 'MailSubject' are replaced by blanks."), 2U);
    EXPECT_EQ(CountOf(trace, "Warning: Property 'MailAdditionalSMTPHeader' is not sent."), 2U);
    EXPECT_EQ(CountOf(trace, "SMTP session is made anew"), 0U);
    EXPECT_NE(trace.find(" bytes to server: \nRCPT TO:<bob@host.example>\r\n"), std::string::npos);
    EXPECT_NE(trace.find("received 16 bytes from server: \n220 test ESMTP\r\n"), std::string::npos);
    EXPECT_NE(trace.find("\nSubject: Two lines\r\n"), std::string::npos);
}

TEST(Send, SendsOneMessageForEachRecipientOnlyForTheValueOne)
{
    for (const char* const bulk : {"1", "2"}) {
        CScriptedServer server;
        std::thread([&] {
            Set(SmallMail(server.Port()));
            Set({{"UseBulkMail", bulk},
                 {"MailRecipientsMailBox", "a@host.example;b@host.example"},
                 {"MailCCRecipientsMailBox", "c@host.example"}});
            ASSERT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), 0);
        }).join();
        const std::vector<CReceivedMail> mails = server.Mails();
        ASSERT_EQ(mails.size(), *bulk == '1' ? 2U : 1U);
        EXPECT_EQ(mails.back().recipients.back(), "c@host.example");
        EXPECT_EQ(SplitMessage(mails.back().data).Values("To")[0],
                  *bulk == '1' ? "\"\" <b@host.example>" : "\"\" <a@host.example>, \"\" <b@host.example>");
    }
}

// What a refused message leaves unread must not begin the next one.
TEST(Send, KeepsTheMessagesOfABulkMailApart)
{
    for (const char* const step : {"RCPT", TransportSendsChunks() ? "BDAT" : "DATA"}) {
        CScriptedServer server({{.match = step, .nth = 1, .reply = "550 no\r\n"}},
                               {.extensions = {"CHUNKING"}});
        std::thread([&] {
            Set(SmallMail(server.Port()));
            Set({{"UseBulkMail", "1"}, {"MailRecipientsMailBox", "a@host.example;b@host.example"}});
            ASSERT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), 0);
        }).join();
        ASSERT_EQ(server.Mails().size(), 1U) << step;
        const std::string data = server.Mails()[0].data;
        EXPECT_EQ(server.Mails()[0].recipients, std::vector<std::string>{"b@host.example"});
        EXPECT_TRUE(SplitMessage(data).body.starts_with("MIME-Version: 1.0\r\n--velmail")) << data;
        EXPECT_EQ(SplitMultipart(SplitMessage(data).body, BoundaryOf(data)).parts.size(), 1U) << data;
    }
}

TEST(Send, ChecksTheMailInItsOrderBeforeAnyConnection)
{
    const CTempFolder folder;
    const std::string missing = folder.Path("missing");
    struct
    {
        const char* name;
        Settings settings;
        int code;
        std::string line; // of the job protocol
    } const rows[] = {
        {"no sender",
         {{"MailSenderMailBox", ""}, {"MailSubject", ""}},
         691,
         "Error: Property 'MailSenderMailBox' has to be set. There is no sender."},
        {"bad sender",
         {{"MailSenderMailBox", "a b@c"}},
         662,
         "Error: The eMail address  of the Mail Sender MailBox a b@c is not a correct eMail address."},
        {"no recipient",
         {{"MailRecipientsMailBox", ""}},
         650,
         "Error: Receiver could not be added, check mail address"},
        {"bad copy",
         {{"MailCCRecipientsMailBox", "a@b.c;d"}},
         650,
         "Error: Receiver could not be added, check mail address"},
        {"bad reply-to",
         {{"MailReplyToMailBox", "x"}},
         662,
         "Error: The eMail address  of the MailReplyToMBox x is not a correct eMail address."},
        {"no subject",
         {{"MailSubject", ""}, {"MailTextMemoryAddress", ""}},
         651,
         "Error: Property 'MailSubject' must not be empty. Your mail may be recognized as spam."},
        {"missing attachment",
         {{"MailAttachmentFilename", missing}},
         659,
         "Error: Cannot open file  (Property 'MailAttachmentFilename'): " + missing},
        {"folder as attachment",
         {{"MailAttachmentFilename", folder.Path()}},
         659,
         "Error: Cannot open file "},
        {"device as attachment", {{"MailAttachmentFilename", "/dev/null"}}, 659, "Error: Cannot open file "},
        {"another's device", {{"MailAttachmentFilename", "NUL"}}, 659, "Error: Cannot open file "},
        {"name without block",
         {{"MailAttachmentFilename", "a;b"}, {"MailAttachmentMemoryAddress", Block("x")}},
         659,
         "Error: Number of attachments in memory 1 is not equal to number of names (Property "
         "'MailAttachmentFilename'): 2"},
        {"bad blocks",
         {{"MailAttachmentFilename", "a"}, {"MailAttachmentMemoryAddress", "0;5"}},
         659,
         "Error: Error in Attachment Memory Adresses  (Property 'MailAttachmentMemoryAddress'): 0;5"},
        {"odd text blocks",
         {{"MailTextMemoryAddress", "12"}},
         695,
         "Error: Error in Mail Text Memory Adresses  (Property 'MailTextMemoryAddress'): 12"},
        {"negative text length",
         {{"MailTextMemoryAddress", "12;-1"}},
         695,
         "Error: Error in Mail Text Memory"},
        {"missing text",
         {{"MailTextMemoryAddress", ""}, {"MailTextFilename", missing}},
         695,
         "Error: Cannot open file  (Property 'MailTextFilename'): " + missing},
        {"no text",
         {{"MailTextMemoryAddress", ""}},
         652,
         "Error: Mail contains no text. Property 'MailTextFilename' and 'MailTextMemoryAddress' not set."},
        {"bad work space",
         {{"MailWorkSpace", missing}, {"MailTextMemoryAddress", ""}},
         118,
         "Error: Mail contains"},
    };
    for (const auto& row : rows) {
        CScriptedServer server;
        const std::string job = folder.Path("job.log");
        const std::string trace = RunTraced([&] {
            Set(SmallMail(server.Port()));
            Set(row.settings);
            Set({{"MailTraceFilename", job}});
            ASSERT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 0);
            EXPECT_EQ(LastError(), row.code) << row.name;
            EXPECT_EQ(VelMailDisconnect(), 1) << row.name;
        });
        EXPECT_EQ(server.Connections(), 0U) << row.name;
        EXPECT_NE(trace.find("Error: Setting error " + std::to_string(row.code)), std::string::npos) << trace;
        std::string protocol;
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            protocol += ReadFile(entry.path().string());
            std::filesystem::remove(entry.path());
        }
        EXPECT_NE(protocol.find(row.line), std::string::npos) << row.name << "\n" << protocol;
        EXPECT_TRUE(protocol.ends_with("Trace closed.\r\n")) << row.name;
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
        Set(SmallMail(server.Port()));
        Set({{"MailRecipientCheck", "0"},
             {"MailRecipientsMailBox", "a>\r\nRSET\r\n@x;not checked;" + std::string(1001, 'l') + "@x"},
             {"MailRecipientsFullName", "one;two;three;a name alone"},
             {"MailBCCRecipientsMailBox", ";dan@host.example"}});
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 1) << "the others are served";
        EXPECT_EQ(VelMailDisconnect(), 0);
        EXPECT_EQ(LastError(), 650);
    });
    ASSERT_EQ(server.Mails().size(), 1U);
    EXPECT_EQ(server.Mails()[0].recipients, (std::vector<std::string>{"not checked", "dan@host.example"}));
    EXPECT_EQ(SplitMessage(server.Mails()[0].data).Values("To")[0], "\"two\" <not checked>");
    EXPECT_EQ(CountOf(trace, "Possibly invalid Recipient string >>>  <<<"), 1U);
    EXPECT_EQ(CountOf(trace,
                      "Additional error 693 (Failed to add BCC Recipient to message! Possibly invalid BCC "
                      "Recipient string >>>  <<<) in src/smtpmailmessage("),
              1U);
    EXPECT_TRUE(std::ranges::none_of(server.Commands(),
                                     [](const std::string& line) { return line.starts_with("RSET"); }));
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
                    Set(SmallMail(server.Port()));
                    Set(part == "text" ? Settings{{"MailTextMemoryAddress", ""}, {"MailTextFilename", file}}
                                       : Settings{{"MailAttachmentFilename", file}});
                    ASSERT_EQ(VelMailConnect(), 1);
                    EXPECT_EQ(VelMailSend(), 0);
                    EXPECT_EQ(VelMailSend(), 0) << "the code surfaces here";
                    EXPECT_EQ(LastError(), removed ? 121 : part == "text" ? 695 : 696);
                    Set(SmallMail(server.Port()));
                    Set({{"MailAttachmentFilename", ""}});
                    EXPECT_EQ(SendAndDisconnect(), 0);
                }).join();
                EXPECT_EQ(server.Mails().size(), 1U) << "the second mail alone";
                EXPECT_EQ(server.Connections(), 2U);
            }
        }
    }
}

TEST(Send, DeliversOfAGrowingFileWhatTheCheckSaw)
{
    const CTempFolder folder;
    const std::string file = folder.Write("growing", "first");
    CScriptedServer server({{.match = "MAIL", .reply = "250 ok\r\n", .before = [&] {
                                 (void)folder.Write("growing", "first and more");
                             }}});
    std::thread([&] {
        Set(SmallMail(server.Port()));
        Set({{"MailAttachmentFilename", file}});
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
    }).join();
    ASSERT_EQ(server.Mails().size(), 1U);
    const std::string data = server.Mails()[0].data;
    EXPECT_EQ(DecodeBase64(SplitMultipart(SplitMessage(data).body, BoundaryOf(data)).parts.at(1).second),
              "first");
}

TEST(Send, ResolvesNamesInTheWorkSpaceAndComesBack)
{
    const CTempFolder folder;
    folder.Write("page.html", "<p>Hello</p>\n");
    const std::filesystem::path before = std::filesystem::current_path();
    CScriptedServer server;
    const std::string trace = RunTraced([&] {
        Set(SmallMail(server.Port()));
        Set({{"MailWorkSpace", folder.Path()},
             {"MailTextMemoryAddress", ""},
             {"MailTextFilename", "page.html"}});
        ASSERT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
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
    constexpr int kThreads = 8;
    constexpr int kMailsEach = 10;
    CScriptedServer server;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&server, i] {
            const std::string name = "thread" + std::to_string(i);
            for (int k = 0; k < kMailsEach; ++k) {
                const std::string text = name + " mail " + std::to_string(k) + "\n" +
                                         std::string(3000, static_cast<char>('a' + i));
                Set(SmallMail(server.Port()));
                Set({{"MailSubject", name + "/" + std::to_string(k)},
                     {"MailTextMemoryAddress", Block(text)},
                     {"MailAttachmentFilename", name},
                     {"MailAttachmentMemoryAddress", Block(text)}});
                ASSERT_EQ(VelMailConnect(), 1);
                EXPECT_EQ(SendAndDisconnect(), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<std::string> subjects;
    std::set<std::string> ids;
    for (const CReceivedMail& mail : server.Mails()) {
        const CMessageText message = SplitMessage(mail.data);
        const std::string subject = message.Values("Subject").at(0);
        subjects.insert(subject);
        ids.insert(message.Values("Message-Id").at(0));
        const CMultipart parts = SplitMultipart(message.body, BoundaryOf(mail.data));
        const std::size_t slash = subject.find('/');
        const std::string text = subject.substr(0, slash) + " mail " + subject.substr(slash + 1);
        EXPECT_EQ(parts.parts.at(0).second.substr(0, text.size()), text);
        EXPECT_EQ(DecodeBase64(parts.parts.at(1).second).value_or("").substr(0, text.size()), text);
    }
    EXPECT_EQ(server.Mails().size(), static_cast<std::size_t>(kThreads * kMailsEach));
    EXPECT_EQ(subjects.size(), server.Mails().size());
    EXPECT_EQ(ids.size(), server.Mails().size());
}

} // namespace
