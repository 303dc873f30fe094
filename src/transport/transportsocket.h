// The socket of the transport, which does not show it. Small writes meet the receiver's delayed
// acknowledgement unless what is left is sent at once: looked for only then, and switched only when it is
// surely the transport's own. Belongs to one session; takes no lock, and keeps nothing that a fork breaks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "src-baselib/cestring.h"

// A descriptor is the transport's when the kernel has counted on it exactly the bytes that the dialogue
// shows, both ways, its peer has the server's port, it does not block, and it is not switched already. The
// thread's last one is tried first, then those that threads of the library have used, then what lies near the
// lowest free one; of several that fit none is touched. A mail that finds nothing waits for an
// acknowledgement, some 40 ms.
//
// Known limits: a connection of the host's to that port, not blocking, that has carried a dialogue of the
// same lengths up to the very same write cannot be told apart when it is tried first; nor can that of another
// session, which is taken then and loses nothing. Kernels before 4.19 do not count what is sent: nothing is
// touched there.
class CTransportSocket
{
public:
    // The transport gathers what it sends and writes whole pieces of this size; a rest follows where it waits
    // for an answer. What fits one piece needs nothing of this class: it goes out at once by itself.
    static constexpr std::size_t kWrite = 2048;

    // Bytes on the connection.
    struct Traffic
    {
        std::uint64_t received = 0; // exactly
        std::uint64_t sent = 0;     // exactly, or fewer by a whole number of pieces
    };

    CTransportSocket() = default;
    CTransportSocket(const CTransportSocket&) = delete;
    CTransportSocket& operator=(const CTransportSocket&) = delete;
    ~CTransportSocket() = default;

    // The calling thread is about to lead a dialogue with `port`, a number or the name of a service.
    void Expect(const CEString& port) noexcept;
    // The dialogue is over; its descriptor is not known any more.
    void Release() noexcept;
    // Whether small writes are sent at once or, as at the beginning, gathered. Without a socket nothing
    // happens. Changes errno.
    void SendAtOnce(bool atOnce) noexcept;
    // The same, looking for the socket first where `atOnce` wants it and it was not looked for in this
    // dialogue. `seen` holds at this moment: the transport waits for no answer and holds nothing back but the
    // end of a message, of which `sent` may leave out whole pieces. In chunks, where the dialogue shows
    // nothing any more from the first of them on, that is before it.
    void SendAtOnce(bool atOnce, const Traffic& seen) noexcept;
    // For a chunk (BDAT) behind which more follow, of at most `most` bytes: the size at which it and its
    // command fill whole segments. Until SendAtOnce, to be called before anything else is sent, only such go
    // out, so that no rest of the chunk waits. 0: of any size, nothing has changed; segments are short, and
    // writes that go out at once fill them as well, or the socket is not known. Changes errno.
    [[nodiscard]] std::size_t FillSegments(std::size_t most) noexcept;

private:
    bool Set(int option, bool on, bool& state) const noexcept;

    std::uint16_t m_port = 0; // in network order; 0: nothing to look for
    int m_descriptor = -1;    // the transport's; -1: not found
    bool m_atOnce = false;
    bool m_filling = false;
};
