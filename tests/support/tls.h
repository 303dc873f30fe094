// TLS for the scripted server, with certificates made for it. The authority and the keys last as long as the
// process. A channel belongs to one thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "sockets.h"

// Whether there is a TLS library for the server here; without one it speaks clear text.
[[nodiscard]] bool ServesTls();

enum class ECertificate
{
    Right, // for localhost and 127.0.0.1
    OtherName,
    Expired,
    SelfSigned,
    CommonNameOnly
};

// What a server shows and signs with.
class CTlsIdentity
{
public:
    explicit CTlsIdentity(ECertificate kind);
    ~CTlsIdentity();

    struct Data;
    [[nodiscard]] const Data& Get() const { return *m_data; }

private:
    std::unique_ptr<Data> m_data;
};

// The certificate, as PEM, of the authority behind all but the self-signed ones.
[[nodiscard]] std::string AuthorityPem();

class CTlsChannel
{
public:
    CTlsChannel(const CTlsIdentity& identity, sockets::Socket socket);
    ~CTlsChannel();

    // The server's side of the handshake; false when it failed.
    [[nodiscard]] bool Accept();
    // As those of sockets.
    [[nodiscard]] bool Send(std::string_view bytes);
    [[nodiscard]] std::size_t Receive(char* buffer, std::size_t size);

private:
    struct State;
    std::unique_ptr<State> m_state;
};
