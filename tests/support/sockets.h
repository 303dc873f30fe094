// The loopback TCP calls the scripted server stands on; each platform adds what it has of its own.
// A socket is used by one thread, except Interrupt, which any thread may call while no other closes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sockets {
using Socket = std::intptr_t;
constexpr Socket none = -1;

// Listens on a free port of 127.0.0.1; throws std::system_error.
[[nodiscard]] Socket Listen();
[[nodiscard]] unsigned Port(Socket socket);
// Waits for a client; none once the listener was interrupted.
[[nodiscard]] Socket Accept(Socket listener);
// Waits for bytes; 0 when the peer has closed, the connection broke, or it was interrupted.
[[nodiscard]] std::size_t Receive(Socket socket, char* buffer, std::size_t size);
// Sends everything, each call as a segment of its own; false when the connection broke.
[[nodiscard]] bool Send(Socket socket, std::string_view bytes);
void EndSending(Socket socket);
// Ends every wait on the socket, in any thread, and makes later calls fail.
void Interrupt(Socket socket);
// With reset, the peer sees a reset connection and bytes under way may be lost.
void Close(Socket socket, bool reset = false);
} // namespace sockets
