// What the submission path asks of the system's network: names, waiting, sockets that no other program gets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace network {

using Socket = std::intptr_t;
inline constexpr Socket kNoSocket = -1;

struct Place
{
    std::vector<std::string> addresses; // as numbers
    std::uint32_t scope = 0;            // of a link-local IPv6 address, 0 for none
    unsigned port = 0;
};

// The addresses of a server, whose port is a number or the name of a service. 0, or the host's code for the
// failure (670 to 679) with the system's `reason`.
[[nodiscard]] int LookUp(const char* host, const char* service, Place& place, std::string& reason);

// Waits until the socket can be read or, if asked for, written. False after so many milliseconds. Signals do
// not end it.
[[nodiscard]] bool Wait(Socket socket, bool toSend, std::int64_t milliseconds);

// A new socket that a started program does not inherit; kNoSocket on failure.
[[nodiscard]] Socket Open(int family, int type, int protocol);
// Closes it; returns whether it was connected.
bool Close(Socket socket);
// Ends the connection in both directions; the socket stays.
void Shutdown(Socket socket);
// Makes the socket's number stand for nothing, without a word to its peer: it is another process's.
void Abandon(Socket socket);

// Whether the process is ending and the libraries under this one may have ended before it. `Watch` is called
// when they have begun.
void WatchProcessEnd();
[[nodiscard]] bool IsProcessEnding();

} // namespace network
