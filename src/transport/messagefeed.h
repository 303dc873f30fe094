// Feeds the transport: pulls a message from its source into one buffer and hands that over whole, so that a
// server with CHUNKING gets a few large BDAT commands. Speaks the transport's errno protocol, and nobody else
// does. One a session.
//
// The end of a message is null with errno 0; null with any other errno makes the transport drop the
// connection, so a message whose composition failed is never ended as if it were complete.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "src/messagesource.h"
#include "src/sendprogress.h"
#include "src/transport/dialoguemonitor.h"
#include "src/transport/transportsocket.h"

// What a message callback of the transport returns: `bytes` with errno `error`. Every return of every such
// callback comes from here, for the errno must be set on purpose.
[[nodiscard]] const char* TellTransport(const char* bytes, int error = 0);

class CMessageFeed
{
public:
    using Clock = std::int64_t (*)(); // milliseconds
    // What is handed over at once, which doubles from the first number to the second. More of a message in
    // chunks, each of which is answered before the next one goes out; little of a stream, since most mails
    // are small. Chunks that fill whole segments stay as they are.
    static constexpr std::int32_t kFirstInChunks = 65'536;
    static constexpr std::int32_t kMostInChunks = 524'288;
    static constexpr std::int32_t kFirstInStream = 8'192;
    static constexpr std::int32_t kMostInStream = 65'536;
    // The transport throws a buffer away when the server takes no data for this long, and goes on behind the
    // hole; unless it was told another time.
    static constexpr std::int64_t kStallMilliseconds = 180'000;
    // It holds a line whole, and ends the process when there is no memory for it.
    static constexpr std::int64_t kLongestLine = 16'000'000;

    // All three must outlive the feed.
    CMessageFeed(CMessageSource& source, CDialogueMonitor& monitor, CTransportSocket& socket, Clock clock);

    // The transport throws a buffer away after so many milliseconds. What is handed over at once then stays
    // small: each write of it may wait as long before the stall is noticed.
    void SetStallLimit(std::int64_t milliseconds)
    {
        m_stallLimit = milliseconds;
        m_growing = false;
    }
    // A dialogue begins, of one message or several.
    void BeginDialogue(bool several, const CSendProgress& progress)
    {
        m_several = several;
        m_progress = progress;
        m_failure = 0;
    }
    // Why the last message of the dialogue was given up: an errno, ETIMEDOUT when the server took no data,
    // ECANCELED when the host has cancelled, 0 when it was not.
    [[nodiscard]] int GetFailure() const { return m_failure; }
    // The transport has written a line of the message, which it gathers in its buffer. Returns whether the
    // next one matters too.
    bool NoteLine(int length);
    // Both as the transport's callback answers. Begins the message of `job`, or begins it anew, behind so
    // many header fields that the transport writes itself; always null.
    const char* Begin(CMail& job, int fieldCount);
    // The next chunk, valid until the next call, with its length; null at the end. A message whose header
    // fields were not all written does not end: that is error 10.
    const char* Next(int& length);
    // The transport's session ends, and with it the place of the lengths it asks for.
    void Forget() { m_unread = nullptr; }

private:
    Pulled Pull(std::int32_t used);
    Pulled FailForMemory();
    [[nodiscard]] bool FitsOneWrite() const;
    void SendRest();
    void LookEarly(std::int32_t first);
    std::int32_t Shape(std::int32_t used);
    bool HasStalled();
    bool IsCancelled();
    bool IsLineTooLong(std::string_view pulled);
    void MakeRoom(std::int32_t used);

    CMessageSource& m_source;
    CDialogueMonitor& m_monitor;
    CTransportSocket& m_socket;
    Clock m_clock;
    std::unique_ptr<char[]> m_buffer; // made by the first message
    std::int32_t m_size = 0;          // of the buffer
    std::int32_t m_room = 0;          // of it, for the next chunk
    bool m_ended = false;
    int m_failure = 0;              // an errno; stays until the message is begun anew
    std::int64_t m_handedOver = -1; // when the last chunk was; -1: none yet
    std::int64_t m_lineLength = 0;
    bool m_several = false;
    std::int64_t m_stallLimit = kStallMilliseconds;
    bool m_growing = true;
    CSendProgress m_progress;
    std::size_t m_written = 0; // by the transport of this message, at most; counted to one write
    std::uint64_t m_bytes = 0; // of this message that were handed over
    std::int32_t m_heldAt = 0; // what was pulled and not handed over, in the buffer
    std::int32_t m_held = 0;
    int* m_unread = nullptr; // the transport's count of bytes it has still to read from the last chunk
};
