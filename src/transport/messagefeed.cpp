#include "src/transport/messagefeed.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

const char* TellTransport(const char* bytes, int error)
{
    errno = error;
    return bytes;
}

CMessageFeed::CMessageFeed(CMessageSource& source, CDialogueMonitor& monitor, CTransportSocket& socket,
                           Clock clock)
    : m_source(source), m_monitor(monitor), m_socket(socket), m_clock(clock)
{
}

const char* CMessageFeed::Begin(CMail& job, int fieldCount)
{
    m_monitor.BeginMessage(fieldCount);
    // What the transport left unread of a message that was refused on its way would begin this one.
    if (m_unread != nullptr) {
        *m_unread = 0;
    }
    m_room = m_monitor.IsInData() ? kFirstInStream : kFirstInChunks;
    m_ended = false;
    m_failure = 0;
    m_handedOver = -1;
    m_lineLength = 0;
    m_bytes = 0;
    m_held = 0;
    // Behind other messages of the dialogue the bytes sent are not known: what may be needed is found before.
    m_written = m_several ? CTransportSocket::kWrite : 0;
    // A stream of small writes is best gathered. Chunks are each answered: the end of each has to go out, and
    // from the first of them on the dialogue shows nothing any more.
    if (!m_monitor.IsInData()) {
        m_socket.Look({.received = m_monitor.GetReceived(), .sent = m_monitor.GetSent(), .exact = true});
    }
    m_socket.SendAtOnce(!m_monitor.IsInData());
    m_source.Begin(job);
    return TellTransport(nullptr);
}

bool CMessageFeed::HasStalled()
{
    if (m_handedOver < 0 || m_clock() - m_handedOver < m_stallLimit) {
        return false;
    }
    Trace(TraceLevel::Error, "Error: The server took no data for %d seconds. The message is given up.",
          static_cast<int>(m_stallLimit / 1000));
    return true;
}

bool CMessageFeed::IsCancelled()
{
    if (!m_progress.IsCancelled()) {
        return false;
    }
    Trace(TraceLevel::Error, "Error: %s", kCancelledText);
    RaiseError(codes::kCancelled, kCancelledText);
    return true;
}

// A line that ends within what was pulled is never too long: only the last one is looked at.
bool CMessageFeed::IsLineTooLong(std::string_view pulled)
{
    const std::size_t lineEnd = pulled.rfind('\n');
    m_lineLength = lineEnd == std::string_view::npos ? m_lineLength + static_cast<std::int64_t>(pulled.size())
                                                     : static_cast<std::int64_t>(pulled.size() - lineEnd) - 1;
    if (m_lineLength <= kLongestLine) {
        return false;
    }
    static constexpr const char* kText = "ERROR: A line of the mail text is too long.";
    Trace(TraceLevel::Error, "%s", kText);
    RaiseError(codes::kMailText, kText);
    return true;
}

void CMessageFeed::MakeRoom(std::int32_t used)
{
    if (m_room <= m_size) {
        return;
    }
    std::unique_ptr<char[]> larger(new (std::nothrow) char[static_cast<std::size_t>(m_room)]);
    if (!larger && !m_buffer) {
        throw std::bad_alloc();
    }
    if (larger) {
        std::copy_n(m_buffer.get(), used, larger.get());
        m_buffer = std::move(larger);
        m_size = m_room;
    }
    m_room = m_size;
}

Pulled CMessageFeed::FailForMemory()
{
    try {
        RaiseError(codes::kNotEnoughMemory, "Not enough memory.");
    } catch (const std::exception&) {
        // Not even the trace line could be written; the error itself is pending.
    }
    m_failure = ENOMEM;
    return {0, PullState::Failed};
}

// Called through the transport's frames, which no exception may cross.
Pulled CMessageFeed::Pull(std::int32_t used)
{
    try {
        MakeRoom(used);
        return m_source.Next(m_buffer.get() + used, m_room - used);
    } catch (const std::exception&) {
        return FailForMemory();
    }
}

bool CMessageFeed::NoteLine(int length)
{
    m_written += static_cast<std::size_t>(length) + 1; // a dot may come before it
    return FitsOneWrite();
}

// Whether the message, as far as it was written, goes out in one write of the transport.
bool CMessageFeed::FitsOneWrite() const
{
    static constexpr std::size_t kEnds = 5; // the empty line behind the header, the final dot
    return m_written + kEnds <= CTransportSocket::kWrite;
}

// What is left in the transport's buffer must not wait for an answer.
void CMessageFeed::SendRest()
{
    if (!m_monitor.IsInData()) {
        m_socket.SendAtOnce(true); // the end of the chunks fills no segment
    } else if (!FitsOneWrite()) {
        static constexpr std::uint64_t kField = 100; // the composer's, which the transport may have dropped
        const std::uint64_t text = std::max(m_bytes, kField) - kField;
        m_socket.Look({.received = m_monitor.GetReceived(),
                       .sent = m_monitor.GetSent() + text - text % CTransportSocket::kWrite});
        m_socket.SendAtOnce(true);
    }
}

// Nothing of a message was handed over yet but its first chunk. The socket of one that fits one write is not
// needed.
void CMessageFeed::LookEarly(std::int32_t first)
{
    static constexpr std::size_t kHeader = 600; // the transport's, mostly
    if (m_monitor.IsInData() && static_cast<std::size_t>(first) + kHeader > CTransportSocket::kWrite) {
        m_socket.LookAmongOthers(
            {.received = m_monitor.GetReceived(), .sent = m_monitor.GetSent(), .exact = true});
    }
}

// How much of what was pulled is handed over. The first chunk, which the transport cuts behind the header,
// and the last one go out as they are.
std::int32_t CMessageFeed::Shape(std::int32_t used)
{
    const bool inData = m_monitor.IsInData();
    if (!inData && m_handedOver >= 0) {
        const std::size_t chunk = m_ended ? 0 : m_socket.FillSegments(static_cast<std::size_t>(used));
        if (chunk != 0) {
            return static_cast<std::int32_t>(chunk);
        }
        m_socket.SendAtOnce(true);
    }
    if (m_growing) {
        m_room = std::min(m_room * 2, inData ? kMostInStream : kMostInChunks);
    }
    return used;
}

const char* CMessageFeed::Next(int& length)
{
    m_unread = &length;
    length = 0;
    // The transport asks again after an end that cut a line: the answer must stay the same.
    if (m_failure == 0 && HasStalled()) {
        m_failure = ETIMEDOUT;
        m_held = 0;
    }
    // Asked also before the end, which a cancelled message must not get.
    if (m_failure == 0 && IsCancelled()) {
        m_failure = ECANCELED;
        m_held = 0;
    }
    std::int32_t used = std::exchange(m_held, 0);
    if (used > 0) {
        std::memmove(m_buffer.get(), m_buffer.get() + m_heldAt, static_cast<std::size_t>(used));
    }
    if (m_failure == 0 && !m_ended) {
        const Pulled pulled = Pull(used);
        m_ended = pulled.state == PullState::End;
        if (pulled.state == PullState::Failed && m_failure == 0) {
            m_failure = EIO; // what was gathered still goes out, as unfinished as it is
        }
        if (IsLineTooLong({m_buffer.get() + used, static_cast<std::size_t>(pulled.count)})) {
            m_failure = EIO;
            used = 0;
        } else {
            used += pulled.count;
        }
    }
    if (used > 0) {
        if (m_handedOver < 0) {
            LookEarly(used);
        }
        m_heldAt = Shape(used);
        m_held = used - m_heldAt;
        m_handedOver = m_clock();
        m_bytes += static_cast<std::uint64_t>(m_heldAt);
        length = m_heldAt;
        return TellTransport(m_buffer.get());
    }
    if (m_failure == 0 && !m_monitor.IsHeaderWhole()) {
        FailForMemory();
    }
    SendRest();
    return TellTransport(nullptr, m_failure);
}
