#include "line.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr std::size_t kPiece = 65536;       // of one system call
constexpr std::size_t kReadAhead = 262'144; // bytes that OpenSSL reads at once: many records
} // namespace

TlsContext MakeTlsContext(const std::string& pemFile, bool server)
{
    if (pemFile.empty()) {
        return {nullptr, SSL_CTX_free};
    }
    TlsContext context(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()), SSL_CTX_free);
    SSL_CTX_set_read_ahead(context.get(), 1);
    SSL_CTX_set_default_read_buffer_len(context.get(), kReadAhead);
    const char* const name = pemFile.c_str();
    const bool usable = server ? SSL_CTX_use_certificate_chain_file(context.get(), name) == 1 &&
                                     SSL_CTX_use_PrivateKey_file(context.get(), name, SSL_FILETYPE_PEM) == 1
                               : SSL_CTX_load_verify_locations(context.get(), name, nullptr) == 1;
    if (!usable) {
        std::fprintf(stderr, "%s holds no key with a certificate\n", name);
        std::exit(1);
    }
    SSL_CTX_set_verify(context.get(), server ? SSL_VERIFY_NONE : SSL_VERIFY_PEER, nullptr);
    return context;
}

Line::Line(int socket, SSL_CTX* context) : m_socket(socket)
{
    if (context != nullptr) {
        m_ssl.reset(SSL_new(context));
        SSL_set_fd(m_ssl.get(), socket);
    }
}

Line::~Line()
{
    close(m_socket);
}

bool Line::Accept()
{
    return m_ssl == nullptr || SSL_accept(m_ssl.get()) == 1;
}

bool Line::Connect()
{
    return m_ssl == nullptr || SSL_connect(m_ssl.get()) == 1;
}

bool Line::Send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t size = std::min(bytes.size(), kPiece);
        const ssize_t sent = m_ssl == nullptr ? send(m_socket, bytes.data(), size, MSG_NOSIGNAL)
                                              : SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(size));
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::size_t Line::Receive(char* room, std::size_t size)
{
    const ssize_t count = m_ssl == nullptr ? recv(m_socket, room, size, 0)
                                           : SSL_read(m_ssl.get(), room, static_cast<int>(size));
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}
