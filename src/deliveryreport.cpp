#include "src/deliveryreport.h"

#include <new>

#include "src-baselib/errorcodes.h"
#include "src/errortexts.h"

namespace {

// On one line: control bytes, however many, as a blank, and none at the end.
void AppendOnLine(std::string& text, std::string_view piece)
{
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
    while (!piece.empty() && (isControl(piece.back()) || piece.back() == ' ')) {
        piece.remove_suffix(1);
    }
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (!isControl(piece[i])) {
            text += piece[i];
        } else if (i == 0 || !isControl(piece[i - 1])) {
            text += ' ';
        }
    }
}

} // namespace

void CDeliveryReport::Add(std::string_view mailbox, int code, std::string_view words) noexcept
{
    ++m_count;
    try {
        if (!m_lost) {
            m_text += std::to_string(code) + " ";
            AppendOnLine(m_text, mailbox);
            m_text += ' ';
            AppendOnLine(m_text, words.substr(0, kLongestWords));
            m_text += '\n';
        }
    } catch (const std::bad_alloc&) {
        Lose();
    }
}

void CDeliveryReport::Explain(std::string_view reason) noexcept
{
    try {
        if (m_reason.empty()) {
            m_reason = reason;
        }
    } catch (const std::bad_alloc&) {
        Lose();
    }
}

void CDeliveryReport::Lose() noexcept
{
    m_lost = true;
    m_text.clear();
}

std::string NotSentWords(int code)
{
    if (code == codes::kCancelled) { // whose text is of the mail client
        return "not sent: cancelled";
    }
    const char* const text = code == 0 ? nullptr : FindErrorText(kEnglishTexts, code);
    return text == nullptr ? "not sent" : std::string("not sent: ") + text;
}
