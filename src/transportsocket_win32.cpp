#include "src/transportsocket.h"

#include "esmtp-win32/esmtp_win32.h"
#include "src/transportlibrary.h"

// The transport switches the calling thread's own connection itself; a build of it that cannot is left alone.
struct CTransportSocket::Search
{
    esmtp_win32_send_at_once_t send = nullptr; // null: not connected
    bool atOnce = false;
};

CTransportSocket::CTransportSocket() : m_search(std::make_unique<Search>()) {}

CTransportSocket::~CTransportSocket() = default;

void CTransportSocket::Expect(const CEString& /*port*/) noexcept
{
    Release();
}

void CTransportSocket::Adopt() noexcept
{
    m_search->send =
        reinterpret_cast<esmtp_win32_send_at_once_t>(FindTransportFunction("esmtp_win32_send_at_once"));
    m_search->atOnce = false;
}

void CTransportSocket::Release() noexcept
{
    m_search->send = nullptr;
}

void CTransportSocket::SendAtOnce(bool atOnce, std::uint64_t /*received*/) noexcept
{
    Search& search = *m_search;
    if (search.send != nullptr && search.atOnce != atOnce && search.send(atOnce ? 1 : 0) != 0) {
        search.atOnce = atOnce;
    }
}
