/* Sockets, time and names for libESMTP on Windows. */
#define VELMAIL_ESMTP_COMPAT_SOURCE
#include "compat.h"
#include "esmtp_win32.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

struct connection
{
    struct connection* next;
    SOCKET socket;
    int descriptor;
    DWORD thread; /* that made it; only this one uses it */
    int unsent;   /* a send failed: no other follows, but what the server said before can be read */
    int over;     /* its end was read, or it failed: nothing more goes through */
    int excepted; /* an exception was told */
};

static SRWLOCK connections_lock = SRWLOCK_INIT;
static struct connection* connections; /* the newest first */
static int last_descriptor;

static pthread_once_t sink_once = PTHREAD_ONCE_INIT;
static pthread_key_t sink_key; /* its value is the sink itself: there is nothing to free */
static int sink_usable;

static const struct
{
    int winsock;
    int error;
    const char* text; /* where the C library has none */
} errors[] = {
    {WSAEINTR, EINTR, NULL},
    {WSAEBADF, EBADF, NULL},
    {WSAEACCES, EACCES, NULL},
    {WSAEFAULT, EFAULT, NULL},
    {WSAEINVAL, EINVAL, NULL},
    {WSAEMFILE, EMFILE, NULL},
    {WSA_NOT_ENOUGH_MEMORY, ENOMEM, NULL},
    {WSAEWOULDBLOCK, EAGAIN, NULL}, /* the number libESMTP asks for */
    {WSAEINPROGRESS, EINPROGRESS, "Operation now in progress"},
    {WSAEALREADY, EALREADY, "Operation already in progress"},
    {WSAENOTSOCK, ENOTSOCK, "Socket operation on non-socket"},
    {WSAEDESTADDRREQ, EDESTADDRREQ, "Destination address required"},
    {WSAEMSGSIZE, EMSGSIZE, "Message too long"},
    {WSAEPROTOTYPE, EPROTOTYPE, "Protocol wrong type for socket"},
    {WSAENOPROTOOPT, ENOPROTOOPT, "Protocol not available"},
    {WSAEPROTONOSUPPORT, EPROTONOSUPPORT, "Protocol not supported"},
    {WSAESOCKTNOSUPPORT, EPROTONOSUPPORT, NULL},
    {WSAEOPNOTSUPP, EOPNOTSUPP, "Operation not supported"},
    {WSAEPFNOSUPPORT, EAFNOSUPPORT, NULL},
    {WSAEAFNOSUPPORT, EAFNOSUPPORT, "Address family not supported"},
    {WSAEADDRINUSE, EADDRINUSE, "Address already in use"},
    {WSAEADDRNOTAVAIL, EADDRNOTAVAIL, "Cannot assign requested address"},
    {WSAENETDOWN, ENETDOWN, "Network is down"},
    {WSASYSNOTREADY, ENETDOWN, NULL},
    {WSAVERNOTSUPPORTED, ENETDOWN, NULL},
    {WSANOTINITIALISED, ENETDOWN, NULL},
    {WSAENETUNREACH, ENETUNREACH, "Network is unreachable"},
    {WSAENETRESET, ENETRESET, "Network dropped connection on reset"},
    {WSAECONNABORTED, ECONNABORTED, "Connection aborted"},
    {WSAECONNRESET, ECONNRESET, "Connection reset by peer"},
    {WSAENOBUFS, ENOBUFS, "No buffer space available"},
    {WSAEISCONN, EISCONN, "Socket is already connected"},
    {WSAENOTCONN, ENOTCONN, "Socket is not connected"},
    {WSAESHUTDOWN, EPIPE, NULL},
    {WSAEDISCON, EPIPE, NULL},
    {WSAETIMEDOUT, ETIMEDOUT, "Connection timed out"},
    {WSAECONNREFUSED, ECONNREFUSED, "Connection refused"},
    {WSAELOOP, ELOOP, "Cannot translate name"},
    {WSAENAMETOOLONG, ENAMETOOLONG, NULL},
    {WSAEHOSTDOWN, EHOSTUNREACH, NULL},
    {WSAEHOSTUNREACH, EHOSTUNREACH, "No route to host"},
};
enum
{
    ERROR_COUNT = sizeof errors / sizeof errors[0]
};

static int to_errno(int winsock)
{
    int i = 0;
    while (i < ERROR_COUNT && errors[i].winsock != winsock) {
        ++i;
    }
    return i < ERROR_COUNT ? errors[i].error : EIO;
}

static void make_sink_key(void)
{
    sink_usable = pthread_key_create(&sink_key, NULL) == 0;
}

int esmtp_win32_set_sink(esmtp_win32_sink sink)
{
    pthread_once(&sink_once, make_sink_key);
    return sink_usable && pthread_setspecific(sink_key, (const void*)(uintptr_t)sink) == 0;
}

static void report(int event, const char* call, int error, int result)
{
    esmtp_win32_sink sink;
    pthread_once(&sink_once, make_sink_key);
    sink = sink_usable ? (esmtp_win32_sink)(uintptr_t)pthread_getspecific(sink_key) : NULL;
    if (sink != NULL) {
        sink(event, call, error, result);
    }
}

/* Tells of a failed call and sets errno. Returns -1. */
static int fail(const char* call, int winsock)
{
    report(ESMTP_WIN32_CALL_FAILED, call, winsock, -1);
    errno = to_errno(winsock);
    return -1;
}

static struct connection* find(int descriptor)
{
    struct connection* found;
    AcquireSRWLockShared(&connections_lock);
    for (found = connections; found != NULL && found->descriptor != descriptor;) {
        found = found->next;
    }
    ReleaseSRWLockShared(&connections_lock);
    if (found == NULL) {
        errno = EBADF;
    }
    return found;
}

/* libESMTP goes on after a write that failed: nothing of a message with a hole in it may reach the server. */
static int fail_send(struct connection* connection, int winsock)
{
    connection->unsent = 1;
    shutdown(connection->socket, SD_SEND); /* fails where there is no connection left, which is as good */
    report(ESMTP_WIN32_CALL_FAILED, "send", winsock, -1);
    report(ESMTP_WIN32_SEND_FAILED, "send", winsock, SOCKET_ERROR);
    errno = to_errno(winsock);
    return -1;
}

int esmtp_win32_send_at_once(int at_once)
{
    const DWORD self = GetCurrentThreadId();
    const int value = at_once != 0;
    struct connection* own;
    AcquireSRWLockShared(&connections_lock);
    for (own = connections; own != NULL && own->thread != self;) {
        own = own->next;
    }
    ReleaseSRWLockShared(&connections_lock);
    return own != NULL &&
           setsockopt(own->socket, IPPROTO_TCP, TCP_NODELAY, (const char*)&value, sizeof value) == 0;
}

static BOOL CALLBACK start_winsock(PINIT_ONCE once, PVOID argument, PVOID* context)
{
    WSADATA data;
    (void)once;
    (void)argument;
    (void)context;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

int compat_getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                       struct addrinfo** found)
{
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    if (!InitOnceExecuteOnce(&once, start_winsock, NULL, NULL)) {
        report(ESMTP_WIN32_STARTUP_FAILED, "WSAStartup", 0, -1);
        return EAI_FAIL;
    }
    return getaddrinfo(node, service, hints, found);
}

int compat_socket(int family, int type, int protocol)
{
    struct connection* const connection = calloc(1, sizeof *connection);
    if (connection == NULL) {
        errno = ENOMEM;
        return -1;
    }
    connection->socket =
        WSASocketW(family, type, protocol, NULL, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (connection->socket == INVALID_SOCKET) {
        free(connection);
        return fail("socket", WSAGetLastError());
    }
    connection->thread = GetCurrentThreadId();
    AcquireSRWLockExclusive(&connections_lock);
    last_descriptor = last_descriptor == INT_MAX ? 1 : last_descriptor + 1;
    connection->descriptor = last_descriptor;
    connection->next = connections;
    connections = connection;
    ReleaseSRWLockExclusive(&connections_lock);
    return connection->descriptor;
}

int compat_connect(int descriptor, const struct sockaddr* address, size_t length)
{
    struct connection* const connection = find(descriptor);
    if (connection == NULL) {
        return -1;
    }
    return connect(connection->socket, address, (int)length) == 0 ? 0 : fail("connect", WSAGetLastError());
}

/* The one use: the socket is not to block. One that would block for ever is given up instead. */
int compat_fcntl(int descriptor, int command, int flags)
{
    u_long on = 1;
    struct connection* const connection = find(descriptor);
    if (connection == NULL) {
        return -1;
    }
    if (command != F_SETFL || flags != O_NONBLOCK) {
        errno = EINVAL;
        return -1;
    }
    if (ioctlsocket(connection->socket, (long)FIONBIO, &on) != 0) {
        connection->over = 1;
        return fail("socket", WSAGetLastError());
    }
    return 0;
}

int compat_read(int descriptor, void* buffer, int length)
{
    int count;
    int winsock;
    struct connection* const connection = find(descriptor);
    if (connection == NULL) {
        return -1;
    }
    if (connection->over) {
        return 0;
    }
    count = recv(connection->socket, buffer, length, 0);
    if (count >= 0) {
        connection->over = count == 0;
        return count;
    }
    winsock = WSAGetLastError();
    if (winsock == WSAEWOULDBLOCK) {
        errno = EAGAIN;
        return -1;
    }
    connection->over = 1;
    return fail("recv", winsock);
}

int compat_write(int descriptor, const void* buffer, int length)
{
    int count;
    int winsock;
    struct connection* const connection = find(descriptor);
    if (connection == NULL) {
        return -1;
    }
    if (connection->over || connection->unsent) {
        errno = EPIPE;
        return -1;
    }
    count = send(connection->socket, buffer, length, 0);
    if (count >= 0) {
        return count;
    }
    winsock = WSAGetLastError();
    if (winsock == WSAEWOULDBLOCK) {
        errno = EAGAIN;
        return -1;
    }
    return fail_send(connection, winsock);
}

/* What an exception is told of once must not wake the wait again and again. Returns whether there was one. */
static int report_exceptions(struct pollfd* list, unsigned count, fd_set* excepted)
{
    unsigned i;
    int any = 0;
    for (i = 0; i < count; ++i) {
        struct connection* const connection = find((int)list[i].fd);
        if (connection != NULL && !connection->excepted && FD_ISSET(connection->socket, excepted)) {
            report(list[i].events & POLLIN ? ESMTP_WIN32_READ_EXCEPTION : ESMTP_WIN32_WRITE_EXCEPTION,
                   "select", 0, 0);
            connection->excepted = 1;
            any = 1;
        }
    }
    return any;
}

/* A connection that is over is an error here: told of something to read, libESMTP would read on behind the
   dialogue's end. */
int compat_poll(struct pollfd* list, unsigned count, int milliseconds)
{
    struct timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    struct connection* connection = NULL;
    fd_set readable;
    fd_set writable;
    fd_set excepted;
    unsigned i;
    int ready;
    if (count == 0 || count > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    do {
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&excepted);
        for (i = 0; i < count; ++i) {
            connection = find((int)list[i].fd);
            if (connection == NULL) {
                return -1;
            }
            if (connection->over) {
                errno = EPIPE;
                return -1;
            }
            if (list[i].events & POLLIN) {
                FD_SET(connection->socket, &readable);
            }
            if (list[i].events & POLLOUT) {
                FD_SET(connection->socket, &writable);
            }
            if (!connection->excepted) {
                FD_SET(connection->socket, &excepted);
            }
        }
        ready = select(0, &readable, &writable, &excepted, milliseconds < 0 ? NULL : &limit);
        if (ready == SOCKET_ERROR) {
            return fail("select", WSAGetLastError());
        }
    } while (ready > 0 && report_exceptions(list, count, &excepted) && readable.fd_count == 0 &&
             writable.fd_count == 0);
    if (ready == 0 && milliseconds > 0 && count == 1 && list[0].events == POLLOUT) {
        connection->over = 1;                /* it would take as long for an answer */
        fail_send(connection, WSAETIMEDOUT); /* the wait of a write: to libESMTP still a mere time-out */
        return 0;
    }
    ready = 0;
    for (i = 0; i < count; ++i) {
        connection = find((int)list[i].fd);
        list[i].revents = 0;
        if (connection != NULL && FD_ISSET(connection->socket, &readable)) {
            list[i].revents |= list[i].events & POLLIN;
        }
        if (connection != NULL && FD_ISSET(connection->socket, &writable)) {
            list[i].revents |= list[i].events & POLLOUT;
        }
        ready += list[i].revents != 0;
    }
    return ready;
}

int compat_close(int descriptor)
{
    struct connection** link = &connections;
    struct connection* found;
    int result;
    AcquireSRWLockExclusive(&connections_lock);
    while (*link != NULL && (*link)->descriptor != descriptor) {
        link = &(*link)->next;
    }
    found = *link;
    if (found != NULL) {
        *link = found->next;
    }
    ReleaseSRWLockExclusive(&connections_lock);
    if (found == NULL) {
        errno = EBADF;
        return -1;
    }
    result = closesocket(found->socket);
    if (result != 0) {
        errno = to_errno(WSAGetLastError());
    }
    free(found);
    return result;
}

int compat_uname(struct utsname* name)
{
    DWORD size = sizeof name->nodename;
    if (!GetComputerNameExA(ComputerNameDnsFullyQualified, name->nodename, &size)) {
        errno = EIO;
        return -1;
    }
    return 0;
}

static int minutes_of_day(const SYSTEMTIME* time)
{
    return time->wHour * 60 + time->wMinute;
}

struct tm* compat_localtime_r(const time_t* when, struct tm* local)
{
    static const ULONGLONG epoch = 116444736000000000ULL; /* 1970 in the system's count of 100 ns */
    const ULONGLONG ticks = (ULONGLONG)*when * 10000000U + epoch;
    const FILETIME file = {(DWORD)ticks, (DWORD)(ticks >> 32)};
    TIME_ZONE_INFORMATION zone;
    SYSTEMTIME utc;
    SYSTEMTIME time;
    memset(local, 0, sizeof *local);
    if (!FileTimeToSystemTime(&file, &utc)) {
        errno = EOVERFLOW;
        return NULL;
    }
    local->tm_isdst = -1; /* the zone is not known: the time is given as UTC */
    time = utc;
    if (GetTimeZoneInformationForYear(utc.wYear, NULL, &zone) &&
        SystemTimeToTzSpecificLocalTime(&zone, &utc, &time)) {
        const int day = 24 * 60;
        const int apart = minutes_of_day(&utc) - minutes_of_day(&time) - (int)(zone.Bias + zone.StandardBias);
        local->tm_isdst = apart % day != 0;
    }
    local->tm_year = time.wYear - 1900;
    local->tm_mon = time.wMonth - 1;
    local->tm_mday = time.wDay;
    local->tm_wday = time.wDayOfWeek;
    local->tm_hour = time.wHour;
    local->tm_min = time.wMinute;
    local->tm_sec = time.wSecond;
    return local;
}

/* "+0200"; "-0000" for an unknown zone. */
static int print_zone(char* buffer, size_t size, const struct tm* local)
{
    TIME_ZONE_INFORMATION zone;
    long bias; /* minutes behind */
    if (local->tm_isdst < 0 || !GetTimeZoneInformationForYear((USHORT)(local->tm_year + 1900), NULL, &zone)) {
        return snprintf(buffer, size, "-0000");
    }
    bias = zone.Bias + (local->tm_isdst ? zone.DaylightBias : zone.StandardBias);
    return snprintf(buffer, size, "%c%02ld%02ld", bias > 0 ? '-' : '+', labs(bias) / 60, labs(bias) % 60);
}

size_t compat_strftime(char* buffer, size_t size, const char* format, const struct tm* local)
{
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    size_t used = 0;
    for (; *format != '\0'; ++format) {
        char* const end = buffer + used;
        const size_t left = size - used;
        int count = -1;
        if (*format != '%') {
            count = snprintf(end, left, "%c", *format);
        } else if (*++format == 'a') {
            count = snprintf(end, left, "%s", days[local->tm_wday]);
        } else if (*format == 'b') {
            count = snprintf(end, left, "%s", months[local->tm_mon]);
        } else if (*format == 'd') {
            count = snprintf(end, left, "%02d", local->tm_mday);
        } else if (*format == 'Y') {
            count = snprintf(end, left, "%d", local->tm_year + 1900);
        } else if (*format == 'T') {
            count = snprintf(end, left, "%02d:%02d:%02d", local->tm_hour, local->tm_min, local->tm_sec);
        } else if (*format == 'z') {
            count = print_zone(end, left, local);
        }
        if (count < 0 || (size_t)count >= left) {
            buffer[0] = '\0';
            return 0;
        }
        used += (size_t)count;
    }
    return used;
}

int compat_strerror_r(int error, char* buffer, size_t size)
{
    int i = 0;
    while (i < ERROR_COUNT && (errors[i].error != error || errors[i].text == NULL)) {
        ++i;
    }
    return snprintf(buffer, size, "%s", i < ERROR_COUNT ? errors[i].text : strerror(error)) < 0 ? -1 : 0;
}
