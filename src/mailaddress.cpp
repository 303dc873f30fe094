#include "src/mailaddress.h"

#include <algorithm>

namespace {
constexpr std::string_view kLocalExtra = "0123456789.!#$%&'*+-/=?^_`{|}~";
constexpr std::string_view kLabelExtra = "0123456789-";
constexpr std::size_t kLongestLocalPart = 64;
constexpr std::size_t kLongestDomain = 255;
constexpr std::size_t kLongestLabel = 63;

// Whatever the locale says.
bool IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool ConsistsOf(std::string_view text, std::string_view extra)
{
    return std::all_of(text.begin(), text.end(),
                       [extra](char c) { return IsLetter(c) || extra.find(c) != std::string_view::npos; });
}

bool IsLabel(std::string_view label)
{
    return !label.empty() && label.size() <= kLongestLabel && IsLetter(label.front()) &&
           ConsistsOf(label, kLabelExtra);
}

bool IsDomain(std::string_view domain)
{
    if (domain.empty() || domain.size() > kLongestDomain) {
        return false;
    }
    // As in the list properties: an empty last piece is none, so one dot at the end is accepted.
    while (!domain.empty()) {
        const std::size_t dot = std::min(domain.find('.'), domain.size());
        if (!IsLabel(domain.substr(0, dot))) {
            return false;
        }
        domain.remove_prefix(std::min(dot + 1, domain.size()));
    }
    return true;
}
} // namespace

bool CMailAddress::IsValidAddress(const CEString& address)
{
    const std::string_view text = address.View();
    const std::size_t at = text.find('@');
    if (at == std::string_view::npos || at == 0 || at > kLongestLocalPart) {
        return false;
    }
    return ConsistsOf(text.substr(0, at), kLocalExtra) && IsDomain(text.substr(at + 1));
}
