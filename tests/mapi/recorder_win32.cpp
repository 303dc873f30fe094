// A mail client for tests: it writes what it is given to a file and answers as the environment says. It
// behaves as badly as mail clients may: each call moves the process to another folder and changes its numeric
// locale and floating-point state, and attachments may be read when the call is long over.
//
// VELMAIL_RECORDER_FILE   the record; copies of the attachments go into its folder
// VELMAIL_RECORDER_LOGON  the results of the four kinds of logon, a digit each; 0 where there is none
// VELMAIL_RECORDER_SEND   the result of a send; 0 unless set
// VELMAIL_RECORDER_LATE   "1": attachments are copied by RecorderTakeAttachments
#include <cfenv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include <mapi.h>

namespace {

constexpr ULONG kFailure = 2;
constexpr ULONG kUnknownRecipient = 14;

std::string Setting(const char* name)
{
    char text[1024] = "";
    const DWORD length = GetEnvironmentVariableA(name, text, sizeof text);
    return {text, length < sizeof text ? length : 0};
}

void Spoil()
{
    SetCurrentDirectoryA("C:\\windows");
    std::setlocale(LC_NUMERIC, "German");
    std::fesetround(FE_UPWARD);
}

void Record(const std::string& line)
{
    std::ofstream(Setting("VELMAIL_RECORDER_FILE"), std::ios::app | std::ios::binary) << line << "\n";
}

std::string Text(const char* text)
{
    return text == nullptr ? "-" : text;
}

std::string NameOf(const std::string& path)
{
    return path.substr(path.find_last_of('\\') + 1);
}

// What MAPIFreeBuffer gets back lies behind a mark of ours.
struct Entry
{
    char mark[8];
    MapiRecipDesc description;
    char name[256];
    char address[256];
};
constexpr char kMark[8] = "entry";

std::vector<std::string> g_attachments; // to be taken
std::vector<HANDLE> g_held;

void Take(const std::string& path)
{
    const std::string record = Setting("VELMAIL_RECORDER_FILE");
    const std::string folder = record.substr(0, record.find_last_of('\\') + 1);
    if (CopyFileA(path.c_str(), (folder + NameOf(path)).c_str(), TRUE) == 0) {
        Record("  not copied: " + path + ", error " + std::to_string(GetLastError()));
    }
}

void Describe(const char* what, const MapiRecipDesc& recipient)
{
    Record(std::string("  ") + what + ": " + Text(recipient.lpszName) + " <" + Text(recipient.lpszAddress) +
           ">");
}

} // namespace

extern "C" {

ULONG WINAPI MAPILogon(ULONG_PTR /*window*/, LPSTR /*profile*/, LPSTR /*password*/, FLAGS flags,
                       ULONG /*reserved*/, LPLHANDLE session)
{
    constexpr std::size_t kAttempts[] = {0, 2, 1, 3}; // by their flags, in the order in which they come
    const std::string results = Setting("VELMAIL_RECORDER_LOGON");
    const std::size_t attempt = kAttempts[flags & 3U];
    const ULONG result = attempt < results.size() ? static_cast<ULONG>(results[attempt] - '0') : 0;
    Record("MAPILogon, flags " + std::to_string(flags) + ": " + std::to_string(result));
    *session = result == 0 ? 4711 : 0;
    Spoil();
    return result;
}

ULONG WINAPI MAPILogoff(LHANDLE /*session*/, ULONG_PTR /*window*/, FLAGS /*flags*/, ULONG /*reserved*/)
{
    Record("MAPILogoff");
    return 0;
}

ULONG WINAPI MAPIResolveName(LHANDLE /*session*/, ULONG_PTR /*window*/, LPSTR name, FLAGS /*flags*/,
                             ULONG /*reserved*/, lpMapiRecipDesc* found)
{
    Spoil();
    const bool known = std::strncmp(name, "Unknown", 7) != 0;
    Record("MAPIResolveName, " + Text(name) + ": " + (known ? "found" : "unknown"));
    if (!known) {
        return kUnknownRecipient;
    }
    auto* const entry = static_cast<Entry*>(std::calloc(1, sizeof(Entry)));
    std::memcpy(entry->mark, kMark, sizeof kMark);
    std::strcat(std::strncpy(entry->name, name, 200), " of the book");
    std::strcpy(entry->address, "SMTP:book@host.example");
    entry->description.lpszName = entry->name;
    entry->description.lpszAddress = entry->address;
    *found = &entry->description;
    return 0;
}

ULONG WINAPI MAPIFreeBuffer(LPVOID buffer)
{
    Spoil();
    char* const entry = static_cast<char*>(buffer) - offsetof(Entry, description);
    const bool mine = std::memcmp(entry, kMark, sizeof kMark) == 0;
    Record(std::string("MAPIFreeBuffer: ") + (mine ? "an entry" : "not an entry"));
    if (mine) {
        std::free(entry);
    }
    return mine ? 0 : kFailure;
}

ULONG WINAPI MAPISendMail(LHANDLE session, ULONG_PTR /*window*/, lpMapiMessage message, FLAGS flags,
                          ULONG /*reserved*/)
{
    static constexpr const char* kKinds[] = {"from", "to", "cc", "bcc"};
    Spoil();
    const ULONG result = std::strtoul(Setting("VELMAIL_RECORDER_SEND").c_str(), nullptr, 10);
    Record("MAPISendMail, session " + std::to_string(session) + ", flags " + std::to_string(flags) + ": " +
           std::to_string(result));
    Record("  subject: " + Text(message->lpszSubject));
    if (message->lpOriginator != nullptr) {
        Describe(kKinds[0], *message->lpOriginator);
    }
    for (ULONG i = 0; i < message->nRecipCount; ++i) {
        Describe(kKinds[message->lpRecips[i].ulRecipClass & 3U], message->lpRecips[i]);
    }
    g_attachments.clear();
    for (ULONG i = 0; i < message->nFileCount; ++i) {
        g_attachments.push_back(Text(message->lpFiles[i].lpszPathName));
        Record("  file: " + g_attachments.back());
    }
    Record("  text: " + Text(message->lpszNoteText));
    if (Setting("VELMAIL_RECORDER_LATE") != "1") {
        for (const std::string& path : g_attachments) {
            Take(path);
        }
    }
    return result;
}

// Reads the attachments of the last send now.
void RecorderTakeAttachments()
{
    for (const std::string& path : g_attachments) {
        Take(path);
    }
}

// Keeps the attachments of the last send open, so that nobody can remove them, or lets them go.
void RecorderHoldAttachments(int hold)
{
    for (const std::string& path : g_attachments) {
        if (hold != 0) {
            g_held.push_back(
                CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        }
    }
    while (hold == 0 && !g_held.empty()) {
        CloseHandle(g_held.back());
        g_held.pop_back();
    }
}

} // extern "C"
