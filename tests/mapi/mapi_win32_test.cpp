// The ten exports with a mail client that is really loaded: the recorder, as MAPI32.DLL beside this program
// or, with VELMAIL_REGISTERED in the environment, registered as the default client to which the system's own
// passes on.
#include <array>
#include <cfenv>
#include <clocale>
#include <fstream>
#include <regex>
#include <thread>

#include <windows.h>

#include <gtest/gtest.h>

#include "host.h"
#include "system.h"
#include "velmail.h"

namespace {

constexpr const char* kClients = "SOFTWARE\\Clients\\Mail";
constexpr const char* kClient = "SOFTWARE\\Clients\\Mail\\VEL mail test";

bool IsRegistered()
{
    return GetEnvironmentVariableA("VELMAIL_REGISTERED", nullptr, 0) != 0;
}

void SetKey(const char* key, const char* name, const std::string& value)
{
    ASSERT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, key, name, REG_SZ, value.c_str(),
                              static_cast<DWORD>(value.size() + 1)),
              ERROR_SUCCESS);
}

class CRegistration : public testing::Environment
{
public:
    void SetUp() override
    {
        if (IsRegistered()) {
            char program[MAX_PATH] = "";
            GetModuleFileNameA(nullptr, program, sizeof program);
            const std::string path(program);
            SetKey(kClient, "DLLPath", path.substr(0, path.find_last_of('\\') + 1) + "recorder.dll");
            SetKey(kClients, nullptr, "VEL mail test");
        }
    }
    void TearDown() override
    {
        if (IsRegistered()) {
            SetKey(kClients, nullptr, "");
            EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, kClient), ERROR_SUCCESS);
        }
    }
};
const auto* const g_registration = testing::AddGlobalTestEnvironment(new CRegistration);

// What a call into the client must leave alone.
std::string ProcessState()
{
    char folder[MAX_PATH] = "";
    GetCurrentDirectoryA(sizeof folder, folder);
    return std::string(folder) + "|" + std::setlocale(LC_NUMERIC, nullptr) + "|" +
           std::to_string(std::fegetround());
}

class MailClient : public testing::Test
{
protected:
    MailClient()
    {
        SetEnvironment("VELMAIL_RECORDER_FILE", m_folder.Path("record").c_str());
        Answer("0", "0", "0");
    }

    static void Answer(const char* logon, const char* send, const char* late)
    {
        SetEnvironment("VELMAIL_RECORDER_LOGON", logon);
        SetEnvironment("VELMAIL_RECORDER_SEND", send);
        SetEnvironment("VELMAIL_RECORDER_LATE", late);
    }

    // A function that only the recorder has: whoever else was loaded has been taken for it.
    template<class Function>
    static Function* Recorder(const char* name)
    {
        const HMODULE module = GetModuleHandleA(IsRegistered() ? "recorder.dll" : "MAPI32.DLL");
        auto* const function = reinterpret_cast<Function*>(FindFunction(module, name));
        EXPECT_NE(function, nullptr) << "the mail client is not the recorder";
        return function;
    }

    static Settings Mail()
    {
        Settings mail = SmallMail("");
        mail["MailProtocol"] = "MAPI";
        return mail;
    }

    // The record since the last time, with the private folders as "PRIVATE".
    std::string Record()
    {
        const std::string path = m_folder.Path("record");
        const std::string record = ReadFile(path);
        DeleteFileA(path.c_str());
        return std::regex_replace(record, std::regex(R"([^ ]*\\velmail-[0-9a-f]{16}\\)"), "PRIVATE\\");
    }

    CTempFolder m_folder;
};

TEST_F(MailClient, TakesFilesAndNamesAndLeavesTheProcessAsItWas)
{
    const CTempFolder work;
    const std::string distant = m_folder.Write("distant.bin", std::string("\0\n\x1A", 3));
    const CTempFolder copies;
    SetEnvironment("VELMAIL_RECORDER_FILE", copies.Path("record").c_str());
    RunTraced([&] {
        Settings mail = Mail();
        mail["MailDialog"] = "1";
        mail["MailWorkSpace"] = work.Path();
        mail["MailSenderFullName"] = "Ada";
        mail["MailRecipientsFullName"] = "Bob;Unknown";
        mail["MailCCRecipientsMailBox"] = "carol@host.example";
        work.Write("near.txt", "near");
        mail["MailAttachmentFilename"] = "near.txt;" + distant;
        Set(mail);
        std::fesetround(FE_DOWNWARD);
        const std::string before = ProcessState();
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(ProcessState(), before);
        EXPECT_EQ(VelMailSend(), 1);
        EXPECT_EQ(ProcessState(), before);
        EXPECT_EQ(VelMailDisconnect(), 1);
    });
    // The system's own frees what it passed on without asking the client.
    const std::string freed = IsRegistered() ? "" : "MAPIFreeBuffer: not an entry\n";
    EXPECT_EQ(ReadFile(copies.Path("record")), "MAPILogon, flags 0: 0\n"
                                               "MAPIResolveName, Ada: found\n"
                                               "MAPIResolveName, Bob: found\n" +
                                                   freed +
                                                   "MAPIResolveName, Unknown: unknown\n"
                                                   "MAPISendMail, session 4711, flags 0: 0\n"
                                                   "  subject: Hello\n"
                                                   "  from: Ada of the book <SMTP:book@host.example>\n"
                                                   "  to: Bob of the book <SMTP:book@host.example>\n"
                                                   "  to: Unknown <->\n"
                                                   "  cc: carol@host.example <carol@host.example>\n"
                                                   "  file: " +
                                                   work.Path("near.txt") + "\n  file: " + distant +
                                                   "\n  text: Hello Bob\r\n\n");
    EXPECT_EQ(ReadFile(copies.Path("near.txt")), "near");
    EXPECT_EQ(ReadFile(copies.Path("distant.bin")), std::string("\0\n\x1A", 3));
    Recorder<void()>("RecorderTakeAttachments");
}

TEST_F(MailClient, FoldersMayHaveNamesThatTheCodePageHasNot)
{
    wchar_t home[MAX_PATH] = L"", before[MAX_PATH] = L"", after[MAX_PATH] = L"", temporary[MAX_PATH] = L"";
    GetCurrentDirectoryW(MAX_PATH, home);
    GetEnvironmentVariableW(L"TMP", temporary, MAX_PATH);
    const std::string folder = m_folder.Path();
    const std::wstring strange = std::wstring(folder.begin(), folder.end()) + L"\\\x65e5\x672c";
    ASSERT_TRUE(CreateDirectoryW(strange.c_str(), nullptr) && SetCurrentDirectoryW(strange.c_str()));
    GetCurrentDirectoryW(MAX_PATH, before);
    std::ofstream("a longer name.txt") << "file";
    SetEnvironmentVariableW(L"TMP", strange.c_str());
    for (const char* const memory : {"", "memory"}) {
        std::thread([&] {
            Settings mail = Mail();
            mail["MailWorkSpace"] = *memory == '\0' ? "" : folder;
            mail["MailAttachmentFilename"] = "a longer name.txt";
            mail["MailAttachmentMemoryAddress"] = *memory == '\0' ? "" : Block(memory);
            Set(mail);
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), 0);
        }).join();
        const std::string copy = m_folder.Path("a longer name.txt");
        EXPECT_EQ(ReadFile(copy), *memory == '\0' ? "file" : memory);
        DeleteFileA(copy.c_str());
        GetCurrentDirectoryW(MAX_PATH, after);
        EXPECT_STREQ(after, before);
    }
    SetEnvironmentVariableW(L"TMP", temporary);
    DeleteFileA("a longer name.txt");
    SetCurrentDirectoryW(home);
    EXPECT_TRUE(RemoveDirectoryW(strange.c_str())) << "a private folder stayed";
}

TEST_F(MailClient, ReadsMemoryAttachmentsLateAndNothingStaysBehind)
{
    static const std::string first(100'000, '\xFF');
    const auto filesOf = [](const std::string& trace) { // the paths that the trace names
        std::vector<std::string> paths;
        const std::regex line("is handed over as file '([^']*)'");
        for (std::sregex_iterator at(trace.begin(), trace.end(), line), end; at != end; ++at) {
            paths.push_back((*at)[1]);
        }
        return paths;
    };
    const auto isThere = [](const std::string& path) {
        return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    };
    for (const bool held : {false, true}) {
        const CTempFolder copies;
        SetEnvironment("VELMAIL_RECORDER_FILE", copies.Path("record").c_str());
        Answer("0", "0", "1");
        const std::string trace = RunTraced([&] {
            Settings mail = Mail();
            mail["MailAttachmentMemoryAddress"] = Block(first) + ";" + Block("2nd");
            mail["MailAttachmentFilename"] = "..\\..\\windows\\evil:1.bin;nul.txt";
            Set(mail);
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 1);
            const auto hold = Recorder<void(int)>("RecorderHoldAttachments");
            Recorder<void()>("RecorderTakeAttachments")();
            EXPECT_EQ(ReadFile(copies.Path("evil_1.bin")), first);
            EXPECT_EQ(ReadFile(copies.Path("_nul.txt")), "2nd");
            hold(held ? 1 : 0);
            EXPECT_EQ(VelMailDisconnect(), 1);
            hold(0);
        });
        const std::vector<std::string> files = filesOf(trace);
        EXPECT_EQ(files.size(), 2U) << trace;
        for (const std::string& file : files) {
            EXPECT_FALSE(isThere(file) || isThere(file.substr(0, file.find_last_of('\\')))) << file;
        }
        EXPECT_EQ(CountOf(trace, "Cannot remove the temporary file"), held ? 2U : 0U) << trace;
    }
    // A failed send removes them at once; a thread that never disconnects at its end.
    for (const char* const result : {"2", "0"}) {
        Answer("0", result, "0");
        const CTempFolder copies;
        SetEnvironment("VELMAIL_RECORDER_FILE", copies.Path("record").c_str());
        const std::string trace = RunTraced([&] {
            Settings mail = Mail();
            mail["MailAttachmentMemoryAddress"] = Block("x");
            mail["MailAttachmentFilename"] = std::string(300, 'l') + ".txt";
            Set(mail);
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), *result == '0' ? 1 : 0);
        });
        const std::vector<std::string> files = filesOf(trace);
        ASSERT_EQ(files.size(), 1U);
        EXPECT_TRUE(files[0].size() == 259 && files[0].ends_with("l.txt") && !isThere(files[0])) << files[0];
    }
}

// The host of the test below: its process ends while the thread that has sent is still there.
TEST(MailClientChild, DISABLED_EndsWithAThreadThatHasSent)
{
    const HANDLE sent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread([&] {
        Settings mail = SmallMail("");
        mail["MailProtocol"] = "MAPI";
        mail["MailAttachmentMemoryAddress"] = Block("x");
        mail["MailAttachmentFilename"] = "x.txt";
        Set(mail);
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
    std::string command = std::string("\"") + program +
                          "\" --gtest_also_run_disabled_tests --gtest_filter=*EndsWithAThreadThatHasSent";
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child = {};
    ASSERT_NE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                             &child),
              0);
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 1;
    EXPECT_TRUE(GetExitCodeProcess(child.hProcess, &status) != 0 && status == 0) << status;
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    std::smatch path;
    const std::string written = ReadFile(m_folder.Path("record"));
    ASSERT_TRUE(std::regex_search(written, path, std::regex(R"(  file: (.*)\\x\.txt)"))) << written;
    EXPECT_EQ(GetFileAttributesA(path[1].str().c_str()), INVALID_FILE_ATTRIBUTES) << path[1];
}

TEST_F(MailClient, ResultsReachTheHost)
{
    const struct
    {
        const char *logon, *dialog, *send;
        int code;
        const char *state, *record;
    } cases[] = {{"0", "0", "0", 0, "MailActive", "0"},
                 {"0", "0", "1", 0, "MailActive", "0"},
                 {"0", "0", "2", 152, "MailActive", "0"},
                 {"0", "0", "11", 659, "MailActive", "0"},
                 {"0", "0", "26", 176, "MailActive", "0"},
                 {"3", "0", "0", 153, "MailDeactivated", "0"},
                 {"331", "1", "0", 151, "MailDeactivated", "021"},
                 {"3330", "1", "0", 0, "MailActive", "0213"},
                 {"3333", "1", "0", 153, "MailDeactivated", "0213"}};
    for (const auto& row : cases) {
        Answer(row.logon, row.send, "0");
        std::thread([&] {
            Settings mail = Mail();
            mail["MailLogonDialog"] = row.dialog;
            Set(mail);
            EXPECT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(SendAndDisconnect(), row.code) << row.logon << row.send;
            std::string flags;
            const std::string record = Record();
            for (std::size_t at = record.find("flags "); at != std::string::npos;
                 at = record.find("flags ", at + 1)) {
                flags += record[at + 6];
            }
            const bool sent = std::string(row.state) == "MailActive";
            EXPECT_EQ(flags, std::string(row.record) + (sent ? "0" : "")) << record;

            for (const unsigned size : {15U, 16U}) {
                std::array<char, 17> state = {};
                state[size] = '!';
                EXPECT_EQ(VelMailGetProperty("MailAvailable", state.data(), size), 1);
                EXPECT_EQ(std::string(state.data()), std::string(row.state).substr(0, size - 1));
                EXPECT_EQ(state[size], '!');
                VelMailDisconnect(); // takes off the code of a failed logon
            }
            Record();
        }).join();
    }
}

} // namespace
