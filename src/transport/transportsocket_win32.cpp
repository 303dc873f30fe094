#include "src/transport/transportsocket.h"

#include "esmtp-win32/esmtp_win32.h"
#include "src/transport/transportlibrary.h"

// The transport switches the calling thread's own connection itself; a build of it that cannot is left alone.

void CTransportSocket::Expect(const CEString& /*port*/) noexcept
{
    Release();
}

void CTransportSocket::Release() noexcept
{
    m_atOnce = false;
}

void CTransportSocket::Look(const Traffic& /*seen*/) noexcept {}

void CTransportSocket::LookAmongOthers(const Traffic& /*seen*/) noexcept {}

// This transport takes no chunks.
std::size_t CTransportSocket::FillSegments(std::size_t /*most*/) noexcept
{
    return 0;
}

void CTransportSocket::SendAtOnce(bool atOnce) noexcept
{
    const auto send =
        m_atOnce == atOnce
            ? nullptr
            : reinterpret_cast<esmtp_win32_send_at_once_t>(FindTransportFunction("esmtp_win32_send_at_once"));
    if (send != nullptr && send(atOnce ? 1 : 0) != 0) {
        m_atOnce = atOnce;
    }
}
