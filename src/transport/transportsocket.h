// The socket of the transport, which does not show it. Small writes meet the receiver's delayed
// acknowledgement unless what is left is sent at once: looked for only then, and switched only when it is
// surely the transport's own. Belongs to one session; takes no lock, and keeps nothing that a fork breaks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "src-baselib/cestring.h"

// A descriptor is the transport's when the kernel has counted on it exactly the bytes that the dialogue
// shows, both ways, its peer has the server's port, it does not block, and it is not switched already. The
// thread's last one is tried first, then those that threads of the library have used, then what lies near the
// lowest free one; of several that fit none is touched. A mail that finds nothing waits for an
// acknowledgement, some 40 ms.
//
// While other threads of the library lead dialogues, too, which may be equal, nothing is tried first: what
// their sessions have found is theirs, and where several fit a thread looks again, some ten times and more,
// until the others have gone on.
//
// Known limits: a connection of the host's to that port, not blocking, that has carried a dialogue of the
// same lengths up to the very same write cannot be told apart when it is tried first; nor can that of another
// session, which is taken then and loses nothing. Chunks are looked for once, before the first: of threads
// that stand there together some find nothing. Kernels before 4.19 do not count what is sent: nothing is
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
        std::uint64_t sent = 0;     // fewer by any number of whole pieces, unless exact
        bool exact = false;
    };

    CTransportSocket() = default;
    CTransportSocket(const CTransportSocket&) = delete;
    CTransportSocket& operator=(const CTransportSocket&) = delete;
    ~CTransportSocket() = default;

    // The calling thread is about to lead a dialogue with `port`, a number or the name of a service.
    void Expect(const CEString& port) noexcept;
    // The dialogue is over; its descriptor is not known any more.
    void Release() noexcept;
    // Looks for the socket, unless it is known. `seen` holds at this moment: the transport waits for no
    // answer and holds nothing back but a message, of which `sent` may leave out whole pieces. Changes errno.
    void Look(const Traffic& seen) noexcept;
    // The same where other threads lead dialogues: in the midst of a text theirs come to the same counts.
    void LookAmongOthers(const Traffic& seen) noexcept;
    // Whether small writes are sent at once or, as at the beginning, gathered. Once they were to be sent at
    // once, it is too late for a look. Without a socket nothing happens. Changes errno.
    void SendAtOnce(bool atOnce) noexcept;
    // For a chunk (BDAT) behind which more follow, of at most `most` bytes: the size at which it and its
    // command fill whole segments. Until SendAtOnce, to be called before anything else is sent, only such go
    // out, so that no rest of the chunk waits. 0: of any size, nothing has changed; segments are short, and
    // writes that go out at once fill them as well, or the socket is not known. Changes errno.
    [[nodiscard]] std::size_t FillSegments(std::size_t most) noexcept;

private:
    [[nodiscard]] std::int64_t Age() const noexcept;
    void Collect(const Traffic& seen) noexcept;
    void Sift(const Traffic& seen) noexcept;
    void WaitForOthers(const Traffic& seen) noexcept;
    bool Set(int option, bool on, bool& state) const noexcept;

    std::int64_t m_begun = -1; // when the dialogue was, in milliseconds; -1: none is led
    std::uint16_t m_port = 0;  // in network order; 0: nothing to look for
    int m_descriptor = -1;     // the transport's; -1: not found
    std::array<int, 16> m_candidates = {};
    std::size_t m_count = 0; // of the candidates; a single one is told to be nobody else's
    bool m_atOnce = false;
    bool m_filling = false;
};
