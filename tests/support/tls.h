// TLS for the scripted server, with a certificate for localhost that is made for the process.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "sockets.h"

// Whether there is a TLS library for the server here; without one it speaks clear text.
[[nodiscard]] bool ServesTls();
// The certificate, which is its own authority, as PEM.
[[nodiscard]] std::string CertificatePem();

// Belongs to one thread; as the functions of sockets.
class CTlsChannel
{
public:
    CTlsChannel() = default;
    CTlsChannel(const CTlsChannel&) = delete;
    CTlsChannel& operator=(const CTlsChannel&) = delete;
    virtual ~CTlsChannel() = default;
    [[nodiscard]] virtual bool Send(std::string_view bytes) = 0;
    [[nodiscard]] virtual std::size_t Receive(char* buffer, std::size_t size) = 0;
};
// The server's side of the handshake; null when it failed.
[[nodiscard]] std::unique_ptr<CTlsChannel> AcceptTls(sockets::Socket socket);
