#include "src/submission/textencoding.h"

#include "src/submission/ascii.h"
#include "src/submission/headertext.h"

namespace {

constexpr std::size_t kLongestLine = CHeaderFolder::kLongLine;
constexpr std::size_t kQuotedLine = 75; // and the "=" of a line that goes on

// Hands the text between line ends to `onText` and each line end to `onLineEnd`.
template<class OnText, class OnLineEnd>
void SplitLines(std::string_view piece, bool& afterCr, OnText onText, OnLineEnd onLineEnd)
{
    while (!piece.empty()) {
        if (afterCr && piece.front() == '\n') { // its second half
            afterCr = false;
            piece.remove_prefix(1);
            continue;
        }
        std::string_view text = piece.substr(0, piece.find('\r'));
        text = text.substr(0, text.find('\n'));
        afterCr = false;
        if (!text.empty()) {
            onText(text);
        }
        piece.remove_prefix(text.size());
        if (!piece.empty()) {
            onLineEnd();
            afterCr = piece.front() == '\r';
            piece.remove_prefix(1);
        }
    }
}

// ASCII without NUL.
bool IsPlainText(std::string_view text)
{
    return CountOf(text, [](char c) { return static_cast<signed char>(c) <= 0; }) == 0;
}

constexpr bool IsEscaped(char c)
{
    return !(IsVisible(c) || IsBlank(c)) || c == '=';
}

// As above, but for line ends, without a branch.
bool IsEscapedInLine(char c)
{
    const bool control = static_cast<unsigned char>(c) < ' ';
    const bool kept = (c == '\t') | (c == '\r') | (c == '\n');
    return (control & !kept) | (static_cast<unsigned char>(c) >= 0x7F) | (c == '=');
}

} // namespace

void CTextScan::Add(std::string_view piece)
{
    m_utf8.Add(piece);
    m_plain = m_plain && IsPlainText(piece);
    m_escaped += static_cast<std::int64_t>(CountOf(piece, IsEscapedInLine));
    SplitLines(
        piece, m_afterCr,
        [this](std::string_view text) {
            m_column += text.size();
            m_plain = m_plain && m_column <= kLongestLine;
            m_bytes += static_cast<std::int64_t>(text.size());
        },
        [this] {
            m_column = 0;
            ++m_lines;
        });
}

std::int64_t CTextScan::EncodedSize() const
{
    if (m_plain) {
        return m_bytes + 2 * (m_lines + 1);
    }
    // Each line may begin with an escaped dot and end in an escaped blank, and what is broken is nearly full.
    const std::int64_t characters = m_bytes + 2 * m_escaped + 6 * (m_lines + 1);
    return characters + 5 * (characters / static_cast<std::int64_t>(kQuotedLine - 2) + 1);
}

bool CTextEncoder::Add(std::string_view piece, std::string& out)
{
    bool succeeded = !m_plain || IsPlainText(piece);
    SplitLines(
        piece, m_afterCr,
        [&](std::string_view text) {
            if (!m_plain) {
                AddQuoted(text, out);
                return;
            }
            out.append(text);
            m_column += text.size();
            succeeded = succeeded && m_column <= kLongestLine;
        },
        [&] { EndLine(out); });
    return succeeded;
}

void CTextEncoder::End(bool lineEnd, std::string& out)
{
    if (lineEnd && (m_column > 0 || m_blank != 0)) {
        EndLine(out);
    } else {
        PutBlank(true, out);
    }
}

void CTextEncoder::AddQuoted(std::string_view text, std::string& out)
{
    for (const char c : text) {
        PutBlank(false, out);
        if (IsBlank(c)) {
            m_blank = c;
        } else {
            Put(c, IsEscaped(c), out);
        }
    }
}

void CTextEncoder::PutBlank(bool escaped, std::string& out)
{
    if (m_blank != 0) {
        Put(m_blank, escaped, out);
        m_blank = 0;
    }
}

void CTextEncoder::Put(char c, bool escaped, std::string& out)
{
    if (m_column + (escaped ? 3 : 1) > kQuotedLine) {
        out += "=\r\n";
        m_column = 0;
    }
    escaped = escaped || (c == '.' && m_column == 0); // a dot first means something to SMTP
    if (escaped) {
        AppendHex(out, '=', c);
    } else {
        out += c;
    }
    m_column += escaped ? 3 : 1;
}

void CTextEncoder::EndLine(std::string& out)
{
    PutBlank(true, out);
    out += "\r\n";
    m_column = 0;
}
