// The layer for C++: what it adds to the ten functions, against a scripted server.
#include <array>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "host.h"
#include "smtpserver.h"
#include "system.h"
#include "velmail.hpp"

namespace {
using velmail::Attachment;
using velmail::Mail;
using velmail::ResultConnection;

velmail::Settings At(const std::string& port)
{
    velmail::Settings settings;
    settings.server = "127.0.0.1";
    settings.port = port;
    return settings;
}

Mail Letter()
{
    Mail mail;
    mail.from = "ada@host.example";
    mail.to = {{"bob@host.example", "Bob"}};
    mail.subject = "Hello";
    mail.text = "text\n";
    return mail;
}

TEST(CppLayer, RefusesWhatWouldBecomeAnotherMail)
{
    const CTempFolder folder;
    const auto part = folder.Write("part.bin", "x");
    const struct
    {
        void (*change)(Mail& mail);
        int code;
    } rows[] = {
        {[](Mail& mail) { mail.to = {"bob@host.example;eve@host.example"}; }, 100},
        {[](Mail& mail) {
             mail.cc = {{"bob@host.example", "Doe; Jane"}};
         },
         100},
        {[](Mail& mail) { mail.subject += '\0'; }, 100},
        {[](Mail& mail) { mail.attachments = {Attachment::Memory("x", "a;b")}; }, 100},
        {[](Mail& mail) { mail.attachments = {Attachment::Memory("x", "a", "text/plain; a=b")}; }, 100},
        {[](Mail& mail) { mail.headers = "X-A: 1"; }, 100},
        {[](Mail& mail) { mail.attachments = {Attachment::File("missing")}; }, 659},
        {[](Mail& mail) { mail.attachments = {Attachment::File("missing", "renamed")}; }, 659},
        {[](Mail& mail) { mail.to.clear(); }, 650},
        {[](Mail& mail) { mail.subject.clear(); }, 651}};
    CScriptedServer server;
    std::thread([&] {
        auto connection = ResultConnection::Open(At(server.Port()));
        ASSERT_TRUE(connection);
        for (const auto& row : rows) {
            Mail mail = Letter();
            row.change(mail);
            const auto sent = connection->Send(mail);
            ASSERT_FALSE(sent) << &row - rows;
            EXPECT_EQ(sent.Failure().Code(), row.code) << sent.Failure().what();
        }
        EXPECT_TRUE(connection->Send(Letter())) << "nothing of them is left";
    }).join();
    EXPECT_EQ(server.Mails().size(), 1U);
    EXPECT_EQ(server.Connections(), 1U);
}

TEST(CppLayer, HasOneConnectionForAThread)
{
    CScriptedServer server;
    std::thread([&] {
        char state[15];
        EXPECT_EQ(VelMailGetProperty("MailAvailable", state, sizeof state),
                  1); // leaves a code, where there is no client
        velmail::Connection first(At(server.Port()));
        EXPECT_THROW(velmail::Connection(At(server.Port())), velmail::Error);
        velmail::Connection connection(std::move(first));
        std::thread([&] {
            EXPECT_THROW(connection.Send(Letter()), velmail::Error);
            velmail::Connection(At(server.Port())).Send(Letter());
        }).join();
        connection.Send(Letter());
    }).join();
    EXPECT_EQ(server.Mails().size(), 2U);
    std::thread([&] {
        velmail::Settings settings = At(server.Port());
        for (const auto& [name, code] : {std::pair("MailProtocol", 656), {"MailSubjekt", 99}}) {
            settings.properties = {{name, "x"}};
            const auto connection = ResultConnection::Open(settings);
            ASSERT_FALSE(connection);
            EXPECT_EQ(connection.Failure().Code(), code);
        }
        velmail::Connection(At(server.Port())).Send(Letter()); // and the thread is free again
    }).join();
    EXPECT_EQ(server.Mails().size(), 3U);
}

TEST(CppLayer, TellsCodesWhereverTheySurface)
{
    CScriptedServer server({{.match = "MAIL", .action = EServerAction::Close, .connection = 1}});
    std::thread([&] {
        SetUserLanguage("de_DE.UTF-8");
        velmail::Settings settings = At(server.Port());
        settings.properties = {{"MailRecipientCheck", "0"}};
        velmail::Connection connection(settings);
        try {
            connection.Send(Letter());
            ADD_FAILURE() << "It was not sent.";
        } catch (const velmail::Error& error) {
            EXPECT_STREQ(error.what(), "send: error 664: Verbindung abgebrochen");
        }
        Mail mail = Letter();
        mail.to.emplace_back("", "Eve"); // left out, and the code comes late beside the success
        const velmail::Sent sent = connection.Send(mail);
        EXPECT_EQ(sent.code, 650);
        EXPECT_EQ(sent.sentence, "Kein Empf\xC3\xA4nger angegeben");
        SetUserLanguage(nullptr);
    }).join();
    EXPECT_EQ(server.Mails().size(), 1U);
}

TEST(CppLayer, ReportsAndCancels)
{
    bool known = false;
    std::thread([&] {
        char size[12];
        known = VelMailGetProperty("MailProgressMemoryAddress", size, 0) != 0;
    }).join();
    if (!known) {
        GTEST_SKIP() << "a library without it";
    }
    CScriptedServer server({{.match = "RCPT", .nth = 2, .reply = "550 no\r\n", .connection = 1},
                            {.match = "RCPT", .reply = "550 no\r\n", .connection = 2}});
    std::thread([&] {
        auto connection = ResultConnection::Open(At(server.Port()));
        ASSERT_TRUE(connection);
        Mail mail = Letter();
        mail.to.emplace_back("eve@host.example");
        velmail::Progress progress;
        auto sent = connection->Send(mail, &progress);
        ASSERT_TRUE(sent);
        EXPECT_NE(sent->report.find("\n550 eve@host.example no\n"), std::string::npos) << sent->report;
        EXPECT_EQ(progress.Done(), mail.text.size());
        EXPECT_EQ(progress.Total(), mail.text.size());
        sent = connection->Send(mail);
        ASSERT_FALSE(sent) << "refused for everybody";
        EXPECT_EQ(sent.Failure().Code(), 62);
        EXPECT_EQ(CountOf(sent.Failure().Report(), "550 "), 2U);
        progress.Cancel();
        sent = connection->Send(mail, &progress);
        ASSERT_FALSE(sent);
        EXPECT_EQ(sent.Failure().Code(), 151);
    }).join();
    EXPECT_EQ(server.Mails().size(), 1U);
}

TEST(CppLayer, AttachesFilesAndMemoryOfAnyKind)
{
    const CTempFolder folder;
    const std::string file = folder.Write("file.bin", "Man");
    const std::string odd = folder.Write("a;b", "SunMan");
    const std::vector<std::uint16_t> words{0x4141};
    const std::array<unsigned char, 3> bytes{'M', 'a', 'n'};
    const struct
    {
        std::vector<Attachment> attachments;
        std::vector<std::string> parts;
    } rows[] = {{{Attachment::File(file), Attachment::File(file, "", "a/b")},
                 {R"(Content-Type: text/plain; name="file.bin")", R"(Content-Type: a/b; name="file.bin")",
                  "\r\nTWFu\r\n"}},
                {{Attachment::File(odd, "renamed"), Attachment::File(file)},
                 {R"("renamed")", "\r\nU3VuTWFu\r\n", R"("file.bin")"}},
                {{Attachment::Memory(words, "words"), Attachment::Memory(bytes, "bytes"),
                  Attachment::Memory(std::string(3, '!'), "kept"), Attachment::Memory("Sun", "literal")},
                 {R"("words")", "\r\nQUE=\r\n", "\r\nTWFu\r\n", "\r\nISEh\r\n", "\r\nU3Vu\r\n"}},
                {{}, {}}};
    CScriptedServer server;
    std::thread([&] {
        velmail::Connection connection(At(server.Port()));
        for (const auto& row : rows) {
            Mail mail = Letter();
            mail.attachments = row.attachments;
            mail.contentType = row.parts.empty() ? "text/plain; CharSet=KOI8-R" : "text/html";
            connection.Send(mail);
            const std::string got = server.Mails().back().data;
            EXPECT_EQ(CountOf(got, "Content-Disposition"), row.attachments.size());
            EXPECT_NE(got.find(row.parts.empty() ? "\r\nContent-Type: text/plain; charset=KOI8-R\r\n"
                                                 : "\r\nContent-Type: text/html; charset=UTF-8\r\n"),
                      std::string::npos);
            for (const std::string& part : row.parts) {
                EXPECT_NE(got.find(part), std::string::npos) << part << got;
            }
        }
        EXPECT_EQ(Get("MailTextMemoryAddress") + Get("MailAttachmentMemoryAddress"), "")
            << "its memory may be gone";
    }).join();
}

} // namespace
