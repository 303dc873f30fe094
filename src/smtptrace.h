// The trace of the SMTP dialogue, and the one correction of it: the transport must not learn that a server
// offers PIPELINING, because it ends the process when such a server hangs up with two answers outstanding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// Where the transport's own entries go.
using TransportTrace = void (*)(const char* format, ...);
// One for the process; the same one is set by every session. Null switches the entries off.
void SetTransportTrace(TransportTrace trace);
[[nodiscard]] TransportTrace GetTransportTrace();

// Writes an entry to the calling thread's trace. A format of 2048 characters or more is written as it stands.
[[gnu::format(printf, 1, 2)]] void TraceSink(const char* format, ...);

// "Connection refused." and its like for a Windows Sockets code; null for an unknown one.
[[nodiscard]] const char* SocketCodeText(int code);
// The same for an error number of the platform's socket calls.
[[nodiscard]] const char* SocketErrorText(int error);

// Reads the replies of one connection as the transport will and spoils the last letter of PIPELINING in the
// reply to EHLO, the second of a connection. It touches nothing else and may be fed in pieces of any size.
// Known limit: a keyword that continues after PIPELINING is spoilt too when a piece ends there; the transport
// knows no such keyword.
class CPipeliningFilter
{
public:
    void Reset() { *this = CPipeliningFilter(); }
    void Filter(char* data, std::size_t length);

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

// The monitor of one session: traces what is sent and received, then filters what is received.
class CDialogueMonitor
{
public:
    // A connection begins.
    void Reset()
    {
        m_filter.Reset();
        m_received = 0;
    }
    // Whether the last command sent was DATA: the message follows as one stream, not in chunks that are each
    // answered.
    [[nodiscard]] bool IsInData() const { return m_inData; }
    // Bytes read from the server on this connection.
    [[nodiscard]] std::uint64_t GetReceived() const { return m_received; }
    // The transport's monitor callback; `argument` is the monitor. Leaves errno as it was.
    static void Callback(const char* data, int length, int writing, void* argument);

private:
    CPipeliningFilter m_filter;
    bool m_inData = false;
    std::uint64_t m_received = 0;
};
