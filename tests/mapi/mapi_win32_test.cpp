// The ten exports with a mail client that is really loaded: the recorder, as MAPI32.DLL beside this program
// or, with VELMAIL_REGISTERED in the environment, registered as the default client to which the system's own
// passes on.
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>
#include <tuple>

#include <windows.h>

#include <gtest/gtest.h>

#include "host.h"
#include "system.h"
#include "velmail.h"

namespace {

bool IsRegistered()
{
    return GetEnvironmentVariableA("VELMAIL_REGISTERED", nullptr, 0) != 0;
}

bool IsThere(const std::string& path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The file that the record names; the record is removed.
std::string RecordedFile(const std::string& path)
{
    std::smatch file;
    const std::string record = ReadFile(path);
    DeleteFileA(path.c_str());
    EXPECT_TRUE(std::regex_search(record, file, std::regex("  file: ([^\n]*)\n"))) << record;
    return file[1];
}

Settings Mail(Settings more)
{
    more["MailProtocol"] = "MAPI";
    return SmallMail("", more);
}

class MailClient : public testing::Test
{
protected:
    MailClient()
    {
        SetEnvironment("VELMAIL_RECORDER_FILE", m_folder.Path("record").c_str());
        Answer("0", "0");
    }

    static void Answer(const char* logon, const char* send)
    {
        SetEnvironment("VELMAIL_RECORDER_LOGON", logon);
        SetEnvironment("VELMAIL_RECORDER_SEND", send);
    }

    CTempFolder m_folder;
};

TEST_F(MailClient, TakesFilesAndNames)
{
    const CTempFolder work;
    const std::string distant = work.Write("distant.bin", std::string("\0\n\x1A", 3));
    work.Write("near.txt", "near");
    std::thread([&] {
        Set(Mail({{"MailDialog", "1"},
                  {"MailWorkSpace", work.Path()},
                  {"MailSenderFullName", "Ada"},
                  {"MailRecipientsFullName", "Bob;Unknown"},
                  {"MailAttachmentFilename", "near.txt;" + distant}}));
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
    }).join();
    // The system's own frees what it passed on without asking the client.
    const std::string freed = IsRegistered() ? "" : "MAPIFreeBuffer: a variable\n";
    const std::string book = "of the book <SMTP:book@host.example>\n";
    EXPECT_EQ(ReadFile(m_folder.Path("record")),
              "MAPILogon, flags 0: 0\nMAPIResolveName, Ada: 0\nMAPIResolveName, Bob: 0\n" + freed +
                  "MAPIResolveName, Unknown: 14\nMAPISendMail, session 4711, flags 0: 0\n  subject: Hello\n" +
                  "  from: Ada " + book + "  to: Bob " + book + "  to: Unknown <->\n  file: " +
                  work.Path("near.txt") + "\n  file: " + distant + "\n  text: Hello Bob\r\n\n");
    EXPECT_EQ(ReadFile(m_folder.Path("near.txt")), "near");
    EXPECT_EQ(ReadFile(m_folder.Path("distant.bin")), std::string("\0\n\x1A", 3));
}

TEST_F(MailClient, FoldersMayHaveNamesThatTheCodePageHasNot)
{
    wchar_t home[MAX_PATH] = L"", after[MAX_PATH] = L"", temporary[MAX_PATH] = L"";
    GetCurrentDirectoryW(MAX_PATH, home);
    GetEnvironmentVariableW(L"TMP", temporary, MAX_PATH);
    const std::string folder = m_folder.Path();
    const std::wstring strange = std::wstring(folder.begin(), folder.end()) + L"\x65e5\x672c";
    ASSERT_TRUE(CreateDirectoryW(strange.c_str(), nullptr));
    ASSERT_TRUE(SetCurrentDirectoryW(strange.c_str()));
    std::ofstream("a longer name.txt") << "file";
    SetEnvironmentVariableW(L"TMP", strange.c_str());
    for (const std::string memory : {"", "memory"}) {
        std::thread([&] {
            Set(Mail({{"MailWorkSpace", memory.empty() ? "" : folder},
                      {"MailAttachmentFilename", "a longer name.txt"},
                      {"MailAttachmentMemoryAddress", memory.empty() ? "" : Block(memory)}}));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), 0);
        }).join();
        const std::string copy = m_folder.Path("a longer name.txt");
        EXPECT_EQ(ReadFile(copy), memory.empty() ? "file" : memory);
        DeleteFileA(copy.c_str());
        GetCurrentDirectoryW(MAX_PATH, after);
        EXPECT_EQ(after, strange);
    }
    SetEnvironmentVariableW(L"TMP", temporary);
    DeleteFileA("a longer name.txt");
    SetCurrentDirectoryW(home);
    EXPECT_TRUE(RemoveDirectoryW(strange.c_str())) << "a private folder stayed";
}

TEST_F(MailClient, ReadsMemoryAttachmentsLateAndNothingStaysBehind)
{
    static const std::string first(100'000, '\xFF');
    struct
    {
        std::string name;
        bool held;
        const char* end;                                                 // of the path
    } const rows[] = {{"..\\evil:1.bin", true, "\\evil_1.bin"},          // the client has it open
                      {std::string(300, 'l') + ".txt", false, "l.txt"}}; // ends with the thread
    for (const auto& row : rows) {
        std::string file;
        const std::string trace = RunTraced([&] {
            Set(Mail({{"MailAttachmentMemoryAddress", Block(first)}, {"MailAttachmentFilename", row.name}}));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 1);
            file = RecordedFile(m_folder.Path("record"));
            EXPECT_TRUE(file.ends_with(row.end)) << file;
            EXPECT_EQ(ReadFile(file), first);
            EXPECT_LE(file.size(), 259U);
            if (row.held) {
                const HANDLE reader = CreateFileA(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                  OPEN_EXISTING, 0, nullptr);
                EXPECT_EQ(VelMailDisconnect(), 1);
                CloseHandle(reader);
            }
        });
        EXPECT_FALSE(IsThere(file)) << file;
        EXPECT_FALSE(IsThere(file.substr(0, file.find_last_of('\\')))) << file;
        EXPECT_EQ(CountOf(trace, "Cannot remove the temporary file"), row.held ? 1U : 0U) << trace;
    }
}

// The host of the test below: its process ends while the thread that has sent is still there.
TEST(MailClientChild, DISABLED_EndsWithAThreadThatHasSent)
{
    const HANDLE sent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread([&] {
        Set(Mail({{"MailAttachmentMemoryAddress", Block("x")}, {"MailAttachmentFilename", "x.txt"}}));
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(VelMailSend(), 1);
        SetEvent(sent);
        WaitForSingleObject(GetCurrentThread(), INFINITE); // until the process ends
    }).detach();
    WaitForSingleObject(sent, INFINITE);
    ExitProcess(testing::Test::HasFailure() ? 1 : 0);
}

TEST_F(MailClient, NoFileStaysWhenTheProcessEndsBeforeItsThread)
{
    char program[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string command =
        std::string("\"\"") + program +
        "\" --gtest_also_run_disabled_tests --gtest_filter=*EndsWithAThreadThatHasSent\"";
    EXPECT_EQ(std::system(command.c_str()), 0);
    const std::string file = RecordedFile(m_folder.Path("record"));
    EXPECT_FALSE(IsThere(file.substr(0, file.find_last_of('\\')))) << file;
}

TEST_F(MailClient, ResultsReachTheHost)
{
    for (const auto& [logon, send, code, state] :
         {std::tuple("0", "26", 176, "MailActive"), {"3,3,1", "0", 151, "MailDeactivated"}}) {
        Answer(logon, send);
        std::thread([&, code = code, state = state] {
            Set(Mail({{"MailLogonDialog", "1"}}));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), code);
            EXPECT_EQ(Get("MailAvailable"), state);
            VelMailDisconnect(); // takes off the code of a failed logon
        }).join();
    }
}

TEST_F(MailClient, ItsResultIsEachRecipientsAndAllIsRead)
{
    const struct
    {
        const char* send;
        int code;
        std::string line; // but for the mailbox
    } rows[] = {{"0", 0, "250 ? MAPI call finished without an error\n"},
                {"1", 0, "0 ? MAPI action cancelled by the user\n"},
                {"26", 176, "0 ? Function not supported by the mail client (MAPI)\n"},
                {"", 151, "0 ? not sent: cancelled\n"}}; // by the host
    const std::string file = m_folder.Write("file.txt", "file");
    for (const auto& [send, code, line] : rows) {
        Answer("0", send);
        std::thread([&, code = code, line = line, cancelled = *send == '\0'] {
            alignas(8) std::uint64_t progress[3] = {7, 7, cancelled ? 1U : 0U};
            Set(Mail({{"MailRecipientsMailBox", "a@host.example;b@host.example"},
                      {"MailProgressMemoryAddress",
                       std::to_string(reinterpret_cast<std::uintptr_t>(progress)) + ";24"},
                      {"MailAttachmentFilename", file}}));
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), code);
            const std::string lines = std::regex_replace(line, std::regex("\\?"), "a@host.example") +
                                      std::regex_replace(line, std::regex("\\?"), "b@host.example");
            EXPECT_EQ(Get("MailDeliveryReport"), lines);
            EXPECT_EQ(progress[0], 14U);
            EXPECT_EQ(progress[1], cancelled ? 0U : 14U);
        }).join();
    }
    EXPECT_EQ(CountOf(ReadFile(m_folder.Path("record")), "MAPISendMail"), 3U);
}

} // namespace
