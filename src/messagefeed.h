// Stands between the composer and libESMTP: gathers the composer's small chunks in one fixed buffer, so that
// a server with CHUNKING gets a few large BDAT commands, and speaks libESMTP's errno protocol. One a session.
//
// The end of a message is null with errno 0; null with any other errno makes libESMTP drop the connection, so
// a message whose composition failed is never ended as if it were complete. Every return sets errno on
// purpose.
#pragma once

#include <cstdint>
#include <memory>

#include "src/libesmtp.h"

class CMail;

class CMessageFeed
{
public:
    using Clock = std::int64_t (*)(); // milliseconds
    static constexpr int kBufferSize = 65536;
    // libESMTP throws a buffer away when the server takes no data for this long, and goes on behind the hole.
    static constexpr std::int64_t kStallMilliseconds = 180'000;
    // It holds a line whole, and ends the process when there is no memory for it.
    static constexpr std::int64_t kLongestLine = 16'000'000;

    explicit CMessageFeed(Clock clock);

    // Begins the message anew.
    void Rewind(smtp_messagecb_t compose, CMail* job);
    // The next chunk, valid until the next call, with its length; null at the end. `compose` gives the
    // pieces, of at most CompositionState::kCapacity bytes each.
    const char* Next(smtp_messagecb_t compose, CMail* job, int& length);
    // The message cannot be completed, for the reason `error` (an errno): it will not be ended.
    void Fail(int error) { m_failure = error; }
    // The transport's session ends, and with it the place of the lengths it asks for.
    void Forget() { m_unread = nullptr; }

private:
    bool HasStalled();
    bool IsLineTooLong(const char* piece, int length);
    const char* GiveUp(int error);

    std::unique_ptr<char[]> m_buffer;
    Clock m_clock;
    std::int64_t m_handedOver = -1; // when the last chunk was; -1: none yet
    bool m_ended = false;
    int m_failure = 0; // stays until the message is begun anew
    std::int64_t m_lineLength = 0;
    int* m_unread = nullptr; // the transport's count of bytes it has still to read from the last chunk
};
