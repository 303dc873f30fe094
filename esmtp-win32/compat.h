/* Stands before every source file of libESMTP: the POSIX calls it makes, in words of Windows. The macros take
   arguments, so that a field of the same name stays what it is; the headers that declare those names come
   first. */
#ifndef VELMAIL_ESMTP_COMPAT_H
#define VELMAIL_ESMTP_COMPAT_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOGDI
#define NOGDI /* its ERROR */
#endif
#include <winsock2.h>
#include <ws2tcpip.h>

#include <errno.h>
#include <fcntl.h>
#include <io.h>
#include <pthread.h>
#include <stddef.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

/* The resolver has no such answer here. */
#define EAI_SYSTEM (-1)

#define F_SETFL 4
#define O_NONBLOCK 04000

struct utsname
{
    char nodename[1024]; /* zero-terminated */
};

/* As POSIX has them, for TCP sockets; errno is set. A descriptor is this layer's own number. */
int compat_socket(int family, int type, int protocol);
int compat_connect(int descriptor, const struct sockaddr* address, size_t length);
int compat_fcntl(int descriptor, int command, int flags);
int compat_read(int descriptor, void* buffer, int length);
int compat_write(int descriptor, const void* buffer, int length);
int compat_poll(struct pollfd* list, unsigned count, int milliseconds);
int compat_close(int descriptor);
int compat_getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                       struct addrinfo** found);

int compat_uname(struct utsname* name);
struct tm* compat_localtime_r(const time_t* when, struct tm* local);
/* The conversions of a mail's date only: a, b, d, Y, T and z, the names in English. 0 for any other. */
size_t compat_strftime(char* buffer, size_t size, const char* format, const struct tm* local);
int compat_strerror_r(int error, char* buffer, size_t size);

#ifndef VELMAIL_ESMTP_COMPAT_SOURCE
#define socket(family, type, protocol) compat_socket(family, type, protocol)
#define connect(descriptor, address, length) compat_connect(descriptor, address, length)
#define fcntl(descriptor, command, flags) compat_fcntl(descriptor, command, flags)
#define read(descriptor, buffer, length) compat_read(descriptor, buffer, length)
#define write(descriptor, buffer, length) compat_write(descriptor, buffer, length)
#define poll(list, count, milliseconds) compat_poll(list, count, milliseconds)
#define close(descriptor) compat_close(descriptor)
#define getaddrinfo(node, service, hints, found) compat_getaddrinfo(node, service, hints, found)
#define uname(name) compat_uname(name)
#undef localtime_r
#define localtime_r(when, local) compat_localtime_r(when, local)
#define strftime(buffer, size, format, local) compat_strftime(buffer, size, format, local)
#undef strerror_r
#define strerror_r(error, buffer, size) compat_strerror_r(error, buffer, size)

/* There are no modules to load: none is shipped, and VelMail does not authenticate. */
#define RTLD_LAZY 1
#define dlopen(name, mode) ((void)(name), (void*)NULL)
#define dlsym(module, name) ((void*)NULL)
#define dlclose(module) ((void)(module))
#endif

#endif
