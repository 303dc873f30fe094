// Properties, errors, versions and the call frame, as a host sees them.
#include <array>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host.h"
#include "system.h"
#include "velmail.h"

namespace {

TEST(Exports, RefuseNullPointersAndKeepBuffersTerminated)
{
    unsigned int version = 0;
    EXPECT_EQ(VelMailGetVersion(nullptr), 0);
    EXPECT_EQ(VelMailGetVersion(&version), 1);
    EXPECT_EQ(version, 16973826U);

    std::array<char, 8> text = {'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(VelMailGetVersionText(nullptr, 5), 0);
    EXPECT_EQ(VelMailGetVersionText(text.data(), 0), 0);
    EXPECT_EQ(VelMailGetVersionText(text.data(), 5), 1);
    EXPECT_EQ(std::string(text.data(), 6), std::string("VEL \0x", 6));
    EXPECT_EQ(VelMailGetLastError(nullptr), 0);
    EXPECT_EQ(VelMailGetErrorText(650, nullptr, 100), 0);
    EXPECT_EQ(VelMailGetLastErrorText(nullptr, 100), 0);
    EXPECT_EQ(VelMailGetProperty(nullptr, text.data(), text.size()), 0);
    EXPECT_EQ(VelMailSetProperty("MailSubject", nullptr), 1);
    EXPECT_EQ(VelMailSetProperty("UseBulkMail", nullptr), 1);
}

TEST(Exports, GiveErrorTextsWholeOrNotAtAllInTheUsersLanguage)
{
    struct
    {
        const char* language;
        int code, size, result;
        const char* text;
    } const rows[] = {{"C", 17, 23, 1, "No access to tracefile"},
                      {"C", 17, 22, 0, ""},
                      {"C", 17, 0, 0, ""},
                      {"C", 17, -5, 0, ""},
                      {"C", 0, 100, 1, "All operations completed successfully"},
                      {"C", 176, 100, 1, "Function not supported by the mail client (MAPI)"},
                      {"C", 1, 100, 0, ""},
                      {"C", -1, 100, 0, ""},
                      {"en_US.UTF-8", 650, 100, 1, "No recipient specified"},
                      {"den_CA", 650, 100, 1, "No recipient specified"},
                      {"den_CA", 920, 100, 1, "Function not available"},
                      {"de_DE.UTF-8", 650, 100, 1, "Kein Empf\xE4nger angegeben"},
                      {"de", 650, 100, 1, "Kein Empf\xE4nger angegeben"},
                      {"de", 920, 100, 0, ""}}; // it has no German text
    for (const auto& row : rows) {
        std::thread([&row] {
            SetUserLanguage(row.language);
            std::array<char, 100> buffer = {'?'};
            EXPECT_EQ(VelMailGetErrorText(row.code, buffer.data(), row.size), row.result)
                << row.language << row.code << ", " << row.size;
            EXPECT_STREQ(buffer.data(), row.text) << row.language << row.code << ", " << row.size;
            SetUserLanguage(nullptr);
        }).join();
    }
}

TEST(Exports, ReadPropertiesByTheirKind)
{
    std::thread([] {
        std::array<char, 32> buffer = {};
        int number = -1;
        Set({{"MailSubject", "Hello"}, {"UseBulkMail", "2"}});
        EXPECT_EQ(VelMailGetProperty("MailSubject", buffer.data(), 5), 0);
        EXPECT_EQ(LastError(), 47);
        EXPECT_STREQ(buffer.data(), "");
        EXPECT_EQ(VelMailGetProperty("MailSubject", buffer.data(), 0x80000000U), 0);
        EXPECT_EQ(LastError(), 47);
        EXPECT_EQ(VelMailGetProperty("MailSubject", nullptr, 6), 0);
        EXPECT_EQ(LastError(), 29);
        EXPECT_EQ(VelMailGetProperty("MailSubject", buffer.data(), 0), 1) << "the size alone";
        EXPECT_STREQ(buffer.data(), "6");
        EXPECT_EQ(VelMailGetProperty("MailSubject", buffer.data(), 6), 1);
        EXPECT_STREQ(buffer.data(), "Hello");
        EXPECT_EQ(VelMailGetProperty("UseBulkMail", &number, sizeof number), 1);
        EXPECT_EQ(number, 2);
        EXPECT_EQ(VelMailSetProperty("mailsubject", "x"), 0);
        EXPECT_EQ(LastError(), 0) << "an unknown name has no code";
        EXPECT_EQ(VelMailSetProperty("MailAvailable", "x"), 0);
    }).join();
}

TEST(Exports, ResetToDefaultsThatAFreshThreadDoesNotHave)
{
    std::thread([] {
        const Settings reset = {{"MailServerPort", "25"},
                                {"MailSubject", ""},
                                {"MailRecipientsMailBox", ""},
                                {"MailRecipientCheck", "1"}};
        int dialog = -1;
        EXPECT_EQ(Get("MailServerPort"), "");
        EXPECT_EQ(VelMailGetProperty("MailDialog", &dialog, sizeof dialog), 1);
        EXPECT_EQ(dialog, 0);
        Set({{"MailSubject", "x"}, {"MailRecipientsMailBox", "a@b.c;d@e.f"}, {"MailRecipientCheck", "no"}});
        EXPECT_EQ(VelMailSetProperty("", "ignored"), 1);
        EXPECT_EQ(VelMailGetProperty("MailDialog", &dialog, sizeof dialog), 1);
        EXPECT_EQ(dialog, 1);
        for (const auto& [name, value] : reset) {
            EXPECT_EQ(Get(name.c_str()), value) << name;
        }
    }).join();
}

TEST(Exports, ReportTheMissingMailClientAtTheNextCall)
{
    const std::string trace = RunTraced([] {
        std::array<char, 16> state = {};
        EXPECT_EQ(VelMailGetProperty("MailAvailable", state.data(), 14), 0);
        EXPECT_EQ(LastError(), 47);
        EXPECT_EQ(VelMailGetProperty("MailAvailable", state.data(), 15), 1);
        EXPECT_STREQ(state.data(), "MailNone");
        EXPECT_EQ(VelMailSetProperty("MailProtocol", "MAPI"), 0);
        EXPECT_EQ(LastError(), 60);

        Set({{"MailProtocol", "MAPI"}});
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 0);
        EXPECT_EQ(LastError(), 60);
        EXPECT_EQ(VelMailDisconnect(), 1);
        EXPECT_EQ(VelMailDisconnect(), 0);
        EXPECT_EQ(LastError(), 0) << "no connection is no error";
    });
    const std::pair<const char*, std::size_t> lines[] = {
        {"Mapi dll not found", 2},
        {"Warning: VelMailSetProperty(): Beginne mit Fehlercode 60", 1},
        {"Warning: VelMailSend(): Beginne mit Fehlercode 60", 1},
        {"Warning: Mail service not found.", 1},
        {"Setting error 47 in src/propmail(", 1}};
    for (const auto& [line, count] : lines) {
        EXPECT_EQ(CountOf(trace, line), count) << line;
    }
}

TEST(Exports, DumpTheLiveSetAndFilterByLevel)
{
    const auto host = [] {
        Set({{"MailProtocol", "smtp"}, {"MailSubject", std::string(450, 's')}});
        EXPECT_EQ(VelMailConnect(), 0);
        EXPECT_EQ(LastError(), 656);
    };
    const std::string all = RunTraced(host);
    EXPECT_EQ(all.substr(0, 5), "   1 ");
    EXPECT_NE(all.find(" VEL job Version 1.3.2/MT M15 64 (0x01030002) vom "), std::string::npos);
    EXPECT_LT(all.find("propertyset hashtablesize 127 hashtableentries 31"), all.find("Setting error 656"));
    EXPECT_NE(all.find("Property MailSubject = " + std::string(450, 's') + "...\r\n"), std::string::npos);
    EXPECT_NE(all.find("Property MailAvailable = (null)\r\n"), std::string::npos);
    EXPECT_LT(all.find("Property MailAdditionalSMTPHeader"), all.find("Property UseBulkMail"));
    EXPECT_TRUE(all.ends_with("Trace closed.\r\n"));

    const std::string errors = RunTraced(host, "ERROR");
    EXPECT_EQ(CountOf(errors, "\r\n"), 3U) << "the head and two errors: " << errors;
    const std::string text = "Unknown mail protocol given in property 'MailProtocol': 'smtp'";
    EXPECT_EQ(CountOf(errors, "Error: " + text), 1U);
    EXPECT_EQ(CountOf(errors, "(" + text + ") in src/connect("), 1U);
}

TEST(Exports, FailWith17WhileNoTraceFileCanBeOpened)
{
    const CTempFolder folder;
    SetEnvironment("VEL_MAILTRACE", folder.Path("missing/host.log").c_str());
    std::thread([&folder] {
        int code = 0;
        EXPECT_EQ(VelMailSetProperty("MailSubject", "x"), 0);
        EXPECT_EQ(VelMailGetLastError(&code), 0);
        std::filesystem::create_directory(folder.Path("missing"));
        EXPECT_EQ(VelMailSetProperty("MailSubject", "x"), 0) << "the code left from before is reported first";
        EXPECT_EQ(LastError(), 17);
        EXPECT_EQ(VelMailSetProperty("MailSubject", "x"), 1);
    }).join();
    SetEnvironment("VEL_MAILTRACE", nullptr);
}

} // namespace
