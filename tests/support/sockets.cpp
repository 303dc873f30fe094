#include "sockets.h"

#include <algorithm>
#include <climits>
#include <system_error>

#include "systemsockets.h"

namespace sockets {
namespace {
Native Of(Socket socket)
{
    return static_cast<Native>(socket);
}

template<class Value>
void SetOption(Socket socket, int level, int name, const Value& value)
{
    ::setsockopt(Of(socket), level, name, reinterpret_cast<const char*>(&value), sizeof value);
}
} // namespace

Socket Listen()
{
    Start();
    const auto listener = static_cast<Socket>(::socket(AF_INET, SOCK_STREAM | kCloseOnExec, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener == none ||
        ::bind(Of(listener), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(Of(listener), SOMAXCONN) != 0)
        throw std::system_error(LastFailure(), std::system_category(), "scripted server");
    return listener;
}

unsigned Port(Socket socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(Of(socket), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

Socket Accept(Socket listener)
{
    Socket client = none;
    do
        client = static_cast<Socket>(::accept(Of(listener), nullptr, nullptr));
    while (client == none && IsPassing(LastFailure()));
    if (client != none)
        SetOption(client, IPPROTO_TCP, TCP_NODELAY, 1);
    return client;
}

std::size_t Receive(Socket socket, char* buffer, std::size_t size)
{
    std::int64_t received = 0;
    do
        received = ::recv(Of(socket), buffer, static_cast<int>(size), 0);
    while (received < 0 && IsPassing(LastFailure()));
    return static_cast<std::size_t>(std::max<std::int64_t>(received, 0));
}

bool Send(Socket socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto size = static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX));
        const std::int64_t sent = ::send(Of(socket), bytes.data(), size, kNoSignal);
        if (sent < 0 && !IsPassing(LastFailure()))
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(std::max<std::int64_t>(sent, 0)));
    }
    return true;
}

void EndSending(Socket socket)
{
    ::shutdown(Of(socket), kEndOfSending);
}

void Interrupt(Socket socket)
{
    EndWaiting(Of(socket));
}

void Close(Socket socket, bool reset)
{
    if (reset)
        SetOption(socket, SOL_SOCKET, SO_LINGER, linger{.l_onoff = 1, .l_linger = 0});
    CloseNative(Of(socket));
}
} // namespace sockets
