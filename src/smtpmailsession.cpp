#include "src/smtpmailsession.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "src-baselib/platform.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/errortexts.h"
#include "src/messageid.h"
#include "src/transport/sockettexts.h"
#include "src/transport/transportlibrary.h"
#include "src/transport/transporttrace.h"
#include "version.h"

namespace {

constexpr int kFirstNumber = 2; // of the error numbers that have a code of their own
constexpr int kLastNumber = 20;
constexpr int kFirstBrokenNumber = 4;
// Delivered messages stay in the transport's session, which walks through all of them at each send. A host
// that connects once and sends for days must not grow by them.
constexpr std::int32_t kMostMessages = 100;
constexpr const char* kNoSession = "Failed to create an SMTP session! Possibly ran out of memory!";

// Nothing clears the transport's error number. A refused argument sets it to this one, which no dialogue
// sets: what is found there afterwards, and differs, belongs to the session.
constexpr int kMarkedNumber = SMTP_ERR_INVAL;

void MarkErrorNumber()
{
    smtp_start_session(nullptr);
}

int SessionErrorNumber()
{
    const int number = smtp_errno();
    return number == kMarkedNumber ? 0 : number;
}

// A numeric port that is none. The resolver would take it modulo 65536, which may be somebody else's.
bool IsOutOfRange(const CEString& port)
{
    constexpr long kLargest = 65535;
    char* end = nullptr;
    const long number = std::strtol(port.CStr(), &end, 10);
    return end != port.CStr() && *end == '\0' && (number < 1 || number > kLargest);
}

// The code and the words of a whole refusal. False, and nothing changed, when it is none.
bool ReadRefusal(std::string_view reply, int& code, std::string& words)
{
    constexpr std::size_t kCode = 3;
    const std::string number(reply.substr(0, kCode));
    const int refusal = std::atoi(number.c_str());
    std::string text;
    for (std::size_t end = 0; (end = reply.find('\n')) != std::string_view::npos;) {
        const std::string_view line = reply.substr(0, end);
        if (refusal < 400 || refusal > 599 || line.size() <= kCode || !line.starts_with(number)) {
            return false;
        }
        text.append(line.substr(kCode + 1));
        if (line[kCode] != '-') {
            code = refusal;
            words = text;
            return true;
        }
        reply.remove_prefix(end + 1);
    }
    return false;
}

bool Fail(int code, const SourcePlace& where = SourcePlace::Here())
{
    static constexpr const char* kText = "Error during SMTP Session startup ...";
    Trace(TraceLevel::Error, "%s", kText);
    RaiseError(code, kText, where);
    Trace(TraceLevel::Error, "Sending mail failed.");
    return false;
}

} // namespace

int StartErrorCode(int number)
{
    return number >= kFirstNumber && number <= kLastNumber ? codes::kTransportBase + number : codes::kUnknown;
}

int TestAuthCallback(auth_client_request_t /*request*/, char** result, int fields, void* /*argument*/)
{
    static char login[] = "Kemo1";
    static char password[] = "SamplePwdXyz7";
    if (fields > 0) {
        result[0] = login;
    }
    if (fields > 1) {
        result[1] = password;
    }
    return 0;
}

const char* WholeTextCallback(void** context, int* length, void* text)
{
    static std::atomic<bool> sent = false;
    *context = nullptr;
    if (length == nullptr) {
        sent = false;
        return TellTransport(nullptr);
    }
    const auto* const whole = static_cast<const char*>(text);
    *length = sent.exchange(true) ? 0 : static_cast<int>(std::strlen(whole));
    return TellTransport(whole);
}

const char* ComposeMessageChunk(void** context, int* length, void* message)
{
    *context = nullptr;
    return static_cast<CSMTPMailMessage*>(message)->GiveText(length);
}

CSMTPMailSession::CSMTPMailSession(std::unique_ptr<CMessageSource> composer)
    : m_composer(std::move(composer)),
      m_feed(*m_composer, m_monitor, m_socket, platform::MonotonicMilliseconds),
      m_messageCallback(WholeTextCallback)
{
    m_info.server = "localhost";
    m_info.port = "25";
}

CSMTPMailSession::~CSMTPMailSession()
{
    Destroy();
}

bool CSMTPMailSession::Create(const CMailConnectionInfo& info)
{
    const CMailConnectionInfo present = m_info;
    m_info = info;
    m_info.server = info.server.IsEmpty() ? present.server : info.server;
    m_info.port = info.port.IsEmpty() ? present.port : info.port;
    return Open();
}

bool CSMTPMailSession::Open()
{
    constexpr std::size_t kErrorState = 2 * sizeof(int);
    if (platform::HasMemory(kErrorState)) {
        smtp_errno(); // makes its per-thread state, and ends the process where it cannot
        m_session = smtp_create_session();
    }
    if (m_session == nullptr) {
        RaiseError(codes::kSession, kNoSession);
        return false;
    }
    m_hostName = platform::HostName();
    if (!SetServer()) {
        return false;
    }
    SetSilenceLimit();
    m_authContext = auth_create_context();
    if (smtp_set_hostname(m_session, m_hostName.CStr()) == 0 || m_authContext == nullptr ||
        auth_set_mechanism_flags(m_authContext, AUTH_PLUGIN_PLAIN, 0) == 0 ||
        auth_set_interact_cb(m_authContext, TestAuthCallback, nullptr) == 0) {
        RaiseError(codes::kSession, kNoSession);
        return false;
    }
    return true;
}

// Always with a port, also where the host's text has one.
bool CSMTPMailSession::SetServer()
{
    CEString server(m_info.server.View());
    server.Append(":");
    server.Append(m_info.port.View());
    if (smtp_set_server(m_session, server.CStr()) == 0) {
        RaiseError(codes::kSession, kNoSession);
        return false;
    }
    return true;
}

void CSMTPMailSession::SetSilenceLimit()
{
    if (m_info.silenceLimit == 0) {
        return;
    }
    for (const int which :
         {Timeout_GREETING, Timeout_ENVELOPE, Timeout_DATA, Timeout_TRANSFER, Timeout_DATA2}) {
        smtp_set_timeout(m_session, which | Timeout_OVERRIDE_RFC2822_MINIMUM,
                         static_cast<long>(m_info.silenceLimit));
    }
    m_feed.SetStallLimit(m_info.silenceLimit);
}

void CSMTPMailSession::Destroy()
{
    if (m_session != nullptr) {
        smtp_destroy_session(m_session);
        m_session = nullptr;
        m_feed.Forget();
    }
    if (m_authContext != nullptr) {
        auth_destroy_context(m_authContext);
        m_authContext = nullptr;
    }
    while (m_messages.GetCount() > 0) {
        m_messages.Take(m_messages.GetCount() - 1).reset();
    }
    m_firstOfSend = 0;
    m_mustRenew = false;
    m_wasStarted = false;
}

CSMTPMailMessage* CSMTPMailSession::AddMessage(const CEString& subject, CMail& job)
{
    if (m_session == nullptr) {
        RaiseError(0, "Invalid session object ( m_pSessionSMTPSession )!");
        return nullptr;
    }
    smtp_message* const message = smtp_add_message(m_session);
    if (message == nullptr) {
        RaiseError(codes::kMessage, "Failed to add message to SMTP session! Possibly ran out of memory!");
        return nullptr;
    }
    CSMTPMailMessage* const added =
        m_messages.Add(std::make_unique<CSMTPMailMessage>(message, job, ComposeMessageChunk, m_feed));
    const struct
    {
        const char* name;
        const char* value;
    } fields[] = {{"Subject", subject.CStr()},
                  {"X-User-Agent", "VEL Mail " VELMAIL_VERSION},
                  {"X-MIME-Version", "1.0"}};
    for (const auto& field : fields) {
        added->SetField(field.name, field.value);
        CallTransport(smtp_set_header_option, message, field.name, Hdr_OVERRIDE, 1);
    }
    added->SetField("Message-Id", MakeMessageId(m_hostName).CStr());
    return added;
}

bool CSMTPMailSession::BeginSend()
{
    if (m_mustRenew) {
        Trace(TraceLevel::Warning,
              "Warning: The send before was not delivered whole. The SMTP session is made anew.");
    }
    if (m_mustRenew || m_messages.GetCount() >= kMostMessages) {
        Destroy();
        if (!Open()) {
            return false;
        }
    }
    m_firstOfSend = m_messages.GetCount();
    // Until the dialogue has shown otherwise: a send that ends before it leaves messages behind, too.
    m_mustRenew = m_session != nullptr;
    return true;
}

void CSMTPMailSession::EndSend()
{
    for (std::int32_t i = m_firstOfSend; i < m_messages.GetCount(); ++i) {
        m_messages.At(i)->ForgetJob();
    }
    m_firstOfSend = m_messages.GetCount();
}

void CSMTPMailSession::OnEvent(smtp_session_t session, int event, void* argument, ...)
{
    auto& self = *static_cast<CSMTPMailSession*>(argument);
    if (event == SMTP_EV_CONNECT) { // again where the transport tries the server's next address
        self.m_monitor.Reset();
    } else if (event == SMTP_EV_MESSAGESENT && !self.m_monitor.IsInData()) {
        self.m_socket.SendAtOnce(true); // refused on its way in chunks: no segment is filled any more
    } else if (event == SMTP_EV_MESSAGEDATA && self.m_monitor.IsInData()) {
        va_list details;
        va_start(details, argument);
        va_arg(details, smtp_message_t);
        const bool wantsMore = self.m_feed.NoteLine(va_arg(details, int));
        va_end(details);
        if (!wantsMore) { // it would tell of each line
            smtp_set_eventcb(session, nullptr, nullptr);
        }
    }
}

bool CSMTPMailSession::Start(CMail& job)
{
    // Set anew, it gives back the server's canonical name of the send before, which the transport would lose.
    if (m_wasStarted && !SetServer()) {
        return false;
    }
    if (IsOutOfRange(m_info.port)) {
        Trace(TraceLevel::Error,
              "Error: The port %s is none: a number from 1 to 65535 is, or the name of a service.",
              m_info.port.CStr());
        return Fail(codes::kResolveService);
    }
    m_wasStarted = true;
    m_monitor.Reset(); // where there is no connection, nothing is left of the one before
    m_monitor.SetTraced(IsTraceActive());
    if (smtp_set_eventcb(m_session, &CSMTPMailSession::OnEvent, this) == 0 ||
        smtp_set_monitorcb(m_session, &CDialogueMonitor::Callback, &m_monitor, 1) == 0) {
        RaiseError(codes::kSession, kNoSession); // unmonitored, PIPELINING would not be hidden
        return false;
    }
    TraceTransport("using message submission server %s:%s \n", m_info.server.CStr(), m_info.port.CStr());

    const platform::CWriteSignalGuard guard;
    const CSocketErrorTrace errors;
    m_socket.Expect(m_info.port);
    m_feed.BeginDialogue(m_messages.GetCount() - m_firstOfSend > 1, job.Progress());
    MarkErrorNumber();
    const bool started = smtp_start_session(m_session) != 0;
    m_socket.Release();
    const int number = SessionErrorNumber();
    const char* const text = started || number >= 0 || errors.IsTold() ? nullptr : SocketErrorText(-number);
    if (text != nullptr) {
        TraceTransport("In %s: %s \n", "connect", text);
    }
    return Settle(job.Report(), started, number);
}

bool CSMTPMailSession::Settle(CDeliveryReport& report, bool started, int number)
{
    Delivery worst = Delivery::Sent;
    if (started) {
        for (std::int32_t i = m_firstOfSend; i < m_messages.GetCount(); ++i) {
            worst = std::max(worst, m_messages.At(i)->Settle());
        }
    }
    m_mustRenew = !started || worst != Delivery::Sent;
    const int broken = number >= kFirstBrokenNumber && number <= kLastNumber ? codes::kTransportBase + number
                                                                             : codes::kDroppedConnection;
    const int code = started ? broken : StartErrorCode(number);
    Report(report, started, code, number < 0 ? SocketErrorText(-number) : nullptr);
    return (started && worst != Delivery::BrokenOff) || Fail(code);
}

// `code` is that of a dialogue that broke off.
void CSMTPMailSession::Report(CDeliveryReport& report, bool started, int code,
                              const char* connectFailure) const noexcept
{
    try {
        const char* const text = FindErrorText(kEnglishTexts, code);
        std::string words = code == codes::kDroppedConnection ? "connection lost"
                            : text == nullptr                 ? ""
                                                              : text;
        int refused = 0;
        if (m_feed.GetFailure() == ETIMEDOUT) {
            words = "not sent: the server takes no more data";
        } else if (m_feed.GetFailure() != 0) {
            words = NotSentWords(m_feed.GetFailure() == ECANCELED ? codes::kCancelled : PendingError());
        } else if (!ReadRefusal(m_monitor.GetRefusal(), refused, words) && !started) {
            words = std::string("no connection: ") + (connectFailure == nullptr ? words : connectFailure);
        }
        for (std::int32_t i = m_firstOfSend; i < m_messages.GetCount(); ++i) {
            m_messages.At(i)->Report(report, refused, words);
        }
    } catch (const std::bad_alloc&) {
        report.Lose(); // what became of the mail is known: it must not turn into a failure
    }
}
