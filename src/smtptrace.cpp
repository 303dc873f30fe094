#include "src/smtptrace.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src/libesmtp.h"

namespace {

constexpr std::size_t kLongestFormat = 2048;
constexpr std::string_view kHiddenKeyword = "PIPELINING";
// The transport reads replies into a buffer of this size; a longer line is two lines to it.
constexpr std::size_t kLongestLine = 1023;

std::atomic<TransportTrace> g_transportTrace = nullptr;

struct SocketText
{
    int code;
    const char* text;
};
constexpr SocketText kSocketTexts[] = {
    {10004, "Interrupted function call."},
    {10009, "File handle is not valid."},
    {10013, "Permission denied."},
    {10014, "Bad address."},
    {10022, "Invalid argument."},
    {10024, "Too many open files."},
    {10035, "Resource temporarily unavailable."},
    {10036, "Operation now in progress."},
    {10037, "Operation already in progress."},
    {10038, "Socket operation on nonsocket."},
    {10039, "Destination address required."},
    {10040, "Message too long."},
    {10041, "Protocol wrong type for socket."},
    {10042, "Bad protocol option."},
    {10043, "Protocol not supported."},
    {10044, "Socket type not supported."},
    {10045, "Operation not supported."},
    {10046, "Protocol family not supported."},
    {10047, "Address family not supported by protocol family."},
    {10048, "Address already in use."},
    {10049, "Cannot assign requested address."},
    {10050, "Network is down."},
    {10051, "Network is unreachable."},
    {10052, "Network dropped connection on reset."},
    {10053, "Software caused connection abort."},
    {10054, "Connection reset by peer."},
    {10055, "No buffer space available."},
    {10056, "Socket is already connected."},
    {10057, "Socket is not connected."},
    {10058, "Cannot send after socket shutdown."},
    {10059, "Too many references."},
    {10060, "Connection timed out."},
    {10061, "Connection refused."},
    {10062, "Cannot translate name."},
    {10063, "Name too long."},
    {10064, "Host is down."},
    {10065, "No route to host."},
    {10066, "Directory not empty."},
    {10067, "Too many processes."},
    {10068, "User quota exceeded."},
    {10070, "Stale file handle reference."},
    {10071, "Item is remote."},
    {10091, "Network subsystem is unavailable."},
    {10092, "Winsock.dll version out of range."},
    {10093, "Successful WSAStartup not yet performed."},
    {10101, "Graceful shutdown in progress."},
};

bool IsAtomCharacter(char c)
{
    return c > ' ' && c <= '~' && std::strchr("\"()<>[]@,;:\\.", c) == nullptr;
}

} // namespace

void SetTransportTrace(TransportTrace trace)
{
    g_transportTrace = trace;
}

TransportTrace GetTransportTrace()
{
    return g_transportTrace;
}

void TraceSink(const char* format, ...)
{
    if (!IsTraceActive()) {
        return;
    }
    if (std::strlen(format) >= kLongestFormat) {
        TraceText(format);
        return;
    }
    std::va_list arguments;
    std::va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    TraceText(text.c_str());
}

const char* SocketCodeText(int code)
{
    const auto* const row =
        std::find_if(std::begin(kSocketTexts), std::end(kSocketTexts),
                     [code](const SocketText& candidate) { return candidate.code == code; });
    return row == std::end(kSocketTexts) ? nullptr : row->text;
}

const char* SocketErrorText(int error)
{
    return SocketCodeText(platform::SocketErrorCode(error));
}

void CPipeliningFilter::EndLine()
{
    m_firstLine = false;
    if (!m_more) {
        ++m_reply;
        m_firstLine = true;
    }
    m_more = false;
    m_place = Place::Code;
    m_digits = false;
    m_column = 0;
    m_matched = 0;
}

// Whether `letter` completes the keyword; what follows it in this piece must not belong to the same word.
bool CPipeliningFilter::IsHidden(const char* letter, const char* end)
{
    if (std::toupper(static_cast<unsigned char>(*letter)) != kHiddenKeyword[m_matched]) {
        m_place = Place::Rest;
        return false;
    }
    if (++m_matched < kHiddenKeyword.size()) {
        return false;
    }
    m_place = Place::Rest;
    return m_reply == 1 && !m_firstLine && (letter + 1 == end || !IsAtomCharacter(letter[1]));
}

// The reply code as the transport reads it: blanks and a sign may stand before the digits.
void CPipeliningFilter::ReadCode(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (std::isdigit(byte) != 0) {
        m_digits = true;
    } else if (m_digits && (c == '-' || c == ' ')) {
        m_more = c == '-';
        m_place = Place::Blanks;
    } else if (m_digits || (std::isspace(byte) == 0 && c != '+')) {
        m_place = Place::Rest;
    }
}

void CPipeliningFilter::Filter(char* data, std::size_t length)
{
    const char* const end = data + length;
    for (char* letter = data; letter != end; ++letter) {
        const char c = *letter;
        ++m_column;
        if (m_place == Place::Code) {
            ReadCode(c);
        } else if (m_place == Place::Blanks && std::isspace(static_cast<unsigned char>(c)) == 0) {
            m_place = Place::Keyword;
        }
        if (m_place == Place::Keyword && IsHidden(letter, end)) {
            *letter = '_';
        }
        if (c == '\n' || m_column == kLongestLine) {
            EndLine();
        }
    }
}

void CDialogueMonitor::Callback(const char* data, int length, int writing, void* argument)
{
    const int savedErrno = errno; // the transport takes what is left there for its own
    try {
        const TransportTrace trace = IsTraceActive() ? GetTransportTrace() : nullptr;
        if (trace != nullptr && writing != SMTP_CB_READING) {
            trace("sent %d of %d bytes to server: \n%*.*s\n", length, length, length, length, data);
        } else if (trace != nullptr) {
            trace("received %d bytes from server: \n%*.*s\n", length, length, length, data);
        }
    } catch (const std::exception&) {
        // No memory for this entry: it is lost, the dialogue goes on.
    }
    auto& monitor = *static_cast<CDialogueMonitor*>(argument);
    if (writing == SMTP_CB_WRITING) {
        monitor.m_inData = std::string_view(data, static_cast<std::size_t>(length)).starts_with("DATA");
    } else if (writing == SMTP_CB_READING) {
        monitor.m_received += static_cast<std::uint64_t>(length);
        // The bytes are the transport's own receive buffer, which it parses after this call.
        monitor.m_filter.Filter(const_cast<char*>(data), static_cast<std::size_t>(length));
    }
    errno = savedErrno;
}
