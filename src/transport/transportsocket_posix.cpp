#include "src/transport/transportsocket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Where the threads of the library found their sockets, each at its number modulo the size. Without a lock: a
// wrong one costs a look.
std::array<std::atomic<int>, 64> g_used = {}; // one more than the descriptor, 0: none
// The thread's last. The next has the same where a host sends one mail after the other.
thread_local int t_last = -1;
// Descriptors are handed out lowest first: a socket lies close to the lowest free one, before it, or behind
// it where something was closed meanwhile. Where many threads open and close at once it may lie farther off.
constexpr int kNear = 16;
constexpr int kFar = 256;
// While two segments wait for their acknowledgement the kernel may send a part of the next to learn whether
// they were lost: the rest of a chunk would then wait for long.
constexpr std::size_t kMostSegments = 2;
// Segments so small that two of them hold less are no worse filled by writes that go out at once.
constexpr std::size_t kLeast = 16 * CTransportSocket::kWrite;

// In network order; 0 for an unknown service. `port` is zero-terminated.
in_port_t PortNumber(std::string_view port)
{
    std::uint16_t plain = 0;
    const auto [stop, error] = std::from_chars(port.data(), port.data() + port.size(), plain);
    if (error == std::errc() && stop == port.data() + port.size()) {
        return htons(plain);
    }
    servent entry = {};
    servent* found = nullptr;
    std::array<char, 1024> buffer = {};
    getservbyname_r(port.data(), "tcp", &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? static_cast<in_port_t>(found->s_port) : in_port_t{0};
}

in_port_t PeerPort(int descriptor)
{
    sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return 0;
    }
    if (peer.ss_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in&>(peer).sin_port;
    }
    return peer.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(peer).sin6_port : in_port_t{0};
}

// False for what is no TCP socket, and for a system that does not count all that is asked for.
bool GetInfo(int descriptor, tcp_info& info)
{
    socklen_t length = sizeof info;
    return getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           length >= offsetof(tcp_info, tcpi_bytes_retrans) + sizeof info.tcpi_bytes_retrans;
}

bool IsAtOnce(int descriptor)
{
    int value = 0;
    socklen_t length = sizeof value;
    return getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &value, &length) == 0 && value != 0;
}

bool IsTransport(int descriptor, in_port_t port, const CTransportSocket::Traffic& seen)
{
    tcp_info info = {};
    if (!GetInfo(descriptor, info) || info.tcpi_bytes_received != seen.received) {
        return false;
    }
    const std::uint64_t written = info.tcpi_bytes_sent - info.tcpi_bytes_retrans + info.tcpi_notsent_bytes;
    if (written < seen.sent || (written - seen.sent) % CTransportSocket::kWrite != 0) {
        return false;
    }
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) != 0 && PeerPort(descriptor) == port && !IsAtOnce(descriptor);
}

std::size_t CommandSize(std::size_t chunk)
{
    return std::string_view("BDAT \r\n").size() + std::to_string(chunk).size();
}

int LowestFree()
{
    const int probe = eventfd(0, EFD_CLOEXEC);
    if (probe >= 0) {
        close(probe);
    }
    return probe;
}

// -1 when there is none, or more than one.
int Find(in_port_t port, const CTransportSocket::Traffic& seen)
{
    if (t_last >= 0 && IsTransport(t_last, port, seen)) {
        return t_last;
    }
    int count = 0;
    int found = -1;
    const auto look = [&](int descriptor) {
        if (descriptor >= 0 && IsTransport(descriptor, port, seen)) {
            ++count;
            found = descriptor;
        }
    };
    for (const std::atomic<int>& used : g_used) {
        look(used.load(std::memory_order_relaxed) - 1);
    }
    for (const int reach : {kNear, kFar}) {
        const int free = count == 0 ? LowestFree() : -reach; // nothing is looked at any more
        for (int i = std::max(0, free - reach); i < free + reach; ++i) {
            look(i);
        }
    }
    return count == 1 ? found : -1;
}

} // namespace

void CTransportSocket::Expect(const CEString& port) noexcept
{
    Release();
    m_port = PortNumber(port.View());
}

void CTransportSocket::Release() noexcept
{
    m_port = 0;
    m_descriptor = -1;
    m_atOnce = false;
    m_filling = false;
}

void CTransportSocket::SendAtOnce(bool atOnce, const Traffic& seen) noexcept
{
    if (atOnce && m_port != 0) {
        m_descriptor = Find(m_port, seen);
        m_port = 0; // the counts of a later message are not known
        if (m_descriptor >= 0) {
            t_last = m_descriptor;
            g_used.at(static_cast<std::size_t>(m_descriptor) % g_used.size()) = m_descriptor + 1;
        }
    }
    SendAtOnce(atOnce);
}

void CTransportSocket::SendAtOnce(bool atOnce) noexcept
{
    Set(TCP_NODELAY, atOnce, m_atOnce);
    Set(TCP_CORK, false, m_filling);
}

std::size_t CTransportSocket::FillSegments(std::size_t most) noexcept
{
    tcp_info info = {};
    if (m_descriptor < 0 || !GetInfo(m_descriptor, info) || info.tcpi_snd_mss == 0) {
        return 0;
    }
    const std::size_t segment = info.tcpi_snd_mss;
    const std::size_t whole = std::min(kMostSegments, (most + CommandSize(most)) / segment) * segment;
    if (whole < kLeast || !Set(TCP_CORK, true, m_filling)) {
        return 0;
    }
    const std::size_t chunk = whole - CommandSize(whole);
    return chunk + (chunk + CommandSize(chunk) < whole ? 1 : 0); // its number may have a digit less
}

// A refusal costs time and nothing else: the mail goes out either way.
bool CTransportSocket::Set(int option, bool on, bool& state) const noexcept
{
    const int value = on ? 1 : 0;
    if (m_descriptor >= 0 && state != on &&
        setsockopt(m_descriptor, IPPROTO_TCP, option, &value, sizeof value) == 0) {
        state = on;
    }
    return state == on;
}
