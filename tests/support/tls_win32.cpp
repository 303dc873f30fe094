#include "tls.h"

bool ServesTls()
{
    return false;
}

std::string CertificatePem()
{
    return {};
}

std::unique_ptr<CTlsChannel> AcceptTls(sockets::Socket /*socket*/)
{
    return nullptr;
}
