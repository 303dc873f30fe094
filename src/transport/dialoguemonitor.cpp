#include "src/transport/dialoguemonitor.h"

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
    } else if (writing == SMTP_CB_HEADERS) {
        --monitor.m_fieldsToCome;
        monitor.m_fieldLost = monitor.m_fieldLost || savedErrno == ENOMEM;
    } else {
        monitor.m_received += size;
        if (!monitor.m_filter.IsDone()) {
            // The bytes are the transport's own receive buffer, which it parses after this call.
            monitor.m_filter.Filter(const_cast<char*>(data), size);
        }
    }
}
