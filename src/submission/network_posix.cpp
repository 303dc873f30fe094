#include "src/submission/network.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"

namespace network {

namespace {

std::atomic<bool> g_ending = false;

using SystemSocket = int;

constexpr struct
{
    int error, code;
} kResolverCodes[] = {{EAI_AGAIN, codes::kResolveAgain},       {EAI_FAIL, codes::kResolveFailed},
                      {EAI_MEMORY, codes::kResolveMemory},     {EAI_ADDRFAMILY, codes::kResolveAddressFamily},
                      {EAI_NODATA, codes::kResolveNoData},     {EAI_FAMILY, codes::kResolveFamily},
                      {EAI_BADFLAGS, codes::kResolveBadFlags}, {EAI_NONAME, codes::kResolveNoName},
                      {EAI_SERVICE, codes::kResolveService},   {EAI_SOCKTYPE, codes::kResolveSocketType}};

std::string ErrorText(int error)
{
    return error == EAI_SYSTEM ? platform::SystemErrorText(errno).CStr() : gai_strerror(error);
}

void CloseSystemSocket(int socket)
{
    ::close(socket);
}

} // namespace

} // namespace network

#include "src/submission/network_common.h"

namespace network {

int LookUp(const char* host, const char* service, Place& place, std::string& reason)
{
    return LookUpAll(host, service, place, reason);
}

bool Close(Socket socket)
{
    return CloseAndTell(socket);
}

bool Wait(Socket socket, bool toSend, std::int64_t milliseconds)
{
    pollfd poller = {static_cast<int>(socket), static_cast<short>(POLLIN | (toSend ? POLLOUT : 0)), 0};
    for (const std::int64_t end = platform::MonotonicMilliseconds() + milliseconds;;) {
        const std::int64_t rest = std::max<std::int64_t>(end - platform::MonotonicMilliseconds(), 0);
        const int ready = poll(&poller, 1, static_cast<int>(rest));
        if (ready >= 0 || errno != EINTR) {
            return ready != 0; // a failed wait shows at the next call
        }
    }
}

Socket Open(int family, int type, int protocol)
{
    return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

void Shutdown(Socket socket)
{
    ::shutdown(static_cast<int>(socket), SHUT_RDWR);
}

void Abandon(Socket socket)
{
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing < 0 || ::dup3(nothing, static_cast<int>(socket), O_CLOEXEC) < 0) {
        ::close(static_cast<int>(socket));
    }
    if (nothing >= 0) {
        ::close(nothing);
    }
}

// Handlers run in the opposite order: this one before those of libcurl's own libraries.
void WatchProcessEnd()
{
    std::atexit([] { g_ending = true; });
}

bool IsProcessEnding()
{
    return g_ending;
}

} // namespace network
