#include "sockets.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include <winsock2.h>

namespace sockets {
namespace {
void Start()
{
    static const struct CWinsock
    {
        CWinsock()
        {
            WSADATA data{};
            WSAStartup(MAKEWORD(2, 2), &data);
        }
    } winsock;
}

SOCKET Handle(Socket socket)
{
    return static_cast<SOCKET>(socket);
}
} // namespace

Socket Listen()
{
    Start();
    const SOCKET listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener == INVALID_SOCKET ||
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0)
        throw std::system_error(WSAGetLastError(), std::system_category(), "scripted server");
    return static_cast<Socket>(listener);
}

unsigned Port(Socket socket)
{
    sockaddr_in address{};
    int size = sizeof address;
    ::getsockname(Handle(socket), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

Socket Accept(Socket listener)
{
    SOCKET client = INVALID_SOCKET;
    do
        client = ::accept(Handle(listener), nullptr, nullptr);
    while (client == INVALID_SOCKET && WSAGetLastError() == WSAECONNRESET);
    const BOOL on = TRUE;
    if (client != INVALID_SOCKET)
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
    return client == INVALID_SOCKET ? none : static_cast<Socket>(client);
}

std::size_t Receive(Socket socket, char* buffer, std::size_t size)
{
    const int received = ::recv(Handle(socket), buffer, static_cast<int>(size), 0);
    return static_cast<std::size_t>(std::max(received, 0));
}

bool Send(Socket socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto size = static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
        const int sent = ::send(Handle(socket), bytes.data(), size, 0);
        if (sent < 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool WaitUntilRead(Socket socket)
{
    const unsigned port = Port(socket);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (bool waiting = true; std::chrono::steady_clock::now() < end; std::this_thread::yield()) {
        waiting = false;
        // Under Wine the peer's receive queue shows in the table of the system beneath, as a row that has our
        // port as remote one.
        std::ifstream table("Z:/proc/net/tcp");
        for (std::string row; std::getline(table, row);) {
            unsigned peerPort = 0;
            unsigned queued = 0;
            if (std::sscanf(row.c_str(), " %*u: %*x:%*x %*x:%x %*x %*x:%x", &peerPort, &queued) == 2)
                waiting = waiting || (peerPort == port && queued != 0);
        }
        if (!waiting)
            return true;
    }
    return false;
}

void EndSending(Socket socket)
{
    ::shutdown(Handle(socket), SD_SEND);
}

void Interrupt(Socket socket)
{
    BOOL listens = FALSE;
    int size = sizeof listens;
    ::getsockopt(Handle(socket), SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char*>(&listens), &size);
    if (listens != FALSE) { // nothing but a client ends the wait for one
        sockaddr_in address{};
        size = sizeof address;
        ::getsockname(Handle(socket), reinterpret_cast<sockaddr*>(&address), &size);
        const SOCKET client = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(client, reinterpret_cast<sockaddr*>(&address), size);
        ::closesocket(client);
        return;
    }
    ::shutdown(Handle(socket), SD_BOTH);
    CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr); // what waits already
}

void Close(Socket socket, bool reset)
{
    const linger discard{.l_onoff = 1, .l_linger = 0};
    if (reset)
        ::setsockopt(Handle(socket), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&discard),
                     sizeof discard);
    ::closesocket(Handle(socket));
}
} // namespace sockets
