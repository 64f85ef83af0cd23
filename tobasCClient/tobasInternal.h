/* Helpers shared by the source files of the archive client library; not installed for users. */
#ifndef TOBAS_INTERNAL_H
#define TOBAS_INTERNAL_H

#include <stddef.h>

#include "tobasCClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TOBAS_HIDDEN __attribute__((visibility("hidden")))
#else
#define TOBAS_HIDDEN
#endif

/* Result of the text helpers below when the text does not fit its buffer. */
#define TOBAS_TRUNCATED (-1)
/* Result of tobasSendAll when the peer no longer takes data. */
#define TOBAS_SEND_FAILED (-1)

/* Longest reply header line read in one piece (longer lines come in pieces of this size less 1). */
#define TOBAS_LINE_MAX tobasHUGE_BUF_SIZE
/* Piece in which a retrieved body moves from the socket into its file. */
#define TOBAS_IO_CHUNK (1024 * 1024)
/* Pieces a checksum's thread may have before it (waiting or being hashed): a few, so that neither
 * thread waits for the other when one of them is held up for a moment. */
#define TOBAS_SUM_QUEUE 3
/* Piece in which a file is read and sent. */
#define TOBAS_SEND_PIECE (512 * 1024)

/* 1 when a DEBUG line would be written somewhere (log or verbose level above 4). */
TOBAS_HIDDEN int tobasDebugOn(void);

/* Entering and leaving traces of every function. tobasTraceLeave returns stat. */
static inline void tobasTraceEnter(const char* fn) {
  if (tobasDebugOn()) tobasLogDebug("Entering %s()", fn);
}
static inline int tobasTraceLeave(const char* fn, int stat) {
  if (tobasDebugOn()) {
    if (stat == tobasSTAT_SUCCESS)
      tobasLogDebug("Leaving %s()", fn);
    else
      tobasLogDebug("Leaving %s()/FAILURE. Status: %d", fn, stat);
  }
  return stat;
}

/* Copies src into dst of size bytes; TOBAS_TRUNCATED (dst holds a cut copy) if it does not fit. */
TOBAS_HIDDEN int tobasCopyStr(char* dst, size_t size, const char* src);
/* Appends formatted text to the NUL-terminated buf of size bytes; TOBAS_TRUNCATED if it does not fit. */
TOBAS_HIDDEN int tobasAppendf(char* buf, size_t size, const char* format, ...) tobasPRINTF_LIKE(3, 4);
/* Writes all len bytes to a file; 0 or -1. */
TOBAS_HIDDEN int tobasWriteAll(int fd, const char* buf, size_t len);
/* Seconds on the monotonic clock. */
TOBAS_HIDDEN double tobasNow(void);

/* maxInterrupts of tobasWaitFd: a signal never ends the wait. */
#define TOBAS_ANY_INTERRUPTS (-1)
/* Waits until fd is ready for `events` or timeoutSecs have passed on the monotonic clock.
 * Interrupted waits go on with the time left, at most maxInterrupts times.
 * 0, tobasERR_TIMEOUT or tobasERR_COM. */
TOBAS_HIDDEN int tobasWaitFd(int fd, short events, double timeoutSecs, int maxInterrupts);
/* Connected non-blocking socket, as tobasPrepSock. */
TOBAS_HIDDEN int tobasOpenSocket(const char* host, int port);
/* The reply time-out that a time-out given to a command stands for (<= 0: no limit in practice). */
TOBAS_HIDDEN float tobasReplyTimeout(float secs);
/* Sends all len bytes on a non-blocking socket (no SIGPIPE), each wait bounded by `timeout`;
 * `more`: further bytes follow at once. 0, tobasERR_TIMEOUT, or TOBAS_SEND_FAILED. */
TOBAS_HIDDEN int tobasSendAll(int fd, const char* buf, size_t len, int more, float timeout);
/* Sends len bytes of the file `file` from its current position, as tobasSendAll.
 * 0, tobasERR_TIMEOUT, TOBAS_SEND_FAILED, tobasERR_ALLOC_MEM, or tobasERR_FILE when the file
 * cannot be read or ends first. */
TOBAS_HIDDEN int tobasSendFile(int sock, int file, long len, float timeout);

/* One GET or POST: what is sent, where the reply goes, and the reply time-out that bounds each
 * wait. A command carries its own time-out here, so that commands of several threads do not
 * change each other's; the process-wide value is only the default of the public functions. */
typedef struct {
  float timeout;
  const char* userAgent;
  const char* path;
  int receiveData;      /* GET: read the body, else leave the connection in rep->fd */
  const char* mimeType; /* POST: the body, from the file srcFilename or from data */
  const char* contentDisp;
  const char* srcFilename;
  const char* data;
  long dataLen;
  tobasHTTP_DATA* rep;
  long* replyLen;
  tobasHTTP_RESP* resp;
  char (*hdr)[tobasHTTP_HDR_ROW_LEN];
  long rangeFrom; /* GET: > 0 asks for the body from this offset on ("Range: bytes=N-") */
} tobasRequest;

/* One attempt at host:port, as _tobasHttpGet and _tobasHttpPost. */
TOBAS_HIDDEN int tobasGetAt(const char* host, int port, const tobasRequest* rq);
TOBAS_HIDDEN int tobasPostAt(const char* host, int port, const tobasRequest* rq);
/* With fail-over when host names a registered list, as tobasHttpGet and tobasHttpPost. */
TOBAS_HIDDEN int tobasGetFrom(const char* host, int port, const tobasRequest* rq);
TOBAS_HIDDEN int tobasPostTo(const char* host, int port, const tobasRequest* rq);
/* tobasHandleStatus, with the time-out that a time-out's message names. */
TOBAS_HIDDEN void tobasFillStatus(int retCode, tobasHTTP_DATA* repDataRef, tobasSTATUS* status,
                                  float timeout);

/* The retry policy as one call took it when it began, and the attempts it has made. */
typedef struct {
  int maxAttempts, firstDelayMs, maxDelayMs, deadlineMs;
  int attempts;
  double start;
} tobasRetry;
TOBAS_HIDDEN void tobasRetryBegin(tobasRetry* r);
/* After a failed attempt: its code, and the HTTP status and header of its reply (httpStatus 0 when
 * no reply came; the header is then not looked at). When another attempt is due, closes the failed
 * attempt's connection *conn (when > 0; set to 0), so that the server is not kept waiting, then
 * waits and returns 1; else returns 0 and leaves *conn as it is. */
TOBAS_HIDDEN int tobasRetryAgain(tobasRetry* r, int stat, int httpStatus, tobasHTTP_HDR hdr, int* conn);

/* A checksum being computed over a body as it arrives, and the value it must come to. */
typedef struct tobasSum tobasSum;
/* *sum NULL when no method is given. 0, tobasERR_INV_PARS (unknown method or malformed value,
 * logged) or tobasERR_ALLOC_MEM. */
TOBAS_HIDDEN int tobasSumNew(const char* method, const char* value, tobasSum** sum);
/* 1 when the sum is cheap enough to be computed in the receiving thread, by tobasSumUpdate on each
 * piece as it arrives; else it is fed whole pieces, which a thread of its own hashes. */
TOBAS_HIDDEN int tobasSumHere(const tobasSum* s);
/* Hands p[0..n) to the sum's thread, first waiting until fewer than TOBAS_SUM_QUEUE pieces are
 * before it: p must stay unchanged until TOBAS_SUM_QUEUE more tobasSumFeed or a tobasSumWait return. */
TOBAS_HIDDEN void tobasSumFeed(tobasSum* s, const void* p, size_t n);
/* Until every piece fed is hashed. The three functions after it are called only while no piece
 * is being hashed: before the first tobasSumFeed, or after tobasSumWait (a body's copy ends with it). */
TOBAS_HIDDEN void tobasSumWait(tobasSum* s);
/* Hashes p[0..n) in the calling thread (after what was fed). */
TOBAS_HIDDEN void tobasSumUpdate(tobasSum* s, const void* p, size_t n);
/* Forgets every byte hashed: the body starts again. */
TOBAS_HIDDEN void tobasSumRestart(tobasSum* s);
/* 0 when the bytes hashed come to the value expected, else tobasERR_CHECKSUM (logged). */
TOBAS_HIDDEN int tobasSumCheck(tobasSum* s);
TOBAS_HIDDEN void tobasSumFree(tobasSum* s);

/* Parsers of what servers send, exported for the fuzz targets (not part of the public API). */

/* A reply header parsed from memory as its bytes arrive: the rows (row 0 the status line), the
 * body length when announced, and the status line once the header is complete (done). */
typedef struct {
  char (*hdr)[tobasHTTP_HDR_ROW_LEN];
  tobasHTTP_RESP* resp;
  long* dataLen;
  int rows;
  int done;
} tobasHdrParse;
/* Takes the complete lines of p[0..len), up to the blank line that ends the header; *used: the
 * bytes taken. With `end` (no more bytes follow) a header left incomplete is an error.
 * 0 or tobasERR_INV_REPLY. */
int _tobasParseHdr(tobasHdrParse* ps, const char* p, size_t len, int end, size_t* used);
/* Host (tobasMED_BUF) and port of a redirection's location "scheme://host:port[/...]".
 * 0 or tobasERR_INV_REPLY. */
int _tobasParseLocation(const char* location, char* host, int* port);
/* The file name (tobasMED_BUF) of a reply's content disposition, when it names a plain file (no
 * folder, not "." or ".."). 0 or tobasERR_INV_REPLY. */
int _tobasReplyFileName(tobasHTTP_HDR hdr, char* name);
/* The time of the last rotation in the marker line "LOG-ROTATE: <time> ..." among the first 256
 * bytes of text (the top of a log file); 0 without a marker. */
long _tobasRotationTime(const char* text, size_t len);

/* A 206 reply's Content-Range value "bytes FROM-LAST/TOTAL", with 0 <= FROM <= LAST < TOTAL.
 * 0 or tobasERR_INV_REPLY. */
int _tobasParseContentRange(const char* value, long* from, long* last, long* total);
/* A Retry-After value in ms: delta seconds (a longer wait than a day is taken as a day); 0 for
 * anything else, the date form included. */
long _tobasRetryAfterMs(const char* value);

/* 1 when host:port is a server of a registered list. */
TOBAS_HIDDEN int tobasSrvListed(const char* host, int port);

/* A command being built: its request path, a work buffer for one encoded value, and the first
 * error met; once an error is set, the steps below leave the command as it is. */
typedef struct {
  const char* fn;
  char* path; /* tobasHUGE_BUF */
  char* enc;  /* tobasHUGE_BUF */
  int stat;
  float timeout; /* the command's reply time-out */
  int retry;     /* the process's retry policy applies (commands safe to repeat) */
} tobasCommand;

/* Writes the entering trace of fn, takes the command's reply time-out and clears the status. */
TOBAS_HIDDEN void tobasCmdBegin(tobasCommand* c, const char* fn, float timeoutSecs, tobasSTATUS* status);
TOBAS_HIDDEN void tobasCmdAppend(tobasCommand* c, const char* format, ...) tobasPRINTF_LIKE(2, 3);
/* The encoded value (in c->enc, valid until the next call). */
TOBAS_HIDDEN const char* tobasCmdEncode(tobasCommand* c, const char* value, int skipScheme);
/* Sends the GET of c->path (or refuses a command that could not be built), fills status, frees
 * the command and writes its leaving trace. Returns the transport's code. */
TOBAS_HIDDEN int tobasCmdGet(tobasCommand* c, const char* host, int port, tobasSTATUS* status);
/* Ends a command that failed before its request: status filled, command freed, leaving trace. */
TOBAS_HIDDEN int tobasCmdRefuse(tobasCommand* c, int stat, tobasSTATUS* status);

#ifdef __cplusplus
}
#endif

#endif
