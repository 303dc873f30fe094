#include "tls.h"

#include <stdexcept>

bool ServesTls()
{
    return false;
}

struct CTlsIdentity::Data
{
};

CTlsIdentity::CTlsIdentity(ECertificate /*kind*/)
{
    throw std::runtime_error("no TLS");
}

CTlsIdentity::~CTlsIdentity() = default;

std::string AuthorityPem()
{
    return {};
}

struct CTlsChannel::State
{
};

CTlsChannel::CTlsChannel(const CTlsIdentity& /*identity*/, sockets::Socket /*socket*/) {}

CTlsChannel::~CTlsChannel() = default;

bool CTlsChannel::Accept()
{
    return false;
}

bool CTlsChannel::Send(std::string_view /*bytes*/)
{
    return false;
}

std::size_t CTlsChannel::Receive(char* /*buffer*/, std::size_t /*size*/)
{
    return 0;
}
