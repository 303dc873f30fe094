#include "tls.h"

#include <algorithm>
#include <array>
#include <atomic>
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
using Key = std::unique_ptr<EVP_PKEY, CFree<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, CFree<X509_free>>;

constexpr long kDay = 86'400;

void Extend(X509* certificate, int kind, const char* value)
{
    const std::unique_ptr<X509_EXTENSION, CFree<X509_EXTENSION_free>> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, kind, value));
    X509_add_ext(certificate, extension.get(), -1);
}

// Self-signed without an issuer. `names` is the list of further names, empty for none.
Certificate Make(EVP_PKEY* key, const char* name, const std::string& names, long days, X509* issuer,
                 EVP_PKEY* issuerKey)
{
    static std::atomic<long> serial = 1;
    Certificate made(X509_new());
    X509_set_version(made.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), -30 * kDay);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), days * kDay);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(made.get(), X509_get_subject_name(issuer != nullptr ? issuer : made.get()));
    X509_set_pubkey(made.get(), key);
    if (names == "authority")
        Extend(made.get(), NID_basic_constraints, "critical,CA:TRUE");
    else if (!names.empty())
        Extend(made.get(), NID_subject_alt_name, names.c_str());
    if (X509_sign(made.get(), issuerKey, EVP_sha256()) == 0)
        throw std::runtime_error("certificate");
    return made;
}

struct Authority
{
    Key key{EVP_EC_gen("P-256")};
    Certificate certificate = Make(key.get(), "Test authority", "authority", 30, nullptr, key.get());
};

const Authority& TheAuthority()
{
    static const Authority authority;
    return authority;
}
} // namespace

bool ServesTls()
{
    return true;
}

struct CTlsIdentity::Data
{
    std::unique_ptr<SSL_CTX, CFree<SSL_CTX_free>> context;
};

CTlsIdentity::CTlsIdentity(ECertificate kind) : m_data(std::make_unique<Data>())
{
    const Authority& authority = TheAuthority();
    const Key key(EVP_EC_gen("P-256"));
    const bool other = kind == ECertificate::OtherName;
    const bool self = kind == ECertificate::SelfSigned;
    const Certificate certificate =
        Make(key.get(), other ? "other.example" : "localhost",
             kind == ECertificate::CommonNameOnly ? ""
             : other                              ? "DNS:other.example"
                                                  : "DNS:localhost,IP:127.0.0.1",
             kind == ECertificate::Expired ? -1 : 30, self ? nullptr : authority.certificate.get(),
             self ? key.get() : authority.key.get());
    m_data->context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_use_certificate(m_data->context.get(), certificate.get());
    SSL_CTX_use_PrivateKey(m_data->context.get(), key.get());
}

CTlsIdentity::~CTlsIdentity() = default;

std::string AuthorityPem()
{
    const std::unique_ptr<BIO, CFree<BIO_free_all>> memory(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(memory.get(), TheAuthority().certificate.get());
    std::array<char, 4096> text{};
    const int size = BIO_read(memory.get(), text.data(), static_cast<int>(text.size()));
    return {text.data(), static_cast<std::size_t>(std::max(size, 0))};
}

struct CTlsChannel::State
{
    std::unique_ptr<SSL, CFree<SSL_free>> ssl;
    sockets::Socket socket;
    std::array<char, 32768> buffer{};

    // Moves bytes between the socket and the protocol until `step` has its result; at most 0 for a failure.
    template<class Step>
    int Run(Step step)
    {
        for (;;) {
            const int result = step();
            const int wanted = SSL_get_error(ssl.get(), result);
            for (int count = 0; (count = BIO_read(SSL_get_wbio(ssl.get()), buffer.data(),
                                                  static_cast<int>(buffer.size()))) > 0;)
                if (!sockets::Send(socket, {buffer.data(), static_cast<std::size_t>(count)}))
                    return 0;
            if (result > 0 || wanted != SSL_ERROR_WANT_READ)
                return result;
            const std::size_t received = sockets::Receive(socket, buffer.data(), buffer.size());
            if (received == 0)
                return 0;
            BIO_write(SSL_get_rbio(ssl.get()), buffer.data(), static_cast<int>(received));
        }
    }
};

CTlsChannel::CTlsChannel(const CTlsIdentity& identity, sockets::Socket socket)
    : m_state(std::make_unique<State>())
{
    m_state->ssl.reset(SSL_new(identity.Get().context.get()));
    SSL_set_bio(m_state->ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    m_state->socket = socket;
}

CTlsChannel::~CTlsChannel() = default;

bool CTlsChannel::Accept()
{
    return m_state->Run([this] { return SSL_accept(m_state->ssl.get()); }) > 0;
}

bool CTlsChannel::Send(std::string_view bytes)
{
    return bytes.empty() || m_state->Run([&] {
        return SSL_write(m_state->ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
    }) > 0;
}

std::size_t CTlsChannel::Receive(char* buffer, std::size_t size)
{
    const int count =
        m_state->Run([&] { return SSL_read(m_state->ssl.get(), buffer, static_cast<int>(size)); });
    return static_cast<std::size_t>(std::max(count, 0));
}
