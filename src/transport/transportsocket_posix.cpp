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
#include <pthread.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <ctime>
#include <unistd.h>

#include "src-baselib/platform.h"

namespace {

// Where the threads of the library found their sockets, each at its number modulo the size: one more than the
// descriptor, below 0 while a session has it alone; 0: none. Without a lock: a wrong one costs a look or a
// wait.
std::array<std::atomic<int>, 64> g_used = {};
std::atomic<int> g_dialogues = 0;  // that threads of the library lead
std::atomic<unsigned> g_waits = 0; // of them for each other, so far
// Looks, within which one that has given up is seen to have gone on.
constexpr unsigned kStep = 16;
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

// The threads that led them are gone.
[[gnu::constructor]] void ForgetOthersInChildren()
{
    pthread_atfork(nullptr, nullptr, [] {
        g_dialogues = 0;
        for (std::atomic<int>& used : g_used) {
            used = std::abs(used);
        }
    });
}

std::atomic<int>& Used(int descriptor)
{
    return g_used.at(static_cast<std::size_t>(descriptor) % g_used.size());
}

int Taken(int descriptor)
{
    return -(descriptor + 1);
}

void GiveBack(int descriptor)
{
    int taken = Taken(descriptor);
    Used(descriptor).compare_exchange_strong(taken, descriptor + 1);
}

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

constexpr std::int64_t kAlone = -1;

// What the kernel has received of a dialogue that shows as much is read, unless that is another's.
bool IsRead(int descriptor)
{
    int unread = 0;
    return ioctl(descriptor, FIONREAD, &unread) == 0 && unread == 0;
}

bool IsTransport(int descriptor, in_port_t port, const CTransportSocket::Traffic& seen, std::int64_t age)
{
    tcp_info info = {};
    if (!GetInfo(descriptor, info) || info.tcpi_bytes_received != seen.received) {
        return false;
    }
    const std::uint64_t written = info.tcpi_bytes_sent - info.tcpi_bytes_retrans + info.tcpi_notsent_bytes;
    if (written < seen.sent || (written - seen.sent) % CTransportSocket::kWrite != 0 ||
        (seen.exact && written != seen.sent) ||
        (age != kAlone && (info.tcpi_last_data_recv > age || !IsRead(descriptor)))) {
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

} // namespace

void CTransportSocket::Expect(const CEString& port) noexcept
{
    Release();
    m_port = PortNumber(port.View());
    m_begun = platform::MonotonicMilliseconds();
    ++g_dialogues;
}

void CTransportSocket::Release() noexcept
{
    if (m_begun >= 0) {
        --g_dialogues;
    }
    if (m_count == 1) {
        GiveBack(m_candidates.front());
    }
    m_begun = -1;
    m_port = 0;
    m_descriptor = -1;
    m_count = 0;
    m_atOnce = false;
    m_filling = false;
}

void CTransportSocket::LookAmongOthers(const Traffic& seen) noexcept
{
    if (g_dialogues > 1 && m_port != 0 && m_descriptor < 0) {
        Collect(seen);
        WaitForOthers(seen);
        if (m_count == 1) {
            Used(m_candidates.front()) = Taken(m_candidates.front());
        }
    }
}

void CTransportSocket::Look(const Traffic& seen) noexcept
{
    if (m_port == 0 || m_descriptor >= 0) {
        return;
    }
    Sift(seen);
    if (m_count == 0) {
        Collect(seen);
    }
    WaitForOthers(seen);
    if (m_count == 1) {
        m_descriptor = m_candidates.front();
        t_last = m_descriptor;
        Used(m_descriptor) = Taken(m_descriptor);
    }
}

// Milliseconds, and what the kernel may be out by: it counts them in ticks.
std::int64_t CTransportSocket::Age() const noexcept
{
    timespec tick = {.tv_sec = 0, .tv_nsec = 0};
    clock_getres(CLOCK_MONOTONIC_COARSE, &tick);
    return platform::MonotonicMilliseconds() - m_begun + 1 + tick.tv_nsec / 1'000'000;
}

void CTransportSocket::Collect(const Traffic& seen) noexcept
{
    const bool alone = g_dialogues <= 1;
    const std::int64_t age = alone ? kAlone : Age();
    m_count = 0;
    const auto look = [&](int descriptor) {
        const auto end = m_candidates.begin() + static_cast<std::ptrdiff_t>(m_count);
        if (descriptor >= 0 && Used(descriptor) != Taken(descriptor) && m_count < m_candidates.size() &&
            std::find(m_candidates.begin(), end, descriptor) == end &&
            IsTransport(descriptor, m_port, seen, age)) {
            m_candidates.at(m_count++) = descriptor;
        }
    };
    look(t_last);
    if (alone && m_count == 1) {
        return;
    }
    for (const std::atomic<int>& used : g_used) {
        look(used.load(std::memory_order_relaxed) - 1);
    }
    for (const int reach : {kNear, kFar}) {
        const int free = m_count == 0 ? LowestFree() : -reach; // nothing is looked at any more
        for (int i = std::max(0, free - reach); i < free + reach; ++i) {
            look(i);
        }
    }
}

// What does not fit any more, or is another's now, never was the transport's.
void CTransportSocket::Sift(const Traffic& seen) noexcept
{
    const bool isOwn = m_count == 1; // and nobody else's
    const auto begin = m_candidates.begin();
    const auto end = std::remove_if(begin, begin + static_cast<std::ptrdiff_t>(m_count), [&](int d) {
        return (!isOwn && Used(d) == Taken(d)) || !IsTransport(d, m_port, seen, Age());
    });
    m_count = static_cast<std::size_t>(end - begin);
    if (isOwn && m_count == 0) {
        GiveBack(*begin);
    }
}

// Yields in a text only: before it, a thread that is not running would be one more that all others find in
// the same place.
void CTransportSocket::WaitForOthers(const Traffic& seen) noexcept
{
    if (m_count < 2 || g_dialogues <= 1) {
        return;
    }
    // Two that wait for each other do not give up at the same time.
    const unsigned patience = 1 + kStep * (g_waits++ % 4);
    for (unsigned i = 0; i < patience && m_count > 1; ++i) {
        if (!seen.exact) {
            sched_yield();
        }
        Sift(seen);
    }
}

void CTransportSocket::SendAtOnce(bool atOnce) noexcept
{
    m_port = atOnce ? 0 : m_port; // the counts of a later message are not known
    if (Set(TCP_NODELAY, atOnce, m_atOnce) && m_descriptor >= 0) {
        GiveBack(m_descriptor); // that tells it apart
    }
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
