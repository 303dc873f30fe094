#include "tls.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace {
template<auto Free>
struct CFree
{
    template<class T>
    void operator()(T* object) const
    {
        Free(object);
    }
};
using Certificate = std::unique_ptr<X509, CFree<X509_free>>;

// What the server shows and signs with, its own authority.
struct Identity
{
    std::unique_ptr<EVP_PKEY, CFree<EVP_PKEY_free>> key{EVP_EC_gen("P-256")};
    Certificate certificate{X509_new()};
    std::unique_ptr<SSL_CTX, CFree<SSL_CTX_free>> context{SSL_CTX_new(TLS_server_method())};

    Identity()
    {
        X509* const made = certificate.get();
        X509_set_version(made, 2);
        X509_gmtime_adj(X509_getm_notBefore(made), -86'400);
        X509_gmtime_adj(X509_getm_notAfter(made), 86'400);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
        X509_set_issuer_name(made, X509_get_subject_name(made));
        X509_set_pubkey(made, key.get());
        for (const auto& [kind, value] : {std::pair(NID_basic_constraints, "critical,CA:TRUE"),
                                          {NID_subject_alt_name, "DNS:localhost"}}) {
            const std::unique_ptr<X509_EXTENSION, CFree<X509_EXTENSION_free>> extension(
                X509V3_EXT_conf_nid(nullptr, nullptr, kind, value));
            X509_add_ext(made, extension.get(), -1);
        }
        if (X509_sign(made, key.get(), EVP_sha256()) == 0)
            throw std::runtime_error("certificate");
        SSL_CTX_use_certificate(context.get(), made);
        SSL_CTX_use_PrivateKey(context.get(), key.get());
    }
};

const Identity& TheIdentity()
{
    static const Identity identity;
    return identity;
}

class CChannel : public CTlsChannel
{
public:
    explicit CChannel(sockets::Socket socket) : m_ssl(SSL_new(TheIdentity().context.get())), m_socket(socket)
    {
        SSL_set_bio(m_ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    }

    bool Accept()
    {
        return Run([this] { return SSL_accept(m_ssl.get()); }) > 0;
    }
    bool Send(std::string_view bytes) override
    {
        return bytes.empty() ||
               Run([&] { return SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size())); }) > 0;
    }
    std::size_t Receive(char* buffer, std::size_t size) override
    {
        const int count = Run([&] { return SSL_read(m_ssl.get(), buffer, static_cast<int>(size)); });
        return static_cast<std::size_t>(std::max(count, 0));
    }

private:
    // Moves bytes between the socket and the protocol until `step` has its result; at most 0 for a failure.
    template<class Step>
    int Run(Step step)
    {
        for (;;) {
            const int result = step();
            const int wanted = SSL_get_error(m_ssl.get(), result);
            for (int count = 0; (count = BIO_read(SSL_get_wbio(m_ssl.get()), m_buffer.data(),
                                                  static_cast<int>(m_buffer.size()))) > 0;)
                if (!sockets::Send(m_socket, {m_buffer.data(), static_cast<std::size_t>(count)}))
                    return 0;
            if (result > 0 || wanted != SSL_ERROR_WANT_READ)
                return result;
            const std::size_t received = sockets::Receive(m_socket, m_buffer.data(), m_buffer.size());
            if (received == 0)
                return 0;
            BIO_write(SSL_get_rbio(m_ssl.get()), m_buffer.data(), static_cast<int>(received));
        }
    }

    std::unique_ptr<SSL, CFree<SSL_free>> m_ssl;
    sockets::Socket m_socket;
    std::array<char, 32768> m_buffer{};
};
} // namespace

bool ServesTls()
{
    return true;
}

std::string CertificatePem()
{
    const std::unique_ptr<BIO, CFree<BIO_free_all>> memory(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(memory.get(), TheIdentity().certificate.get());
    std::array<char, 4096> text{};
    const int size = BIO_read(memory.get(), text.data(), static_cast<int>(text.size()));
    return {text.data(), static_cast<std::size_t>(std::max(size, 0))};
}

std::unique_ptr<CTlsChannel> AcceptTls(sockets::Socket socket)
{
    auto channel = std::make_unique<CChannel>(socket);
    return channel->Accept() ? std::move(channel) : nullptr;
}
