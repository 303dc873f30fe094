// What sockets.cpp needs of this system beside the calls that all have.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace sockets {
using Native = int;
constexpr int kCloseOnExec = SOCK_CLOEXEC;
constexpr int kNoSignal = MSG_NOSIGNAL;
constexpr int kEndOfSending = SHUT_WR;

inline void Start() {}
inline int LastFailure()
{
    return errno;
}
inline bool IsPassing(int failure)
{
    return failure == EINTR || failure == ECONNABORTED;
}
inline void EndWaiting(Native socket)
{
    ::shutdown(socket, SHUT_RDWR);
}
inline void CloseNative(Native socket)
{
    ::close(socket);
}
} // namespace sockets
