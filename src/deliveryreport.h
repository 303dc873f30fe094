// What became of a send, for its host: one line for each recipient of each message, in their order, with the
// code and the words that the server had last for it. Belongs to the job of the send.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class CDeliveryReport
{
public:
    static constexpr std::size_t kLongestWords = 512; // bytes of a line

    // The line of the next recipient. Code 0: the server has not answered, the words say why. They are put on
    // one line and cut. Throws nothing, for the mail may be delivered: without memory the report is lost.
    void Add(std::string_view mailbox, int code, std::string_view words) noexcept;
    // Why those that get no line of their own were not served; the first reason counts.
    void Explain(std::string_view reason) noexcept;
    [[nodiscard]] const std::string& GetReason() const { return m_reason; }

    [[nodiscard]] std::size_t GetCount() const { return m_count; }
    // The lines, each with its line feed; empty for a report that was lost.
    [[nodiscard]] const std::string& GetText() const { return m_text; }
    void Lose() noexcept;

private:
    std::string m_text;
    std::string m_reason;
    std::size_t m_count = 0;
    bool m_lost = false;
};

// The words for a recipient whose message was given up with the error `code`; 0 for one without a code.
[[nodiscard]] std::string NotSentWords(int code);
