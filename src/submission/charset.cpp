#include "src/submission/charset.h"

#include <algorithm>
#include <array>

#include "src/submission/ascii.h"

namespace {

constexpr const char* kNames[] = {"", "UTF-8", "ISO-8859-1", "WINDOWS-1252"}; // in Charset's order

// The characters 0x80 to 0x9F of Windows-1252; all others are their own code points.
constexpr std::array<char16_t, 32> kWindows1252 = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};

void AppendUtf8(std::string& text, unsigned code)
{
    if (code < 0x80) {
        text += static_cast<char>(code);
    } else if (code < 0x800) {
        text += static_cast<char>(0xC0U | code >> 6U);
        text += static_cast<char>(0x80U | (code & 0x3FU));
    } else {
        text += static_cast<char>(0xE0U | code >> 12U);
        text += static_cast<char>(0x80U | (code >> 6U & 0x3FU));
        text += static_cast<char>(0x80U | (code & 0x3FU));
    }
}

} // namespace

bool ParseCharset(std::string_view name, Charset& charset)
{
    const auto* const known =
        std::ranges::find_if(kNames, [name](const char* each) { return EqualIgnoringCase(name, each); });
    charset = static_cast<Charset>(known - std::begin(kNames));
    return known != std::end(kNames);
}

const char* CharsetLabel(Charset charset, bool isUtf8)
{
    const Charset known = charset != Charset::Detect ? charset
                          : isUtf8                   ? Charset::Utf8
                                                     : Charset::Windows1252;
    return kNames[static_cast<std::size_t>(known)];
}

void CUtf8Check::AddLead(unsigned char byte)
{
    m_low = 0x80;
    m_high = 0xBF;
    if (byte < 0x80) {
        return;
    }
    m_failed = byte < 0xC2 || byte > 0xF4; // longer than needed, or beyond the last character
    m_following = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
    if (byte == 0xE0) {
        m_low = 0xA0;
    } else if (byte == 0xED) {
        m_high = 0x9F; // no surrogates
    } else if (byte == 0xF0) {
        m_low = 0x90;
    } else if (byte == 0xF4) {
        m_high = 0x8F;
    }
}

void CUtf8Check::Add(std::string_view bytes)
{
    if (m_following == 0 && IsAscii(bytes)) {
        return;
    }
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (m_failed) {
            return;
        }
        if (m_following == 0) {
            AddLead(byte);
        } else {
            m_failed = byte < m_low || byte > m_high;
            --m_following;
            m_low = 0x80;
            m_high = 0xBF;
        }
    }
}

std::string ToUtf8(std::string_view bytes, Charset charset)
{
    CUtf8Check check;
    check.Add(bytes);
    if (IsAscii(bytes) || ((charset == Charset::Detect || charset == Charset::Utf8) && check.IsValid())) {
        return std::string(bytes);
    }
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        AppendUtf8(text, byte >= 0x80 && byte < 0xA0 ? kWindows1252[byte - 0x80U] : byte);
    }
    return text;
}
