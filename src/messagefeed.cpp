#include "src/messagefeed.h"

#include <cerrno>
#include <cstring>

#include "src-baselib/report.h"
#include "src/composition.h"

CMessageFeed::CMessageFeed(Clock clock) : m_buffer(new char[kBufferSize]), m_clock(clock) {}

void CMessageFeed::Rewind(smtp_messagecb_t compose, CMail* job)
{
    m_handedOver = -1;
    m_ended = false;
    m_failure = 0;
    void* context = nullptr;
    compose(&context, nullptr, job);
    errno = 0;
}

bool CMessageFeed::HasStalled()
{
    if (m_handedOver < 0 || m_clock() - m_handedOver < kStallMilliseconds) {
        return false;
    }
    Trace(TraceLevel::Error, "Error: The server took no data for %d seconds. The message is given up.",
          static_cast<int>(kStallMilliseconds / 1000));
    return true;
}

const char* CMessageFeed::GiveUp(int error)
{
    m_failure = error;
    errno = error;
    return nullptr;
}

const char* CMessageFeed::Next(smtp_messagecb_t compose, CMail* job, int& length)
{
    length = 0;
    // libESMTP asks again after an end that cut a line: the answer must stay the same.
    if (m_failure != 0) {
        return GiveUp(m_failure);
    }
    if (HasStalled()) {
        return GiveUp(ETIMEDOUT);
    }
    int used = 0;
    while (!m_ended && kBufferSize - used >= CompositionState::kCapacity) {
        void* context = nullptr;
        int piece = 0;
        errno = 0;
        const char* const chunk = compose(&context, &piece, job);
        if (chunk == nullptr && errno != 0) {
            m_failure = errno; // what was gathered still goes out, as unfinished as it is
            break;
        }
        m_ended = chunk == nullptr || piece <= 0;
        if (!m_ended) {
            std::memcpy(m_buffer.get() + used, chunk, static_cast<std::size_t>(piece));
            used += piece;
        }
    }
    if (used == 0 && m_failure != 0) {
        return GiveUp(m_failure);
    }
    m_handedOver = m_clock();
    length = used;
    errno = 0;
    return used > 0 ? m_buffer.get() : nullptr;
}
