#include "src/transport/pipeliningfilter.h"

#include <cctype>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kHiddenKeyword = "PIPELINING";
// The transport reads replies into a buffer of this size; a longer line is two lines to it.
constexpr std::size_t kLongestLine = 1023;

bool IsAtomCharacter(char c)
{
    return c > ' ' && c <= '~' && std::strchr("\"()<>[]@,;:\\.", c) == nullptr;
}

} // namespace

void CPipeliningFilter::EndLine()
{
    m_firstLine = false;
    if (!m_more) {
        ++m_reply;
        m_firstLine = true;
    }
    m_more = false;
    m_place = Place::Code;
    m_digits = false;
    m_column = 0;
    m_matched = 0;
}

// Whether `letter` completes the keyword; what follows it in this piece must not belong to the same word.
bool CPipeliningFilter::IsHidden(const char* letter, const char* end)
{
    if (std::toupper(static_cast<unsigned char>(*letter)) != kHiddenKeyword[m_matched]) {
        m_place = Place::Rest;
        return false;
    }
    if (++m_matched < kHiddenKeyword.size()) {
        return false;
    }
    m_place = Place::Rest;
    return m_reply == 1 && !m_firstLine && (letter + 1 == end || !IsAtomCharacter(letter[1]));
}

// The reply code as the transport reads it: blanks and a sign may stand before the digits.
void CPipeliningFilter::ReadCode(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (std::isdigit(byte) != 0) {
        m_digits = true;
    } else if (m_digits && (c == '-' || c == ' ')) {
        m_more = c == '-';
        m_place = Place::Blanks;
    } else if (m_digits || (std::isspace(byte) == 0 && c != '+')) {
        m_place = Place::Rest;
    }
}

void CPipeliningFilter::Filter(char* data, std::size_t length)
{
    const char* const end = data + length;
    for (char* letter = data; letter != end; ++letter) {
        const char c = *letter;
        ++m_column;
        if (m_place == Place::Code) {
            ReadCode(c);
        } else if (m_place == Place::Blanks && std::isspace(static_cast<unsigned char>(c)) == 0) {
            m_place = Place::Keyword;
        }
        if (m_place == Place::Keyword && IsHidden(letter, end)) {
            *letter = '_';
        }
        if (c == '\n' || m_column == kLongestLine) {
            EndLine();
        }
    }
}
