// Reads a server's replies: strict, since what follows a misread reply is a guess, and bounded. One
// connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct SubmissionReply
{
    int code = 0;
    std::string text{}; // the lines behind the code, each with a line feed

    [[nodiscard]] bool IsPositive() const { return code >= 200 && code <= 299; }
    [[nodiscard]] bool IsRefusal() const { return code >= 400 && code <= 599; }
    // The code and the lines as one line for people, bounded, without control characters.
    [[nodiscard]] std::string Words() const;
};

enum class ReplyState : std::uint8_t
{
    More,
    Complete,
    Bad // for good: the bytes are no SMTP
};

class CReplyReader
{
public:
    // Bytes as they arrived. What was taken out before is forgotten.
    void Add(std::string_view bytes);
    // Takes the memory for a reply of common size, which is then read without taking any.
    void Reserve();
    // The next reply. Bad: a line that is no reply line or too long, two codes in one reply.
    [[nodiscard]] ReplyState Next(SubmissionReply& reply);
    // Whether there are bytes behind the last reply.
    [[nodiscard]] bool HasUnread() const { return m_taken < m_input.size() || m_reply.code != 0; }

private:
    [[nodiscard]] bool TakeLine(std::string_view line, bool& last);

    std::string m_input;
    std::size_t m_taken = 0;
    SubmissionReply m_reply; // its lines so far
};
