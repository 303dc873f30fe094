#include "src/submission/additionalheader.h"

#include <algorithm>

#include "src/submission/ascii.h"
#include "src/submission/headertext.h"

namespace {

// What the library writes, what servers write, and what would tell of hidden recipients.
constexpr std::string_view kReserved[] = {"Bcc",         "Cc",       "Date",     "From",
                                          "Message-ID",  "Received", "Reply-To", "Resent-Bcc",
                                          "Return-Path", "Subject",  "To",       "X-User-Agent"};
constexpr std::string_view kReservedBeginnings[] = {"Content-", "MIME-"};

bool IsReserved(std::string_view name)
{
    return std::any_of(std::begin(kReserved), std::end(kReserved),
                       [name](std::string_view field) { return EqualIgnoringCase(name, field); }) ||
           std::any_of(std::begin(kReservedBeginnings), std::end(kReservedBeginnings),
                       [name](std::string_view beginning) {
                           return EqualIgnoringCase(name.substr(0, beginning.size()), beginning);
                       });
}

// A line end counts as text where it is not one: with a CR in it no line is a field.
std::string_view TakeLine(std::string_view& rest)
{
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

bool IsLineText(std::string_view line)
{
    return std::all_of(line.begin(), line.end(), [](char c) {
        return IsVisible(c) || IsBlank(c) || static_cast<unsigned char>(c) >= 0x80;
    });
}

// Why the line, the first of a field or one that continues it, is none; null when it is one.
const char* Refusal(std::string_view line, bool continues, bool first)
{
    constexpr const char* kNoField = "is no header field";
    if (!IsLineText(line) || std::all_of(line.begin(), line.end(), IsBlank) || (continues && first)) {
        return kNoField;
    }
    if (continues) {
        return nullptr;
    }
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view name = line.substr(0, colon);
    if (colon == line.size() || name.empty() || !std::all_of(name.begin(), name.end(), IsVisible)) {
        return kNoField;
    }
    return IsReserved(name) ? "belongs to the library" : nullptr;
}

bool HasLongLine(std::string_view fields)
{
    while (!fields.empty()) {
        const std::size_t end = fields.find('\r');
        if (end > CHeaderFolder::kLongLine) {
            return true;
        }
        fields.remove_prefix(end + 2);
    }
    return false;
}

// `field` is unfolded, but for its lines' first blanks.
std::string Encoded(std::string_view field, Charset charset)
{
    std::string encoded;
    const std::size_t colon = field.find(':') + 1;
    CHeaderFolder folder(encoded);
    folder.Begin(field.substr(0, colon));
    folder.AddText(ToUtf8(field.substr(colon), charset));
    folder.End();
    return encoded;
}

bool Refuse(std::string_view line, const char* refusal, std::string& reason)
{
    reason = WithoutControls(line);
    reason.append(": ").append(refusal);
    return false;
}

} // namespace

bool ReadAdditionalHeader(std::string_view given, Charset charset, std::string& fields)
{
    fields.clear();
    for (std::string_view rest = given; !rest.empty();) {
        std::string folded;
        std::string unfolded;
        do {
            const std::string_view line = TakeLine(rest);
            const bool continues = !line.empty() && IsBlank(line.front());
            if (const char* const refusal = Refusal(line, continues, folded.empty())) {
                return Refuse(line, refusal, fields);
            }
            folded.append(line).append("\r\n");
            unfolded.append(line);
        } while (!rest.empty() && IsBlank(rest.front()));
        if (!IsAscii(folded)) {
            folded = Encoded(unfolded, charset);
        }
        if (HasLongLine(folded)) {
            return Refuse(unfolded, "is too long", fields);
        }
        fields.append(folded);
    }
    return true;
}
