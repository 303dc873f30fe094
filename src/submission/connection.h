// A connection to a submission server, from its name to the end of the login: libcurl makes and secures it,
// afterwards it carries bytes. Belongs to one thread of the process that opened it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "src/submission/curllibrary.h"
#include "src/submission/dialogue.h"
#include "src/submission/failure.h"
#include "src/submission/loginwatch.h"
#include "src/submission/network.h"
#include "src/sendprogress.h"

enum class SubmissionSecurity : std::uint8_t
{
    ByPort, // TLS where it is the one for that, else STARTTLS
    StartTls,
    Tls,
    None
};

struct SubmissionSettings
{
    std::string server;
    std::string port;
    SubmissionSecurity security = SubmissionSecurity::ByPort;
    std::string certificates; // PEM, trusted instead of the system's; empty: those
    std::string certificatesFile;
    std::string login; // empty: none
    std::string password;
    std::string mechanism;         // empty: PLAIN, else LOGIN
    std::int64_t silenceLimit = 0; // milliseconds, also to the end of the login; 0: kOpenLimit
};

class CSubmissionConnection : public CWire
{
public:
    static constexpr std::int64_t kOpenLimit = 60'000; // milliseconds, to the end of the login

    ~CSubmissionConnection() override { Close(); }

    // Connects, secures, logs in. After a failure the connection is closed. Fails with 151 within some
    // seconds after the host has cancelled, but for the time that a look-up of names takes.
    [[nodiscard]] SubmissionFailure Open(const CurlLibrary& curl, const SubmissionSettings& settings,
                                         const CSendProgress& progress);
    // Ends it without a word. In a child process the parent's connection is not touched.
    void Close();
    // It is open, and this process's.
    [[nodiscard]] bool IsOwn() const;
    [[nodiscard]] const SubmissionOffer& GetOffer() const { return m_watch.GetOffer(); }

    WireState Send(const char* bytes, std::size_t size, std::size_t& sent) override;
    WireState Receive(char* room, std::size_t size, std::size_t& received) override;
    bool Wait(bool toSend, std::int64_t milliseconds) override;

private:
    struct ListEnd
    {
        const CurlLibrary* curl;
        void operator()(curl_slist* list) const { curl->listFree(list); }
    };
    using List = std::unique_ptr<curl_slist, ListEnd>;

    bool SetOptions(const SubmissionSettings& settings, const network::Place& place, std::int64_t limit);
    bool SetSecurity(const SubmissionSettings& settings);
    bool SetLogin(const SubmissionSettings& settings);
    template<class Value>
    bool Set(CURLoption option, Value value)
    {
        return m_curl->setOption(m_handle, option, value) == CURLE_OK;
    }
    [[nodiscard]] SubmissionFailure Judge(CURLcode result, const SubmissionSettings& settings) const;
    static std::size_t OnHeader(char* bytes, std::size_t size, std::size_t count, void* self);
    static int OnDebug(CURL* handle, curl_infotype type, char* bytes, std::size_t size, void* self);
    static curl_socket_t OnSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int OnProgress(void* self, curl_off_t total, curl_off_t now, curl_off_t upTotal, curl_off_t up);
    static int OnClose(void* self, curl_socket_t socket);

    const CurlLibrary* m_curl = nullptr;
    CURL* m_handle = nullptr; // null: closed
    List m_places = {nullptr, {nullptr}};
    network::Socket m_socket = network::kNoSocket;
    std::uint32_t m_process = 0;
    SubmissionSecurity m_security = SubmissionSecurity::ByPort; // what became of it
    bool m_wasConnected = false;                                // a socket that libcurl has closed
    CSendProgress m_progress;
    CLoginWatch m_watch;
    char m_error[CURL_ERROR_SIZE] = "";
};
