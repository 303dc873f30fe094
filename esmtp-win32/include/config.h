/* What libESMTP's own configuration would find out. What is absent is off: no TLS, no BDAT, and its own
   memrchr and strlcpy. */
#ifndef VELMAIL_ESMTP_CONFIG_H
#define VELMAIL_ESMTP_CONFIG_H

#define VERSION "1.1.0"
#define LT_VERSION "8:0:2"
#define SO_VERSION "6.2.0"

#define SIZEOF_UNSIGNED_SHORT 2
#define SIZEOF_UNSIGNED_INT 4
#define SIZEOF_UNSIGNED_LONG 4

#define AUTH_ID_HACK 1
#define USE_ETRN 1
#define USE_XUSR 1
/* Without it the error number is one for all threads. */
#define USE_PTHREADS 1
#define LIBESMTP_ENABLE_DEPRECATED_SYMBOLS 1

#define HAVE_GETHOSTNAME 1
#define HAVE_GETTIMEOFDAY 1
#define HAVE_LOCALTIME_R 1
#define HAVE_LWRES_NETDB_H 0
#define HAVE_STRERROR_R 1
#define HAVE_WORKING_STRERROR_R 0
#define HAVE_STRUCT_TM_TM_ZONE 0
#define HAVE_UNAME 1
#define HAVE_STRFTIME 1
#define HAVE_STRDUP 1
#define HAVE_STRCASECMP 1
#define HAVE_STRNCASECMP 1

#endif
