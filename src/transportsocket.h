// The socket of the transport, which does not show it. Small writes meet the receiver's delayed
// acknowledgement unless what is left is sent at once: found here, its sending is switched. Belongs to one
// session.
//
// Known limit: where the socket cannot be told from one to another server it is left alone, and a mail takes
// some 40 ms longer.
#pragma once

#include <cstdint>
#include <memory>

#include "src-baselib/cestring.h"

class CTransportSocket
{
public:
    CTransportSocket();
    CTransportSocket(const CTransportSocket&) = delete;
    CTransportSocket& operator=(const CTransportSocket&) = delete;
    ~CTransportSocket();

    // The calling thread is about to connect to `port`, a number or the name of a service.
    void Expect(const CEString& port) noexcept;
    // The calling thread has connected; again after Release where the transport tries the next address.
    void Adopt() noexcept;
    // The connection is closed.
    void Release() noexcept;
    // Whether small writes are sent at once or gathered to full segments. `received` are the bytes that the
    // transport has read on this connection so far: a socket that got another number is not its own, and is
    // left alone. Without a socket nothing happens.
    void SendAtOnce(bool atOnce, std::uint64_t received) noexcept;

private:
    struct Search;

    const std::unique_ptr<Search> m_search;
};
