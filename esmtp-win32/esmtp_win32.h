/* What libesmtp-6.dll exports beside libESMTP's own functions. Look these up at run time and do without them:
   the DLL may be replaced by another build of libESMTP. */
#ifndef VELMAIL_ESMTP_WIN32_H
#define VELMAIL_ESMTP_WIN32_H

#ifdef __cplusplus
extern "C" {
#endif

enum esmtp_win32_event
{
    ESMTP_WIN32_CALL_FAILED = 1, /* `call` failed with `error` */
    ESMTP_WIN32_SEND_FAILED,     /* follows the above: send gave `result` */
    ESMTP_WIN32_STARTUP_FAILED,  /* Winsock did not start */
    ESMTP_WIN32_READ_EXCEPTION,  /* urgent data while waiting to read; told once a connection */
    ESMTP_WIN32_WRITE_EXCEPTION
};

/* `call` is "socket", "connect", "send", "recv" or "select"; `error` a Winsock error code. Must not call
   libESMTP. */
typedef void (*esmtp_win32_sink)(int event, const char* call, int error, int result);

/* Where the socket errors of the calling thread's sessions are told from now on; null: nowhere. Returns 0
   without memory. */
typedef int (*esmtp_win32_set_sink_t)(esmtp_win32_sink sink);
int esmtp_win32_set_sink(esmtp_win32_sink sink);

/* Whether small writes of the connection the calling thread made last go out at once (not 0) or are gathered
   to full segments (0). Returns 0 when there is no connection or the system refuses. */
typedef int (*esmtp_win32_send_at_once_t)(int at_once);
int esmtp_win32_send_at_once(int at_once);

#ifdef __cplusplus
}
#endif

#endif
