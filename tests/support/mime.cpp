#include "mime.h"

#include <algorithm>
#include <cctype>

namespace {
std::string_view TakeLine(std::string_view& text)
{
    const std::size_t end = std::min(text.find("\r\n"), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 2, text.size()));
    return line;
}

bool SameLetter(unsigned char a, unsigned char b)
{
    return std::tolower(a) == std::tolower(b);
}
} // namespace

std::vector<std::string> CMessageText::Values(std::string_view name) const
{
    std::vector<std::string> values;
    for (const auto& [fieldName, value] : headers)
        if (std::ranges::equal(fieldName, name, SameLetter))
            values.push_back(value);
    return values;
}

CMessageText SplitMessage(std::string_view message)
{
    CMessageText result;
    for (std::string_view line; !(line = TakeLine(message)).empty();) {
        const std::size_t colon = line.find(':');
        if (line.find_first_of(" \t") == 0 && !result.headers.empty())
            result.headers.back().second += line;
        else if (colon == std::string_view::npos)
            result.headers.emplace_back("", line);
        else
            result.headers.emplace_back(
                line.substr(0, colon),
                line.substr(colon + (line.substr(colon + 1).starts_with(' ') ? 2 : 1)));
    }
    result.body = message;
    return result;
}

CMultipart SplitMultipart(std::string_view body, std::string_view boundary)
{
    CMultipart result;
    const std::string text = "\r\n" + std::string(body);
    const std::string delimiter = "\r\n--" + std::string(boundary);
    std::size_t at = text.find(delimiter);
    result.preamble = text.substr(0, at).erase(0, 2);
    while (at != std::string::npos) {
        at += delimiter.size();
        result.closed = text.compare(at, 2, "--") == 0;
        if (result.closed) {
            result.epilogue = text.substr(at + 2);
            break;
        }
        const std::size_t next = text.find(delimiter, at);
        const std::string part = text.substr(at, next - at);
        const std::size_t gap = std::min(part.find("\r\n\r\n"), part.size());
        result.parts.emplace_back(part.substr(0, gap).erase(0, 2),
                                  part.substr(std::min(gap + 4, part.size())));
        at = next;
    }
    return result;
}

std::optional<std::string> DecodeBase64(std::string_view text)
{
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string digits;
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        if (line.empty() || line.size() > 76 || line.size() % 4 != 0)
            return std::nullopt;
        digits += line;
    }
    const std::size_t last = digits.find_last_not_of('=') + 1;
    const std::size_t padding = digits.size() - last;
    std::string bytes;
    unsigned bits = 0;
    for (std::size_t i = 0; i < last; ++i) {
        const std::size_t value = alphabet.find(digits[i]);
        if (value == std::string_view::npos)
            return std::nullopt;
        bits = (bits << 6 | static_cast<unsigned>(value)) & 0xFFFFFFU;
        if (i % 4 != 0)
            bytes += static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xFFU);
    }
    // The bits under the padding must be zero.
    const bool clean = padding <= 2 && (bits & ((1U << (2 * padding)) - 1)) == 0;
    return clean ? std::optional(bytes) : std::nullopt;
}
