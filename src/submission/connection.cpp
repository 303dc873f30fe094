#include "src/submission/connection.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <exception>
#include <string_view>

#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src/submission/ascii.h"

namespace {

constexpr unsigned kHighestPort = 65535;
constexpr unsigned kTlsPort = 465;

bool ConsistsOf(std::string_view text, std::string_view others)
{
    return !text.empty() && std::ranges::all_of(text, [others](char c) {
        return IsAlphanumeric(c) || others.find(c) != std::string_view::npos;
    });
}

// The name without the brackets that an IPv6 address may stand in, and without the dot that a name may end
// in: libcurl takes it off, and would not find the addresses that it is given.
std::string BareHost(const std::string& server)
{
    if (server.size() > 2 && server.front() == '[' && server.back() == ']') {
        return server.substr(1, server.size() - 2);
    }
    return server.substr(0, server.size() - (server.ends_with('.') ? 1 : 0));
}

bool IsNumericIpv6(std::string_view host)
{
    return host.find(':') != std::string_view::npos;
}

// What this machine calls itself before the server, if its name may stand there.
std::string OwnName()
{
    const std::string name = platform::HostName().CStr();
    return ConsistsOf(name, ".-") ? name : "localhost";
}

SubmissionFailure LookUp(const SubmissionSettings& settings, network::Place& place)
{
    const std::string host = BareHost(settings.server);
    std::string reason;
    unsigned number = 0;
    const char* const end = settings.port.data() + settings.port.size();
    const auto [rest, error] = std::from_chars(settings.port.data(), end, number);
    int code = 0;
    if (rest == end && (error != std::errc() || number == 0 || number > kHighestPort)) {
        code = codes::kResolveService;
        reason = "There is no such port";
    } else if (!ConsistsOf(host, IsNumericIpv6(host) ? ".-_:%" : ".-_")) {
        code = codes::kResolveNoName; // nor may it change the address that libcurl is given
        reason = "This is no name of a host";
    } else {
        code = network::LookUp(host.c_str(), settings.port.c_str(), place, reason);
    }
    if (code == 0) {
        return {};
    }
    return {code, "The server '" + settings.server + "' with port '" + settings.port +
                      "' could not be resolved: " + reason};
}

} // namespace

bool CSubmissionConnection::IsOwn() const
{
    return m_handle != nullptr && m_process == platform::CurrentProcessId();
}

SubmissionFailure CSubmissionConnection::Open(const CurlLibrary& curl, const SubmissionSettings& settings,
                                              const CSendProgress& progress)
{
    Close();
    const std::int64_t end =
        platform::MonotonicMilliseconds() + (settings.silenceLimit == 0 ? kOpenLimit : settings.silenceLimit);
    network::Place place;
    if (SubmissionFailure failure = LookUp(settings, place); failure.IsSet()) {
        return failure;
    }
    m_security = settings.security != SubmissionSecurity::ByPort ? settings.security
                 : place.port == kTlsPort                        ? SubmissionSecurity::Tls
                                                                 : SubmissionSecurity::StartTls;
    m_curl = &curl;
    m_watch = {};
    m_progress = progress;
    m_error[0] = '\0';
    m_wasConnected = false;
    m_process = platform::CurrentProcessId();
    m_handle = curl.easyInit();
    const std::int64_t limit = std::max<std::int64_t>(end - platform::MonotonicMilliseconds(), 1);
    if (m_handle == nullptr || !SetOptions(settings, place, limit)) {
        Close();
        return {codes::kNotEnoughMemory, "Not enough memory."};
    }
    const CURLcode result = curl.perform(m_handle);
    SubmissionFailure failure = Judge(result, settings);
    if (!failure.IsSet()) {
        curl_socket_t active = CURL_SOCKET_BAD;
        curl.getInfo(m_handle, CURLINFO_ACTIVESOCKET, &active);
        m_socket = active == CURL_SOCKET_BAD ? network::kNoSocket : static_cast<network::Socket>(active);
        if (m_socket == network::kNoSocket) {
            failure = {codes::kDroppedConnection, "The server closed the connection."};
        }
    }
    if (failure.IsSet()) {
        Close();
    }
    return failure;
}

bool CSubmissionConnection::SetOptions(const SubmissionSettings& settings, const network::Place& place,
                                       std::int64_t limit)
{
    const std::string host = BareHost(settings.server);
    const bool numeric = IsNumericIpv6(host);
    const std::string port = std::to_string(place.port);
    std::string url = m_security == SubmissionSecurity::Tls ? "smtps://" : "smtp://";
    // The zone of a link-local address is a number beside it.
    numeric ? url.append("[").append(host, 0, host.find('%')).append("]") : url.append(host);
    url.append(":").append(port).append("/").append(OwnName());
    std::string places = host;
    places.append(":").append(port).append(":");
    for (const std::string& address : place.addresses) {
        places.append(places.back() == ':' ? "" : ",");
        IsNumericIpv6(address) ? places.append("[").append(address).append("]") : places.append(address);
    }
    if (!numeric) { // resolved here, libcurl starts no thread for it
        m_places = List(m_curl->listAppend(nullptr, places.c_str()), {m_curl});
    }
    return (numeric || (m_places != nullptr && Set(CURLOPT_RESOLVE, m_places.get()))) &&
           Set(CURLOPT_URL, url.c_str()) && Set(CURLOPT_CONNECT_ONLY, 1L) && Set(CURLOPT_NOSIGNAL, 1L) &&
           Set(CURLOPT_ADDRESS_SCOPE, static_cast<long>(numeric ? place.scope : 0)) &&
           Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limit)) && Set(CURLOPT_PROXY, "") &&
           Set(CURLOPT_ERRORBUFFER, m_error) && Set(CURLOPT_VERBOSE, 1L) &&
           Set(CURLOPT_HEADERFUNCTION, &CSubmissionConnection::OnHeader) && Set(CURLOPT_HEADERDATA, this) &&
           Set(CURLOPT_DEBUGFUNCTION, &CSubmissionConnection::OnDebug) && Set(CURLOPT_DEBUGDATA, this) &&
           Set(CURLOPT_OPENSOCKETFUNCTION, &CSubmissionConnection::OnSocket) &&
           Set(CURLOPT_CLOSESOCKETFUNCTION, &CSubmissionConnection::OnClose) &&
           Set(CURLOPT_CLOSESOCKETDATA, this) &&
           (!m_progress.IsSet() || (Set(CURLOPT_XFERINFOFUNCTION, &CSubmissionConnection::OnProgress) &&
                                    Set(CURLOPT_XFERINFODATA, this) && Set(CURLOPT_NOPROGRESS, 0L))) &&
           // libcurl has a limit of its own for each answer, shorter than what the host may want.
           (settings.silenceLimit == 0 ||
            Set(CURLOPT_SERVER_RESPONSE_TIMEOUT, static_cast<long>(settings.silenceLimit / 1000))) &&
           SetSecurity(settings) && SetLogin(settings);
}

bool CSubmissionConnection::SetSecurity(const SubmissionSettings& settings)
{
    if (m_security == SubmissionSecurity::None) {
        return Set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_NONE));
    }
    curl_blob blob = {const_cast<char*>(settings.certificates.data()), settings.certificates.size(),
                      CURL_BLOB_COPY};
    if (!settings.certificates.empty()) { // given by the host, they stand instead of the system's
        if (!Set(CURLOPT_CAINFO, static_cast<const char*>(nullptr)) || !Set(CURLOPT_CAINFO_BLOB, &blob)) {
            return false;
        }
        // Refused by a TLS library that knows no such folder.
        Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    return Set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL)) && Set(CURLOPT_SSL_VERIFYPEER, 1L) &&
           Set(CURLOPT_SSL_VERIFYHOST, 2L) &&
           Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) &&
           // Windows asks whether a certificate was revoked; an authority that cannot be asked is no reason
           // against it. Elsewhere this has no effect.
           Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_REVOKE_BEST_EFFORT));
}

bool CSubmissionConnection::SetLogin(const SubmissionSettings& settings)
{
    if (settings.login.empty()) {
        return true;
    }
    const bool token = settings.mechanism == "XOAUTH2" || settings.mechanism == "OAUTHBEARER";
    const std::string options =
        "AUTH=" + (settings.mechanism.empty() ? "PLAIN;AUTH=LOGIN" : settings.mechanism);
    return Set(CURLOPT_USERNAME, settings.login.c_str()) &&
           Set(token ? CURLOPT_XOAUTH2_BEARER : CURLOPT_PASSWORD, settings.password.c_str()) &&
           Set(CURLOPT_LOGIN_OPTIONS, options.c_str());
}

// The server's own words say more than libcurl's, so they come first.
SubmissionFailure CSubmissionConnection::Judge(CURLcode result, const SubmissionSettings& settings) const
{
    if (m_watch.GetFailure().IsSet()) {
        return m_watch.GetFailure();
    }
    const bool wantsLogin = !settings.login.empty();
    if (result == CURLE_OK && wantsLogin && !m_watch.IsLoggedIn()) {
        return {codes::kNotOffered, "The server offers no login."};
    }
    if (result == CURLE_OK && m_security == SubmissionSecurity::StartTls && !m_watch.HasAgreedTls()) {
        return {codes::kNotOffered, "The server offers no STARTTLS."};
    }
    const std::string why = m_error[0] != '\0' ? m_error : m_curl->errorText(result);
    const std::string trusted =
        settings.certificates.empty() ? "the system" : "'" + settings.certificatesFile + "'";
    switch (result) {
    case CURLE_OK:
        return {};
    case CURLE_ABORTED_BY_CALLBACK:
        return {codes::kCancelled, kCancelledText};
    case CURLE_OUT_OF_MEMORY:
        return {codes::kNotEnoughMemory, "Not enough memory."};
    case CURLE_COULDNT_CONNECT:
        return {codes::kServerUnreachable, "No connection to the server: " + why};
    case CURLE_USE_SSL_FAILED:
        return {codes::kNotOffered, "The server offers no STARTTLS."};
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
        return {codes::kSecurity,
                "The server's certificate is not accepted: " + why + "; trusted are those of " + trusted};
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_INVALIDCERTSTATUS:
        return {codes::kSecurity, "No secure connection to the server: " + why};
    case CURLE_SSL_CACERT_BADFILE:
        return {settings.certificates.empty() ? codes::kSecurity : codes::kInvalidValue,
                "The trusted certificates, those of " + trusted + ", cannot be used: " + why};
    case CURLE_LOGIN_DENIED:
        return m_watch.HasAskedLogin()
                   ? SubmissionFailure{codes::kLogin, "The login failed: " + why}
                   : SubmissionFailure{codes::kNotOffered, "The server offers no login of this kind: " + why};
    case CURLE_WEIRD_SERVER_REPLY:
        return {codes::kInvalidResponse, "The server's answer is not SMTP: " + why};
    case CURLE_OPERATION_TIMEDOUT:
        return m_wasConnected
                   ? SubmissionFailure{codes::kDroppedConnection, "The server is silent: " + why}
                   : SubmissionFailure{codes::kServerUnreachable, "No connection to the server: " + why};
    default:
        return {codes::kDroppedConnection, "The connection was lost: " + why};
    }
}

void CSubmissionConnection::Close()
{
    const platform::CWriteSignalGuard guard;
    if (m_handle != nullptr && m_process != platform::CurrentProcessId()) {
        network::Abandon(m_socket);
    } else if (m_socket != network::kNoSocket) {
        network::Shutdown(m_socket); // libcurl would wait for the answer to its own leave
    }
    if (m_handle != nullptr && network::IsProcessEnding()) {
        // What libcurl stands on may have ended already. The system takes back what the last thread leaves.
        static std::atomic<CURL*> left = nullptr;
        left = m_handle;
    } else if (m_handle != nullptr) {
        m_curl->easyCleanup(m_handle);
    }
    m_handle = nullptr;
    m_socket = network::kNoSocket;
    m_places.reset();
}

WireState CSubmissionConnection::Send(const char* bytes, std::size_t size, std::size_t& sent)
{
    const CURLcode result = m_curl->send(m_handle, bytes, size, &sent);
    return result == CURLE_AGAIN             ? WireState::Blocked
           : result == CURLE_OK && sent != 0 ? WireState::Moved
                                             : WireState::Ended;
}

WireState CSubmissionConnection::Receive(char* room, std::size_t size, std::size_t& received)
{
    const CURLcode result = m_curl->receive(m_handle, room, size, &received);
    return result == CURLE_AGAIN                 ? WireState::Blocked
           : result == CURLE_OK && received != 0 ? WireState::Moved
                                                 : WireState::Ended;
}

bool CSubmissionConnection::Wait(bool toSend, std::int64_t milliseconds)
{
    return network::Wait(m_socket, toSend, milliseconds);
}

// All below are called through libcurl's frames: no exception may cross them.
std::size_t CSubmissionConnection::OnHeader(char* bytes, std::size_t size, std::size_t count, void* self)
{
    try {
        return static_cast<CSubmissionConnection*>(self)->m_watch.Received({bytes, size * count})
                   ? size * count
                   : 0;
    } catch (const std::exception&) {
        return 0; // no memory: the connection ends
    }
}

int CSubmissionConnection::OnDebug(CURL* /*handle*/, curl_infotype type, char* bytes, std::size_t size,
                                   void* self)
{
    try {
        CLoginWatch& watch = static_cast<CSubmissionConnection*>(self)->m_watch;
        const std::string_view text(bytes, size);
        if (type == CURLINFO_HEADER_OUT) {
            watch.Sent(text);
            TraceDialogue("sent", watch.Shown(text));
        } else if (type == CURLINFO_HEADER_IN) {
            TraceDialogue("received", watch.Shown(text));
        } else if (type == CURLINFO_TEXT) {
            const std::string line(
                watch.Shown(text).substr(0, watch.Shown(text).find_last_not_of("\r\n") + 1));
            Trace(TraceLevel::Debug, "libcurl: %s", line.c_str());
        }
    } catch (const std::exception&) {
        // No memory for this entry: it is lost, the dialogue goes on.
    }
    return 0;
}

curl_socket_t CSubmissionConnection::OnSocket(void* /*self*/, curlsocktype /*purpose*/,
                                              curl_sockaddr* address)
{
    const network::Socket made = network::Open(address->family, address->socktype, address->protocol);
    return made == network::kNoSocket ? CURL_SOCKET_BAD : static_cast<curl_socket_t>(made);
}

int CSubmissionConnection::OnProgress(void* self, curl_off_t /*total*/, curl_off_t /*now*/,
                                      curl_off_t /*upTotal*/, curl_off_t /*up*/)
{
    return static_cast<CSubmissionConnection*>(self)->m_progress.IsCancelled() ? 1 : 0;
}

int CSubmissionConnection::OnClose(void* self, curl_socket_t socket)
{
    if (network::Close(static_cast<network::Socket>(socket))) {
        static_cast<CSubmissionConnection*>(self)->m_wasConnected = true;
    }
    return 0;
}
