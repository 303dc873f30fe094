// The monitor of one session's dialogue: traces what is sent and received, hides PIPELINING from the
// transport, and knows how far the dialogue has come.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "src/transport/pipeliningfilter.h"

class CDialogueMonitor
{
public:
    // Whether the dialogue is traced; it is not unless told so.
    void SetTraced(bool traced) { m_traced = traced; }
    // A connection begins.
    void Reset()
    {
        m_filter.Reset();
        m_received = 0;
        m_sent = 0;
        m_refusalSize = 0;
        m_replyBegins = true;
        m_greeting = true;
    }
    // A message begins, before which the transport writes so many header fields.
    void BeginMessage(int fieldCount)
    {
        m_fieldsToCome = fieldCount;
        m_fieldLost = false;
    }
    // Whether all of them have been written: it leaves out, and cuts, without an error what it has no memory
    // for.
    [[nodiscard]] bool IsHeaderWhole() const { return m_fieldsToCome <= 0 && !m_fieldLost; }
    // Whether the last command sent was DATA: the message follows as one stream, not in chunks that are each
    // answered.
    [[nodiscard]] bool IsInData() const { return m_inData; }
    // Bytes read from the server and written to it on this connection, without what a message has: while one
    // in chunks is sent, and from then on, the transport shows neither.
    [[nodiscard]] std::uint64_t GetReceived() const { return m_received; }
    [[nodiscard]] std::uint64_t GetSent() const { return m_sent; }
    // What the server refused the client with, before any message, as it came; cut where it is very long.
    // Empty when it did not.
    [[nodiscard]] std::string_view GetRefusal() const { return {m_refusal.data(), m_refusalSize}; }
    // The transport's monitor callback; `argument` is the monitor. Leaves errno as it was.
    static void Callback(const char* data, int length, int writing, void* argument);

private:
    void KeepRefusal(std::string_view received);

    CPipeliningFilter m_filter;
    bool m_traced = false;
    bool m_inData = false;
    std::uint64_t m_received = 0;
    std::uint64_t m_sent = 0;
    int m_fieldsToCome = 0;
    bool m_fieldLost = false;
    std::array<char, 1024> m_refusal = {};
    std::size_t m_refusalSize = 0;
    bool m_greeting = true; // no message has begun
    bool m_replyBegins = true;
    bool m_refusing = false; // the reply that is coming in
};
