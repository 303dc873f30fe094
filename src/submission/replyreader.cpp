#include "src/submission/replyreader.h"

#include <algorithm>
#include <utility>

#include "src/submission/headertext.h"

namespace {
constexpr std::size_t kLongestLine = 4096;
constexpr std::size_t kLongestReply = 32768;
constexpr std::size_t kLongestWords = 800;
constexpr std::size_t kCodeLength = 3;
constexpr std::string_view kLineEnd = "\r\n";

bool IsDigit(char c, char first = '0', char last = '9')
{
    return c >= first && c <= last;
}
} // namespace

std::string SubmissionReply::Words() const
{
    std::string words = WithoutControls(std::to_string(code) + " " + text.substr(0, kLongestWords));
    words.erase(words.find_last_not_of(' ') + 1);
    return words;
}

void CReplyReader::Add(std::string_view bytes)
{
    m_input.erase(0, std::exchange(m_taken, 0));
    m_input.append(bytes);
}

void CReplyReader::Reserve()
{
    m_input.reserve(kLongestLine);
    m_reply.text.reserve(kLongestLine);
}

bool CReplyReader::TakeLine(std::string_view line, bool& last)
{
    if (line.size() < kCodeLength || !IsDigit(line[0], '2', '5') || !IsDigit(line[1]) || !IsDigit(line[2]) ||
        line.find('\0') != std::string_view::npos || line.find('\r') != std::string_view::npos) {
        return false;
    }
    const char mark = line.size() > kCodeLength ? line[kCodeLength] : ' ';
    const int code = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
    if ((mark != ' ' && mark != '-') || (m_reply.code != 0 && m_reply.code != code)) {
        return false;
    }
    m_reply.code = code;
    m_reply.text.append(line.substr(std::min(line.size(), kCodeLength + 1))).append("\n");
    last = mark == ' ';
    return m_reply.text.size() <= kLongestReply;
}

ReplyState CReplyReader::Next(SubmissionReply& reply)
{
    for (bool last = false; !last;) {
        const std::string_view rest = std::string_view(m_input).substr(m_taken);
        const std::size_t end = rest.find('\n');
        if (std::min(end, rest.size()) > kLongestLine) {
            return ReplyState::Bad;
        }
        if (end == std::string_view::npos) {
            return ReplyState::More;
        }
        const std::string_view line = rest.substr(0, end + 1);
        if (!line.ends_with(kLineEnd) || !TakeLine(line.substr(0, line.size() - kLineEnd.size()), last)) {
            return ReplyState::Bad; // and stays so: nothing is taken
        }
        m_taken += line.size();
    }
    reply = std::exchange(m_reply, {});
    return ReplyState::Complete;
}
