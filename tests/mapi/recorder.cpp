// A mail client for tests, a library of its own or linked into a program: it writes what it is given to a
// file and answers as the environment says. It behaves as badly as mail clients may: each call moves the
// process to another folder and changes its numeric locale and floating-point state.
//
// VELMAIL_RECORDER_FILE   the record; copies of the attachments go into its folder
// VELMAIL_RECORDER_LOGON  the results of the four kinds of logon, with commas between; 0 unless set
// VELMAIL_RECORDER_SEND   the result of a send; 0 unless set
//
// The book has every name but those that begin with Unknown, Ambiguous or Nothing; Bare ones lack an address.
#include "tests/mapi/recorder.h"

#include <algorithm>
#include <cfenv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {
namespace fs = std::filesystem;

std::string Setting(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::string Text(const char* text)
{
    return text == nullptr ? "-" : text;
}

MapiResult Result(const std::string& results, std::size_t at = 0)
{
    return static_cast<MapiResult>(std::strtoul(results.c_str() + at, nullptr, 10));
}

void Record(const std::string& line)
{
    std::ofstream(Setting("VELMAIL_RECORDER_FILE"), std::ios::app | std::ios::binary) << line << "\n";
}

// What must hold leaves no mark.
void Check(bool holds, const char* what)
{
    if (!holds) {
        Record(std::string("  wrong: ") + what);
    }
}

bool IsZero(const void* data, std::size_t size)
{
    const auto* const bytes = static_cast<const char*>(data);
    return std::all_of(bytes, bytes + size, [](char c) { return c == 0; });
}

// What MAPIFreeBuffer gets back should lie behind the mark.
struct Entry
{
    char mark[8] = "entry..";
    MapiRecipDesc description = {};
    std::string name;
    std::string address = "SMTP:book@host.example";
};
std::vector<std::unique_ptr<Entry>> g_entries; // a host may go on reading them

void Describe(const MapiRecipDesc& r)
{
    static constexpr const char* kKinds[] = {"from", "to", "cc", "bcc"};
    Record(std::string("  ") + kKinds[r.ulRecipClass & 3U] + ": " + Text(r.lpszName) + " <" +
           Text(r.lpszAddress) + ">");
    Check(r.ulReserved == 0, "reserved");
}

// Files of one name get a + each.
void Take(const std::string& path)
{
    const std::ifstream content(path, std::ios::binary);
    if (!content.is_open()) {
        return Record("  not there");
    }
    fs::path copy = fs::path(Setting("VELMAIL_RECORDER_FILE")).replace_filename(fs::path(path).filename());
    while (fs::exists(copy)) {
        copy += "+";
    }
    std::ofstream(copy, std::ios::binary) << content.rdbuf();
}

} // namespace

void SpoilHost()
{
    fs::current_path(fs::temp_directory_path());
    if (std::strcmp(std::setlocale(LC_NUMERIC, nullptr), "C") != 0) {
        std::setlocale(LC_NUMERIC, "C");
    } else if (std::setlocale(LC_NUMERIC, "C.UTF-8") == nullptr) {
        std::setlocale(LC_NUMERIC, "German");
    }
    std::fesetround(FE_UPWARD);
}

MapiResult MAPILogon(MapiHandle window, char* profile, char* password, std::uint32_t flags,
                     std::uint32_t reserved, MapiHandle* session)
{
    static std::size_t s_at = 0; // in the results, of this attempt
    const std::string results = Setting("VELMAIL_RECORDER_LOGON") + ",";
    s_at = flags == 0 ? 0 : std::min(results.find(',', s_at), results.size() - 1) + 1; // 0 is the first one
    const MapiResult result = Result(results, s_at);
    Record("MAPILogon, flags " + std::to_string(flags) + ": " + std::to_string(result));
    Check(window == 0 && reserved == 0 && *session == 0, "window, reserved or session");
    Check(profile == nullptr && password == nullptr, "profile or password");
    *session = result == 0 ? 4711 : 9; // a failed attempt's is not to be used
    SpoilHost();
    return result;
}

MapiResult MAPILogoff(MapiHandle /*session*/, MapiHandle /*window*/, std::uint32_t /*flags*/,
                      std::uint32_t /*reserved*/)
{
    Record("MAPILogoff");
    return 0;
}

MapiResult MAPIResolveName(MapiHandle session, MapiHandle window, char* name, std::uint32_t flags,
                           std::uint32_t reserved, MapiRecipDesc** found)
{
    const std::string asked = Text(name);
    const MapiResult result = asked.starts_with("Unknown") ? 14 : asked.starts_with("Ambiguous") ? 21 : 0;
    Record("MAPIResolveName, " + asked + ": " + std::to_string(result));
    Check(std::fegetround() != FE_UPWARD, "the host is spoilt");
    Check(session == 4711 && window == 0 && flags == 0 && reserved == 0,
          "session, window, flags or reserved");
    SpoilHost();
    if (result == 0 && !asked.starts_with("Nothing")) {
        Entry& entry = *g_entries.emplace_back(std::make_unique<Entry>());
        entry.name = asked + " of the book";
        char* const address = asked.starts_with("Bare") ? nullptr : entry.address.data();
        // A class that no recipient has.
        entry.description = {0, 7, entry.name.data(), address, 3, entry.name.data()};
        *found = &entry.description;
    }
    return result;
}

MapiResult MAPIFreeBuffer(void* buffer)
{
    Entry& last = *g_entries.back();
    const char* const front = static_cast<char*>(buffer) - sizeof last.mark;
    const bool marked = std::memcmp(front, last.mark, sizeof last.mark) == 0;
    auto** const variable = static_cast<MapiRecipDesc**>(buffer);
    Record(std::string("MAPIFreeBuffer: ") + (marked ? "an entry" : "a variable"));
    Check(marked || IsZero(variable - 8, 64), "what lies in front");
    Check(!marked && *variable == &last.description, "not the last one's variable");
    SpoilHost();
    std::fill(last.name.begin(), last.name.end(), '?'); // it must have been copied
    std::fill(last.address.begin(), last.address.end(), '?');
    if (!marked) {
        *variable = nullptr;
    }
    return 0;
}

MapiResult MAPISendMail(MapiHandle session, MapiHandle window, MapiMessage* message, std::uint32_t flags,
                        std::uint32_t reserved)
{
    const MapiResult result = Result(Setting("VELMAIL_RECORDER_SEND"));
    Record("MAPISendMail, session " + std::to_string(session) + ", flags " + std::to_string(flags) + ": " +
           std::to_string(result));
    Check(std::fegetround() != FE_UPWARD, "the host is spoilt");
    SpoilHost();
    Check(window == 0 && reserved == 0 && message->ulReserved == 0, "window or reserved");
    Check(message->flFlags == 0 && IsZero(&message->lpszMessageType, 3 * sizeof(char*)), "the message");
    Record("  subject: " + Text(message->lpszSubject));
    if (message->lpOriginator != nullptr) {
        Describe(*message->lpOriginator);
    }
    for (std::uint32_t i = 0; i < message->nRecipCount; ++i) {
        const MapiRecipDesc& recipient = message->lpRecips[i];
        Describe(recipient);
        Check(recipient.ulEIDSize == 0 && recipient.lpEntryID == nullptr, "a recipient's entry");
    }
    Check(message->lpRecips == nullptr ||
              IsZero(&message->lpRecips[message->nRecipCount], sizeof(MapiRecipDesc)),
          "there is one recipient more, empty");
    for (std::uint32_t i = 0; i < message->nFileCount; ++i) {
        const MapiFileDesc& file = message->lpFiles[i];
        Record("  file: " + Text(file.lpszPathName));
        Check(file.nPosition == 0xFFFFFFFF && file.ulReserved == 0 && file.flFlags == 0, "a file's fields");
        Check(file.lpszFileName == nullptr && file.lpFileType == nullptr, "a file's name or type");
        Take(Text(file.lpszPathName));
    }
    Record("  text: " + Text(message->lpszNoteText));
    if (message->lpszNoteText != nullptr) { // a client's own to change
        std::memset(message->lpszNoteText, '?', std::strlen(message->lpszNoteText));
    }
    return result;
}
