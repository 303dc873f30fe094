#include "sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

namespace sockets {
Socket Listen()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0)
        throw std::system_error(errno, std::generic_category(), "scripted server");
    return listener;
}

unsigned Port(Socket socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(static_cast<int>(socket), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

Socket Accept(Socket listener)
{
    int client = -1;
    do
        client = ::accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
    while (client < 0 && (errno == EINTR || errno == ECONNABORTED));
    const int on = 1;
    if (client >= 0)
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return client;
}

std::size_t Receive(Socket socket, char* buffer, std::size_t size)
{
    ssize_t received = 0;
    do
        received = ::recv(static_cast<int>(socket), buffer, size, 0);
    while (received < 0 && errno == EINTR);
    return received < 0 ? 0 : static_cast<std::size_t>(received);
}

bool Send(Socket socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(static_cast<int>(socket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            return false;
        bytes.remove_prefix(sent < 0 ? 0 : static_cast<std::size_t>(sent));
    }
    return true;
}

bool WaitUntilRead(Socket socket)
{
    const unsigned port = Port(socket);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (bool waiting = true; std::chrono::steady_clock::now() < end; std::this_thread::yield()) {
        waiting = false;
        // The peer's receive queue shows nowhere but in the kernel's table; its row has our port as remote
        // one.
        std::ifstream table("/proc/net/tcp");
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
    ::shutdown(static_cast<int>(socket), SHUT_WR);
}

void Interrupt(Socket socket)
{
    ::shutdown(static_cast<int>(socket), SHUT_RDWR);
}

void Close(Socket socket, bool reset)
{
    const linger discard{.l_onoff = 1, .l_linger = 0};
    if (reset)
        ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    ::close(static_cast<int>(socket));
}
} // namespace sockets
