#include "src/messagefeed.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "src-baselib/report.h"
#include "src/composition.h"

namespace {
constexpr int kMailTextError = 695;
}

CMessageFeed::CMessageFeed(Clock clock) : m_buffer(new char[kBufferSize]), m_clock(clock) {}

void CMessageFeed::Rewind(smtp_messagecb_t compose, CMail* job)
{
    // What the transport left unread of a message that was refused on its way would begin this one.
    if (m_unread != nullptr) {
        *m_unread = 0;
    }
    m_handedOver = -1;
    m_ended = false;
    m_failure = 0;
    m_lineLength = 0;
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

bool CMessageFeed::IsLineTooLong(const char* piece, int length)
{
    const std::string_view text(piece, static_cast<std::size_t>(length));
    const std::size_t lineEnd = text.back() == '\n' ? text.size() - 1 : text.rfind('\n');
    if (lineEnd == std::string_view::npos) {
        m_lineLength += length;
    } else {
        m_lineLength = static_cast<std::int64_t>(text.size() - lineEnd) - 1;
    }
    if (m_lineLength <= kLongestLine) {
        return false;
    }
    static constexpr const char* kText = "ERROR: A line of the mail text is too long.";
    Trace(TraceLevel::Error, "%s", kText);
    RaiseError(kMailTextError, kText);
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
    m_unread = &length;
    length = 0;
    // libESMTP asks again after an end that cut a line: the answer must stay the same.
    if (m_failure != 0) {
        return GiveUp(m_failure);
    }
    if (HasStalled()) {
        return GiveUp(ETIMEDOUT);
    }
    ThreadComposition* const composition = CurrentComposition();
    int used = 0;
    while (!m_ended && kBufferSize - used > CompositionState::kCapacity) {
        void* context = nullptr;
        int piece = 0;
        errno = 0;
        char* const place = m_buffer.get() + used;
        if (composition != nullptr) { // composed in place, the lines of attachments are copied once less
            composition->message.buffer = place;
            composition->message.lineRoom = kBufferSize - used;
        }
        const char* const chunk = compose(&context, &piece, job);
        if (composition != nullptr) {
            composition->message.buffer = composition->message.ownBuffer;
            composition->message.lineRoom = CompositionState::kOneLine;
        }
        if (chunk == nullptr && errno != 0) {
            m_failure = errno; // what was gathered still goes out, as unfinished as it is
            break;
        }
        m_ended = chunk == nullptr || piece <= 0;
        if (!m_ended && IsLineTooLong(chunk, piece)) {
            return GiveUp(EIO);
        }
        if (!m_ended) {
            if (chunk != place) {
                std::memcpy(place, chunk, static_cast<std::size_t>(piece));
            }
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
