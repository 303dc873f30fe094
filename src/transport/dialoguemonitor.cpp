#include "src/transport/dialoguemonitor.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string_view>

#include "src-baselib/report.h"
#include "src/transport/libesmtp.h"
#include "src/transport/transporttrace.h"

namespace {

void TraceDialogue(const char* data, int length, int writing)
{
    const TransportTrace trace = GetTransportTrace();
    if (trace == nullptr) {
        return;
    }
    try {
        if (writing != SMTP_CB_READING) {
            trace("sent %d of %d bytes to server: \n%*.*s\n", length, length, length, length, data);
        } else {
            trace("received %d bytes from server: \n%*.*s\n", length, length, length, data);
        }
    } catch (const std::exception&) {
        // No memory for this entry: it is lost, the dialogue goes on.
    }
}

} // namespace

void CDialogueMonitor::KeepRefusal(std::string_view received)
{
    if (m_replyBegins) {
        m_replyBegins = false;
        m_refusing = received.starts_with('4') || received.starts_with('5');
        m_refusalSize = m_refusing ? 0 : m_refusalSize; // the answer to the leave that follows is none
    }
    if (m_refusing) {
        m_refusalSize += received.copy(m_refusal.data() + m_refusalSize, m_refusal.size() - m_refusalSize);
    }
}

void CDialogueMonitor::Callback(const char* data, int length, int writing, void* argument)
{
    auto& monitor = *static_cast<CDialogueMonitor*>(argument);
    const auto size = static_cast<std::size_t>(length);
    const int savedErrno = errno; // the transport takes what is left there for its own
    if (monitor.m_traced) {
        TraceDialogue(data, length, writing);
        errno = savedErrno;
    }
    if (writing == SMTP_CB_WRITING) {
        monitor.m_sent += size;
        monitor.m_inData = std::string_view(data, size).starts_with("DATA");
        monitor.m_replyBegins = true;
        if (monitor.m_greeting && std::string_view(data, size).starts_with("MAIL")) {
            monitor.m_greeting = false;
            monitor.m_refusalSize = 0;
        }
    } else if (writing == SMTP_CB_HEADERS) {
        --monitor.m_fieldsToCome;
        monitor.m_fieldLost = monitor.m_fieldLost || savedErrno == ENOMEM;
    } else {
        monitor.m_received += size;
        if (monitor.m_greeting) {
            monitor.KeepRefusal({data, size});
        }
        if (!monitor.m_filter.IsDone()) {
            // The bytes are the transport's own receive buffer, which it parses after this call.
            monitor.m_filter.Filter(const_cast<char*>(data), size);
        }
    }
}
