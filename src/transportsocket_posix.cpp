#include "src/transportsocket.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netdb.h>
#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

// Descriptors are handed out lowest first, so the new socket lies close to the lowest free one: before it, or
// behind it where another thread has closed something meanwhile.
constexpr int kRange = 32;
constexpr int kBefore = 16;
// Where many threads open and close at once, it may lie farther off. The second look costs less than the
// wait.
constexpr int kWideBefore = 256;
constexpr int kWideBehind = 64;

struct Peer
{
    sockaddr_storage address = {};
    socklen_t length = sizeof address;

    [[nodiscard]] bool operator==(const Peer& other) const
    {
        return length == other.length && std::memcmp(&address, &other.address, length) == 0;
    }
};

bool GetPeer(int descriptor, Peer& peer)
{
    return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer.address), &peer.length) == 0;
}

in_port_t PortOf(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in&>(address).sin_port;
    }
    return address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                         : in_port_t{0};
}

// In network order; 0 for an unknown service. Asks no name server. `port` is zero-terminated.
in_port_t PortNumber(std::string_view port)
{
    std::uint16_t plain = 0;
    const auto [stop, error] = std::from_chars(port.data(), port.data() + port.size(), plain);
    if (error == std::errc() && stop == port.data() + port.size()) {
        return htons(plain);
    }
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(nullptr, port.data(), &hints, &found) != 0) {
        return 0;
    }
    const in_port_t number = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_port;
    freeaddrinfo(found);
    return number;
}

int LowestFree()
{
    const int probe = eventfd(0, EFD_CLOEXEC);
    if (probe >= 0) {
        close(probe);
    }
    return probe;
}

// The kernel's number of a socket; 0 for what is none.
std::uint64_t SocketNumber(int descriptor)
{
    std::uint64_t number = 0;
    socklen_t length = sizeof number;
    return getsockopt(descriptor, SOL_SOCKET, SO_COOKIE, &number, &length) == 0 ? number : 0;
}

// Numbers of a connection; larger than any where the system does not count them.
struct Traffic
{
    std::uint64_t received = UINT64_MAX; // bytes
    std::uint64_t sent = UINT64_MAX;     // segments with data
};

Traffic TrafficOf(int descriptor)
{
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
        length < offsetof(tcp_info, tcpi_data_segs_out) + sizeof info.tcpi_data_segs_out) {
        return {};
    }
    return {info.tcpi_bytes_received, info.tcpi_data_segs_out};
}

// A connection as the transport makes it: to that port, not blocking, nothing sent.
bool LooksLikeTransport(int descriptor, in_port_t port, Peer& peer)
{
    if (!GetPeer(descriptor, peer) || PortOf(peer.address) != port) {
        return false;
    }
    const int flags = fcntl(descriptor, F_GETFL);
    const std::uint64_t sent = TrafficOf(descriptor).sent;
    return flags >= 0 && (flags & O_NONBLOCK) != 0 && (sent == 0 || sent == UINT64_MAX);
}

bool IsAtOnce(int descriptor)
{
    int value = 0;
    socklen_t length = sizeof value;
    return getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &value, &length) == 0 && value != 0;
}

// A refusal costs time and nothing else: the mail goes out either way.
bool SetAtOnce(int descriptor, bool atOnce)
{
    const int value = atOnce ? 1 : 0;
    return setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0;
}

} // namespace

struct CTransportSocket::Search
{
    // What the sessions of all threads have adopted, so that none takes another one's.
    static std::mutex s_mutex;
    static Search* s_adopted;
    // How many connections were begun: one that another thread makes at the same time may lie where this
    // one's is expected.
    static std::uint64_t s_begun;
    static int s_connecting;
    // The descriptor of the thread's last connection. The next has the same where a host sends one mail after
    // the other.
    static thread_local int s_last;

    static bool IsAdopted(std::uint64_t socket)
    {
        const Search* search = s_adopted;
        while (search != nullptr && search->socket != socket) {
            search = search->next;
        }
        return search != nullptr;
    }

    // Sockets that may be the transport's: all of them connected to the one server.
    struct Candidates
    {
        std::array<int, kRange> descriptors = {};
        std::size_t count = 0;
        std::uint64_t socket = 0; // the kernel's number of the last one
        Peer peer;
        bool mixed = false; // there were others, connected to that port of another server

        void Consider(int descriptor, in_port_t expected)
        {
            Peer other;
            if (count == descriptors.size() || !LooksLikeTransport(descriptor, expected, other)) {
                return;
            }
            const std::uint64_t number = SocketNumber(descriptor);
            if (IsAdopted(number)) {
                return;
            }
            socket = number;
            mixed = mixed || (count > 0 && !(other == peer));
            peer = other;
            descriptors.at(count++) = descriptor;
        }
    };

    Candidates Look() const;
    void Begin();
    void EndConnecting();
    void Take(const Candidates& found, bool isAtOnce);

    in_port_t port = 0;       // in network order; 0: nothing is expected
    std::uint64_t number = 0; // of the connection, as s_begun counts
    bool alone = false;       // no other was being made when it began
    bool connecting = false;  // counted in s_connecting
    int descriptor = -1;      // adopted; owned by the transport
    std::uint64_t socket = 0; // the kernel's number of it: a descriptor may be another socket's before long
    bool atOnce = false;
    bool confirmed = false; // what it received is what the transport read
    Search* next = nullptr;
};

std::mutex CTransportSocket::Search::s_mutex;
CTransportSocket::Search* CTransportSocket::Search::s_adopted = nullptr;
std::uint64_t CTransportSocket::Search::s_begun = 0;
int CTransportSocket::Search::s_connecting = 0;
thread_local int CTransportSocket::Search::s_last = -1;

CTransportSocket::CTransportSocket() : m_search(std::make_unique<Search>()) {}

CTransportSocket::~CTransportSocket()
{
    Release();
}

void CTransportSocket::Search::Begin()
{
    const std::lock_guard<std::mutex> lock(s_mutex);
    number = ++s_begun;
    alone = s_connecting++ == 0;
    connecting = true;
}

void CTransportSocket::Search::EndConnecting()
{
    s_connecting -= connecting ? 1 : 0;
    connecting = false;
}

void CTransportSocket::Expect(const CEString& port) noexcept
{
    Release();
    m_search->port = PortNumber(port.View());
    m_search->Begin();
}

// With the mutex held. One call whatever the host has open, and a few for each socket of the range.
CTransportSocket::Search::Candidates CTransportSocket::Search::Look() const
{
    Candidates candidates;
    const int free = LowestFree();
    std::array<pollfd, kRange> list = {};
    for (int i = 0; i < kRange; ++i) {
        list.at(static_cast<std::size_t>(i)).fd = std::max(0, free - kBefore) + i;
    }
    if (free < 0 || poll(list.data(), list.size(), 0) < 0) {
        return candidates;
    }
    for (const pollfd& entry : list) {
        if ((entry.revents & POLLNVAL) == 0) {
            candidates.Consider(entry.fd, port);
        }
    }
    for (int i = std::max(0, free - kWideBefore); candidates.count == 0 && i < free + kWideBehind; ++i) {
        candidates.Consider(i, port);
    }
    return candidates;
}

void CTransportSocket::Search::Take(const Candidates& found, bool isAtOnce)
{
    descriptor = found.descriptors[0];
    socket = found.socket;
    atOnce = isAtOnce;
    confirmed = false;
    next = std::exchange(s_adopted, this);
    s_last = descriptor;
}

void CTransportSocket::Adopt() noexcept
{
    Search& search = *m_search;
    const std::lock_guard<std::mutex> lock(Search::s_mutex);
    search.EndConnecting();
    if (search.port == 0 || search.descriptor >= 0) {
        return;
    }
    // One that is switched already is another thread's that could not tell which was its own.
    if (search.alone && search.number == Search::s_begun && !IsAtOnce(Search::s_last)) {
        Search::Candidates likely;
        likely.Consider(Search::s_last, search.port);
        if (likely.count == 1) {
            search.Take(likely, false);
            return;
        }
    }
    const Search::Candidates found = search.Look();
    if (found.mixed) {
        return; // which is which cannot be told: none is touched
    }
    if (found.count == 1) {
        search.Take(found, IsAtOnce(found.descriptors[0]));
        return;
    }
    // Connections of other threads to the same server, made at the same moment: none is taken, and none
    // waits.
    std::for_each_n(found.descriptors.begin(), found.count,
                    [](int descriptor) { SetAtOnce(descriptor, true); });
}

void CTransportSocket::Release() noexcept
{
    Search& search = *m_search;
    if (search.descriptor < 0 && !search.connecting) {
        return;
    }
    const std::lock_guard<std::mutex> lock(Search::s_mutex);
    search.EndConnecting();
    if (search.descriptor < 0) {
        return;
    }
    Search** link = &Search::s_adopted;
    while (*link != &search) {
        link = &(*link)->next;
    }
    *link = search.next;
    search.descriptor = -1;
}

void CTransportSocket::SendAtOnce(bool atOnce, std::uint64_t received) noexcept
{
    Search& search = *m_search;
    if (search.descriptor < 0 || search.atOnce == atOnce ||
        SocketNumber(search.descriptor) != search.socket) {
        return;
    }
    if (!search.confirmed) {
        const std::uint64_t seen = TrafficOf(search.descriptor).received;
        search.confirmed = seen == received || seen == UINT64_MAX;
        Search::s_last = search.confirmed ? search.descriptor : -1; // else all are looked at the next time
    }
    if (search.confirmed && SetAtOnce(search.descriptor, atOnce)) {
        search.atOnce = atOnce;
    }
}
