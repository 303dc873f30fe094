#include "tools/hostoutcome.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>

namespace {

// A range of codes with what they come to. Those that stand in none are about the mail and its settings.
struct CodeRange
{
    int first;
    int last;
    ExitStatus status;
};
constexpr std::array kRanges = {
    CodeRange{60, 61, ExitStatus::NoConnection},   // there is no mail client
    CodeRange{62, 62, ExitStatus::Refused},        //
    CodeRange{151, 151, ExitStatus::Cancelled},    //
    CodeRange{152, 152, ExitStatus::NoConnection}, // the client, for no reason that it gives
    CodeRange{153, 153, ExitStatus::NoLogin},      //
    CodeRange{164, 164, ExitStatus::Refused},      // the client knows no such recipient
    CodeRange{169, 169, ExitStatus::NoConnection}, //
    CodeRange{171, 171, ExitStatus::Refused},      //
    CodeRange{173, 173, ExitStatus::NoConnection}, //
    CodeRange{175, 175, ExitStatus::Refused},      //
    CodeRange{653, 654, ExitStatus::NoConnection}, CodeRange{655, 655, ExitStatus::NoLogin},
    CodeRange{657, 658, ExitStatus::Refused},      CodeRange{664, 682, ExitStatus::NoConnection},
    CodeRange{701, 701, ExitStatus::NoConnection},
};

struct CodeProperties
{
    int code;
    const char* properties;
};
constexpr std::array kProperties = {
    CodeProperties{17, "MailTraceFilename"},
    CodeProperties{118, "MailWorkSpace"},
    CodeProperties{650, "MailRecipientsMailBox"},
    CodeProperties{651, "MailSubject"},
    CodeProperties{652, "MailTextFilename"},
    CodeProperties{653, "MailServer, MailServerPort"},
    CodeProperties{654, "MailSecurity, MailSecurityCAFile, MailServer"},
    CodeProperties{655, "MailAuthLogin, MailAuthPassword"},
    CodeProperties{656, "MailProtocol"},
    CodeProperties{657, "MailSenderMailBox"},
    CodeProperties{659, "MailAttachmentFilename"},
    CodeProperties{662, "MailSenderMailBox"},
    CodeProperties{665, "MailServerPort, MailSecurity"},
    CodeProperties{669, "MailSecurity, MailAuthMechanism"},
    CodeProperties{677, "MailServer"},
    CodeProperties{678, "MailServerPort"},
    CodeProperties{682, "MailServer, MailServerPort"},
    CodeProperties{691, "MailSenderMailBox"},
    CodeProperties{692, "MailCCRecipientsMailBox"},
    CodeProperties{693, "MailBCCRecipientsMailBox"},
    CodeProperties{695, "MailTextFilename"},
    CodeProperties{696, "MailAttachmentFilename"},
    CodeProperties{702, "UseBulkMail"},
};

// What the texts of two codes say of the property.
struct TextProperty
{
    const char* text;
    const char* property;
};
constexpr std::array kTextProperties = {
    TextProperty{"of the CC Recipient", "MailCCRecipientsMailBox"},
    TextProperty{"of the BCC Recipient", "MailBCCRecipientsMailBox"},
    TextProperty{"of the MailReplyTo", "MailReplyToMailBox"},
};

// What a line of the trace says behind its number and time; nothing for one that continues an entry.
std::optional<std::string> EntryOf(const std::string& line)
{
    constexpr std::size_t kTime = 24;
    const std::size_t time = line.find(' ', line.find_first_not_of(' ')) + 1;
    if (time == 0 || line.size() < time + kTime || line[time + 2] != '.' || line[time + 19] != ',') {
        return std::nullopt;
    }
    std::string entry = line.substr(time + kTime);
    entry.erase(entry.find_last_not_of(" \r\n") + 1);
    // A server's words may hold what a terminal obeys.
    std::ranges::replace_if(
        entry, [](unsigned char byte) { return std::iscntrl(byte) != 0; }, ' ');
    return entry;
}

std::vector<std::string> EntriesOf(const std::string& trace)
{
    std::vector<std::string> entries;
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        if (const std::optional<std::string> entry = EntryOf(line)) {
            entries.push_back(*entry);
        }
    }
    return entries;
}

// The text in "Error: Setting error 664 (TEXT) in FILE(LINE)", whose end stands on another line where a
// system's words end with a line feed; the general one of the SMTP path says nothing.
std::string TextOfError(const std::string& entry)
{
    const std::size_t begin = entry.find(" (");
    const std::size_t end = entry.rfind(") in ");
    if (begin == std::string::npos) {
        return {};
    }
    const std::string text = entry.substr(begin + 2, end == std::string::npos ? end : end - begin - 2);
    return text.starts_with("Error during SMTP Session") ? "" : text;
}

} // namespace

ExitStatus StatusOf(int code)
{
    const auto* const found = std::ranges::find_if(
        kRanges, [code](const CodeRange& range) { return range.first <= code && code <= range.last; });
    return found == kRanges.end() ? ExitStatus::NotBuilt : found->status;
}

std::vector<ReportLine> ReadReport(const std::string& report)
{
    std::vector<ReportLine> lines;
    std::istringstream text(report);
    for (std::string line; std::getline(text, line);) {
        ReportLine read;
        read.code = std::atoi(line.c_str());
        const std::size_t mailbox = std::min(line.find(' '), line.size() - 1) + 1;
        const std::size_t words = std::min(line.find(' ', mailbox), line.size());
        read.mailbox = line.substr(mailbox, words - mailbox);
        read.words = line.substr(std::min(words + 1, line.size()));
        lines.push_back(read);
    }
    return lines;
}

std::vector<std::string> FindReasons(const std::string& trace, int code)
{
    const std::vector<std::string> entries = EntriesOf(trace);
    const std::string start = "Error: Setting error " + std::to_string(code) + " ";
    const auto isSystems = [](const std::string& entry) {
        return entry.starts_with("The file ") || entry.starts_with("In ");
    };
    const auto error = std::ranges::find_if(
        entries.rbegin(), entries.rend(), [&](const std::string& entry) { return entry.starts_with(start); });
    std::vector<std::string> reasons;
    if (error ==
        entries.rend()) { // the protocol of a send has no such line: the first name is the one wanted
        const auto file = std::ranges::find_if(entries, isSystems);
        return file == entries.end() ? reasons : std::vector<std::string>{*file};
    }
    // The system's words stand right before, with no more than what the library itself says between.
    constexpr std::ptrdiff_t kNear = 3;
    const auto end = error + std::min<std::ptrdiff_t>(kNear, entries.rend() - error);
    const auto systems = std::find_if(error, end, isSystems);
    if (systems != end) {
        reasons.push_back(*systems);
    }
    if (const std::string text = TextOfError(*error); !text.empty()) {
        reasons.push_back(text);
    }
    return reasons;
}

std::string PropertiesBehind(int code, const std::vector<std::string>& reasons)
{
    for (const std::string& reason : reasons) {
        if (reason.find("ropert") != std::string::npos && reason.find('\'') != std::string::npos) {
            return {};
        }
        for (const TextProperty& row : kTextProperties) {
            if (reason.find(row.text) != std::string::npos) {
                return row.property;
            }
        }
    }
    const auto* const found =
        std::ranges::find_if(kProperties, [code](const CodeProperties& row) { return row.code == code; });
    return found == kProperties.end() ? "" : found->properties;
}
