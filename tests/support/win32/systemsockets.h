// What sockets.cpp needs of this system beside the calls that all have.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

namespace sockets {
using Native = SOCKET;
constexpr int kCloseOnExec = 0;
constexpr int kNoSignal = 0;
constexpr int kEndOfSending = SD_SEND;

inline void Start()
{
    static WSADATA data{};
    static const int started = WSAStartup(MAKEWORD(2, 2), &data);
    static_cast<void>(started);
}
inline int LastFailure()
{
    return WSAGetLastError();
}
inline bool IsPassing(int failure)
{
    return failure == WSAECONNRESET;
}
inline void CloseNative(Native socket)
{
    ::closesocket(socket);
}
inline void EndWaiting(Native socket)
{
    BOOL listens = FALSE;
    int size = sizeof listens;
    ::getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char*>(&listens), &size);
    if (listens != FALSE) { // nothing but a client ends the wait for one
        sockaddr_in address{};
        size = sizeof address;
        ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
        const SOCKET client = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(client, reinterpret_cast<sockaddr*>(&address), size);
        ::closesocket(client);
        return;
    }
    ::shutdown(socket, SD_BOTH);
    CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr); // what waits already
}
} // namespace sockets
