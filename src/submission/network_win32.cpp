#include "src/submission/network.h"

#include <algorithm>

#include <winsock2.h>
#include <ws2tcpip.h>

#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"

// libcurl's start-up has started Windows Sockets.
namespace network {

namespace {

using SystemSocket = SOCKET;

constexpr struct
{
    int error, code;
} kResolverCodes[] = {
    {WSATRY_AGAIN, codes::kResolveAgain},           {WSANO_RECOVERY, codes::kResolveFailed},
    {WSA_NOT_ENOUGH_MEMORY, codes::kResolveMemory}, {WSANO_DATA, codes::kResolveNoData},
    {WSAEAFNOSUPPORT, codes::kResolveFamily},       {WSAEINVAL, codes::kResolveBadFlags},
    {WSAHOST_NOT_FOUND, codes::kResolveNoName},     {WSATYPE_NOT_FOUND, codes::kResolveService},
    {WSAESOCKTNOSUPPORT, codes::kResolveSocketType}};

std::string ErrorText(int error)
{
    return platform::SystemErrorText(error).CStr();
}

void CloseSystemSocket(SOCKET socket)
{
    ::closesocket(socket);
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

// Not WSAPoll: on some systems it does not tell of a connection that failed.
bool Wait(Socket socket, bool toSend, std::int64_t milliseconds)
{
    fd_set readable = {1, {static_cast<SOCKET>(socket)}};
    fd_set writable = readable;
    fd_set failed = readable;
    timeval time = {static_cast<long>(milliseconds / 1000), static_cast<long>(milliseconds % 1000 * 1000)};
    return select(0, &readable, toSend ? &writable : nullptr, &failed, &time) != 0;
}

Socket Open(int family, int type, int protocol)
{
    const SOCKET made =
        WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    return made == INVALID_SOCKET ? kNoSocket : static_cast<Socket>(made);
}

void Shutdown(Socket socket)
{
    ::shutdown(static_cast<SOCKET>(socket), SD_BOTH);
}

// No process here is another's copy.
void Abandon(Socket /*socket*/) {}

void WatchProcessEnd() {}

bool IsProcessEnding()
{
    using Query = BOOLEAN(WINAPI*)();
    const auto query = reinterpret_cast<Query>(reinterpret_cast<void (*)()>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != 0;
}

} // namespace network
