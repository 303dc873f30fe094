#include "src/smtpmailsession.h"

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <random>

#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src/composition.h"
#include "src/smtpmailservice.h"
#include "src/transportlibrary.h"

namespace {

constexpr int kCodeBase = 661;
constexpr int kDroppedConnection = 664;
constexpr int kErrorNotKnown = 682;
constexpr int kSessionError = 697;
constexpr int kMessageError = 698;
constexpr int kFirstNumber = 2; // of the error numbers that have a code of their own
constexpr int kLastNumber = 20;
constexpr int kFirstBrokenNumber = 4;
// Delivered messages stay in the libESMTP session, which walks through all of them at each send. A host that
// connects once and sends for days must not grow by them.
constexpr std::int32_t kMostMessages = 100;
constexpr const char* kNoSession = "Failed to create an SMTP session! Possibly ran out of memory!";

// Nothing clears libESMTP's error number. A refused argument sets it to this one, which no dialogue sets:
// what is found there afterwards, and differs, belongs to the session.
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

// Drawn once, since drawing costs more than all else of a small mail on some machines.
std::uint64_t Draw()
{
    std::random_device random;
    return static_cast<std::uint64_t>(random()) << 32U | random();
}

// libESMTP's own Message-Ids, made of the time and the process, are equal for threads that send at once, and
// a receiver takes the second of two equal ones for a copy. The number drawn tells hosts apart, the process
// id what was forked after it was drawn, the counter the mails of all threads, and the time one life of a
// machine from the next that draws the same.
CEString MakeMessageId()
{
    static const std::uint64_t drawn = Draw();
    static std::atomic<std::uint32_t> counter = 0;
    const platform::ClockTime now = platform::GetClockTime();
    CEString id;
    id.Format("velmail.%016" PRIx64 ".%08x%08x.%08x@%s", drawn ^ platform::CurrentProcessId(), now.seconds,
              now.nanoseconds, ++counter, platform::HostName().CStr());
    return id;
}

template<class... Arguments>
void TraceTransport(const char* format, Arguments... arguments)
{
    if (const TransportTrace trace = GetTransportTrace()) {
        trace(format, arguments...);
    }
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
    return number >= kFirstNumber && number <= kLastNumber ? kCodeBase + number : kErrorNotKnown;
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
    *context = nullptr;
    ThreadComposition* const composition = CurrentComposition();
    if (composition == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    WholeTextState& state = composition->wholeText;
    errno = 0;
    if (length == nullptr) {
        state.sent = false;
        return nullptr;
    }
    const auto* const whole = static_cast<const char*>(text);
    state.length = state.sent ? 0 : static_cast<int>(std::strlen(whole));
    state.sent = true;
    *length = state.length;
    return whole;
}

CSMTPMailSession::CSMTPMailSession()
    : m_feed(platform::MonotonicMilliseconds), m_messageCallback(WholeTextCallback)
{
}

CSMTPMailSession::~CSMTPMailSession()
{
    Destroy();
}

bool CSMTPMailSession::Create()
{
    smtp_errno(); // makes its per-thread state while there is memory: it does not check for it
    m_session = smtp_create_session();
    if (m_session == nullptr) {
        RaiseError(kSessionError, kNoSession);
        return false;
    }
    smtp_set_eventcb(m_session, &CSMTPMailSession::OnEvent, this);
    if (!SetServer(m_host, m_port)) {
        return false;
    }
    m_authContext = auth_create_context();
    if (m_authContext != nullptr) {
        auth_set_mechanism_flags(m_authContext, AUTH_PLUGIN_PLAIN, 0);
        auth_set_interact_cb(m_authContext, TestAuthCallback, nullptr);
    }
    return true;
}

bool CSMTPMailSession::SetServer(const CEString& host, const CEString& port)
{
    CEString server(host.View());
    server.Append(":");
    server.Append(port.View());
    if (smtp_set_server(m_session, server.CStr()) == 0) {
        RaiseError(kSessionError, kNoSession);
        return false;
    }
    m_host = host;
    m_port = port;
    return true;
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
}

CSMTPMailMessage* CSMTPMailSession::AddMessage(const CEString& subject, CMail& job)
{
    if (m_session == nullptr) {
        RaiseError(0, "Invalid session object ( m_pSessionSMTPSession )!");
        return nullptr;
    }
    smtp_message* const message = smtp_add_message(m_session);
    if (message == nullptr) {
        RaiseError(kMessageError, "Failed to add message to SMTP session! Possibly ran out of memory!");
        return nullptr;
    }
    CSMTPMailMessage* const added =
        m_messages.Add(std::make_unique<CSMTPMailMessage>(message, job, ComposeMessageChunk, *this));
    const struct
    {
        const char* name;
        const char* value;
    } fields[] = {{"Subject", subject.CStr()}, {"X-User-Agent", "VEL Mail 1.3.2"}, {"X-MIME-Version", "1.0"}};
    for (const auto& field : fields) {
        smtp_set_header(message, field.name, field.value);
        smtp_set_header_option(message, field.name, Hdr_OVERRIDE, 1);
    }
    smtp_set_header(message, "Message-Id", MakeMessageId().CStr());
    return added;
}

bool CSMTPMailSession::Renew()
{
    Destroy();
    return Create();
}

bool CSMTPMailSession::BeginSend()
{
    if (m_mustRenew) {
        Trace(TraceLevel::Warning,
              "Warning: The send before was not delivered whole. The SMTP session is made anew.");
    }
    if ((m_mustRenew || m_messages.GetCount() >= kMostMessages) && !Renew()) {
        return false;
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

void CSMTPMailSession::OnEvent(smtp_session_t /*session*/, int event, void* argument, ...)
{
    auto& self = *static_cast<CSMTPMailSession*>(argument);
    if (event == SMTP_EV_CONNECT) {
        self.m_monitor.Reset();
        self.m_socket.Adopt();
    } else if (event == SMTP_EV_DISCONNECT) {
        self.m_socket.Release();
    }
}

void CSMTPMailSession::RewindMessage(smtp_messagecb_t compose, CMail& job)
{
    // A stream of small writes is best gathered. Chunks are each answered: the end of each has to go out.
    m_socket.SendAtOnce(!m_monitor.IsInData(), m_monitor.GetReceived());
    m_feed.Rewind(compose, &job);
}

const char* CSMTPMailSession::NextChunk(smtp_messagecb_t compose, CMail& job, int& length)
{
    const char* const chunk = m_feed.Next(compose, &job, length);
    if (chunk == nullptr) {
        const int saved = errno; // speaks to the transport
        // What is left in the transport's buffer must not wait for an answer.
        m_socket.SendAtOnce(true, m_monitor.GetReceived());
        errno = saved;
    }
    return chunk;
}

bool CSMTPMailSession::Start()
{
    // Set anew, it gives back the server's canonical name of the send before, which libESMTP would lose.
    if (!SetServer(m_host, m_port)) {
        return false;
    }
    const bool headersToo = IsTraceActive(); // without a trace no callback looks at the message
    smtp_set_monitorcb(m_session, &CDialogueMonitor::Callback, &m_monitor, headersToo ? 1 : 0);
    TraceTransport("using message submission server %s:%s \n", m_host.CStr(), m_port.CStr());

    const platform::CBrokenPipeGuard guard;
    const CSocketErrorTrace errors;
    m_socket.Expect(m_port);
    MarkErrorNumber();
    const bool started = smtp_start_session(m_session) != 0;
    m_socket.Release();
    const int number = SessionErrorNumber();
    const char* const text = started || number >= 0 || errors.IsTold() ? nullptr : SocketErrorText(-number);
    if (text != nullptr) {
        TraceTransport("In %s: %s \n", "connect", text);
    }
    return Settle(started, number);
}

bool CSMTPMailSession::Settle(bool started, int number)
{
    Delivery worst = Delivery::Sent;
    if (started) {
        for (std::int32_t i = m_firstOfSend; i < m_messages.GetCount(); ++i) {
            worst = std::max(worst, m_messages.At(i)->Settle());
        }
    }
    m_mustRenew = !started || worst != Delivery::Sent;
    if (started && worst != Delivery::BrokenOff) {
        return true;
    }
    if (started) {
        return Fail(number >= kFirstBrokenNumber && number <= kLastNumber ? kCodeBase + number
                                                                          : kDroppedConnection);
    }
    return Fail(StartErrorCode(number));
}
