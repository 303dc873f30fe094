#include "src/submission/contenttype.h"

#include <algorithm>

#include "src/submission/ascii.h"
#include "src/submission/headertext.h"

namespace {

constexpr std::size_t kLongest = 900; // with the field's name it stays one legal line wherever it is folded

void SkipBlanks(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

// What ends a type, a parameter's name and its value. The value may be a quoted string.
std::string_view TakeUntil(std::string_view& text, std::string_view ends)
{
    const std::string_view taken = text.substr(0, text.find_first_of(ends));
    text.remove_prefix(taken.size());
    return taken;
}

// A quoted string of visible ASCII and blanks, with its quotes; empty when it is none.
std::string_view TakeQuoted(std::string_view& text)
{
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') {
            const std::string_view quoted = text.substr(0, i + 1);
            text.remove_prefix(i + 1);
            return quoted;
        }
        i += text[i] == '\\' ? 1 : 0;
        if (i == text.size() || !(IsVisible(text[i]) || text[i] == ' ')) {
            break;
        }
    }
    return {};
}

bool ParseParameters(std::string_view rest, ContentType& parsed)
{
    for (SkipBlanks(rest); !rest.empty(); SkipBlanks(rest)) {
        if (rest.front() != ';') {
            return false;
        }
        rest.remove_prefix(1);
        SkipBlanks(rest);
        if (rest.empty() || rest.front() == ';') {
            continue; // a separator too many
        }
        const std::string_view name = TakeUntil(rest, "=");
        rest.remove_prefix(std::min<std::size_t>(1, rest.size()));
        const bool quoted = rest.starts_with('"');
        const std::string_view value = quoted ? TakeQuoted(rest) : TakeUntil(rest, "; \t");
        if (!IsToken(name) || value.empty() || !(quoted || IsToken(value)) || parsed.Has(name)) {
            return false;
        }
        parsed.parameters.emplace_back(name, value);
    }
    return true;
}

struct Extension
{
    const char* extension;
    const char* type;
};

// What offices send. Mails are not among them: their type must not be encoded, and attachments are.
constexpr Extension kExtensions[] = {
    {"7z", "application/x-7z-compressed"},
    {"bmp", "image/bmp"},
    {"csv", "text/csv"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"gif", "image/gif"},
    {"gz", "application/gzip"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"ics", "text/calendar"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"json", "application/json"},
    {"log", "text/plain"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"odp", "application/vnd.oasis.opendocument.presentation"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"rtf", "application/rtf"},
    {"svg", "image/svg+xml"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"txt", "text/plain"},
    {"vcf", "text/vcard"},
    {"webp", "image/webp"},
    {"xls", "application/vnd.ms-excel"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"xml", "application/xml"},
    {"zip", "application/zip"},
};

} // namespace

bool ContentType::Has(std::string_view parameter) const
{
    return std::any_of(parameters.begin(), parameters.end(),
                       [parameter](const auto& entry) { return EqualIgnoringCase(entry.first, parameter); });
}

bool ContentType::Is(std::string_view mainType) const
{
    return EqualIgnoringCase(std::string_view(type).substr(0, mainType.size()), mainType);
}

std::string ContentType::Field() const
{
    std::string field;
    CHeaderFolder folder(field);
    folder.Begin("Content-Type:");
    std::string word = type;
    for (const auto& [name, value] : parameters) {
        folder.Add(word += ';');
        word = name;
        word.append("=").append(value);
    }
    folder.Add(word);
    return field;
}

bool ParseContentType(std::string_view text, ContentType& parsed)
{
    parsed = {};
    if (text.size() > kLongest) {
        return false;
    }
    SkipBlanks(text);
    const std::string_view type = TakeUntil(text, "; \t");
    const std::size_t slash = std::min(type.find('/'), type.size());
    if (!IsToken(type.substr(0, slash)) || !IsToken(type.substr(std::min(slash + 1, type.size())))) {
        return false;
    }
    parsed.type = type;
    return ParseParameters(text, parsed);
}

const char* ContentTypeOfFile(std::string_view name)
{
    const std::size_t dot = name.rfind('.');
    const std::string_view extension = dot == std::string_view::npos ? "" : name.substr(dot + 1);
    for (const Extension& known : kExtensions) {
        if (EqualIgnoringCase(extension, known.extension)) {
            return known.type;
        }
    }
    return "application/octet-stream";
}
