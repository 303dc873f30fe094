// Hides one thing of the server from the transport: that it offers PIPELINING. The transport ends the process
// when such a server hangs up with two answers outstanding.
#pragma once

#include <cstddef>
#include <cstdint>

// Reads the replies of one connection as the transport will and spoils the last letter of PIPELINING in the
// reply to EHLO, the second of a connection. It touches nothing else and may be fed in pieces of any size.
// Known limit: a keyword that continues after PIPELINING is spoilt too when a piece ends there; the transport
// knows no such keyword.
class CPipeliningFilter
{
public:
    void Reset() { *this = CPipeliningFilter(); }
    void Filter(char* data, std::size_t length);
    // The reply to EHLO has ended: nothing that follows is changed.
    [[nodiscard]] bool IsDone() const { return m_reply > 1; }

private:
    enum class Place : std::uint8_t
    {
        Code,
        Blanks,
        Keyword,
        Rest
    };
    void ReadCode(char c);
    void EndLine();
    [[nodiscard]] bool IsHidden(const char* letter, const char* end);

    int m_reply = 0;             // 0 the greeting, 1 the reply to EHLO
    bool m_firstLine = true;     // of the current reply
    bool m_more = false;         // the current line announces another one
    Place m_place = Place::Code; // in the current line
    bool m_digits = false;       // of the reply code have been read
    std::size_t m_column = 0;
    std::size_t m_matched = 0; // letters of the keyword
};
