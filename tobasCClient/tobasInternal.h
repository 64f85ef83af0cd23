/* Helpers shared by the source files of the archive client library; not installed for users. */
#ifndef TOBAS_INTERNAL_H
#define TOBAS_INTERNAL_H

#include <stddef.h>

#include "tobasCClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when a DEBUG line would be written somewhere (log or verbose level above 4). */
int _tobasDebugOn(void);

/* Entering and leaving traces of every function. */
#define TOBAS_ENTER(fn)                                      \
  do {                                                       \
    if (_tobasDebugOn()) tobasLogDebug("Entering %s()", fn); \
  } while (0)
#define TOBAS_LEAVE(fn, stat)                                               \
  do {                                                                      \
    if (_tobasDebugOn()) {                                                  \
      if ((stat) == 0)                                                      \
        tobasLogDebug("Leaving %s()", fn);                                  \
      else                                                                  \
        tobasLogDebug("Leaving %s()/FAILURE. Status: %d", fn, (int)(stat)); \
    }                                                                       \
  } while (0)

/* Copies src into dst of size bytes; -1 (dst holds a truncated copy) if it does not fit. */
int _tobasCopy(char* dst, size_t size, const char* src);
/* Appends formatted text to the NUL-terminated buf of size bytes; -1 if it does not fit. */
int _tobasAppendf(char* buf, size_t size, const char* format, ...) tobasPRINTF_LIKE(3, 4);
/* Writes all len bytes to a socket (no SIGPIPE) or a file; 0 or -1. */
int _tobasSendAll(int fd, const char* buf, size_t len);
int _tobasWriteAll(int fd, const char* buf, size_t len);
/* Seconds on the monotonic clock. */
double _tobasNow(void);

/* Pieces in which body data moves: a received body is spliced (or read) up to this much at a
 * time, a file sent is read in pieces of this size, so that each call moves what the socket
 * holds or takes. */
#define TOBAS_RECV_CHUNK (1024 * 1024)
#define TOBAS_SEND_CHUNK (1024 * 1024)

#ifdef __cplusplus
}
#endif

#endif
