// One connection of the benchmark's own programs, in clear or TLS, with as little between them and the system
// as there can be. Owns its socket. One thread; Send and Receive of one in clear may be two.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

using TlsContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

// `pemFile` holds the server's key and its certificate, which the client trusts. Empty: null, for clear text.
// Ends the program when the file cannot be used.
TlsContext MakeTlsContext(const std::string& pemFile, bool server);

class Line
{
public:
    // Speaks TLS with a context.
    Line(int socket, SSL_CTX* context);
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line();

    // The handshake, if there is one.
    bool Accept();
    bool Connect();
    // All of it, or false.
    bool Send(std::string_view bytes);
    // What is there, at least a byte; 0 at the end or after a failure.
    std::size_t Receive(char* room, std::size_t size);

private:
    int m_socket;
    std::unique_ptr<SSL, decltype(&SSL_free)> m_ssl = {nullptr, SSL_free};
};
