/* HTTP/1.0 requests and replies of the archive client: reply header and body readers, header
 * fields, authorization, GET with redirection and POST. */
#define _GNU_SOURCE
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/param.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tobasInternal.h"

#define STATUS_BLANK_LIMIT 127 /* the status line's first blank lies within this many characters */
#define LOOKUP_ROWS 32         /* header rows searched for a field */
#define BODY_READS 11          /* reads a body of known length may take */
#define CONTENT_LENGTH "content-length"
#define SMALL_REQUEST 1024 /* request headers up to this size are built on the stack */
#define MAX_REDIRECTS 20   /* redirections followed for one request */
#define AUTH_MASK "****"   /* stands for the access code in the log */

/* ------------------------------------------------------------------ reading replies */

/* A reply being read. Bytes taken from the socket but not yet used lie in buf[pos..len); with
 * keepBody set, nothing after the header's blank line is taken, so the body stays in the socket. */
typedef struct {
  int* fd;
  int keepBody;
  int eof;
  float timeout; /* bounds each wait for more of the reply */
  size_t pos, len;
  char buf[2 * TOBAS_LINE_MAX];
} Reader;

static Reader* readerNew(int* fd, int keepBody, float timeout) {
  Reader* r = malloc(sizeof *r);
  if (r != NULL) {
    r->fd = fd;
    r->keepBody = keepBody;
    r->timeout = timeout;
    r->eof = 0;
    r->pos = r->len = 0;
  }
  return r;
}

/* Length of the line at p: through its '\n', or TOBAS_LINE_MAX-1 bytes of a longer one; 0 when
 * neither lies within avail bytes. */
static size_t lineLen(const char* p, size_t avail) {
  size_t limit = MIN(avail, (size_t)TOBAS_LINE_MAX - 1);
  const char* nl = memchr(p, '\n', limit);
  if (nl != NULL) return (size_t)(nl - p) + 1;
  return avail >= TOBAS_LINE_MAX - 1 ? TOBAS_LINE_MAX - 1 : 0;
}

static int isBlankLine(const char* p, size_t n) { return n == 1 || (n >= 2 && p[0] == '\r' && p[1] == '\n'); }

/* Bytes of p[0..total) up to and including the header's blank line, 0 if it is not there. */
static size_t headerBytes(const char* p, size_t total) {
  for (size_t s = 0, n; (n = lineLen(p + s, total - s)) > 0; s += n)
    if (isBlankLine(p + s, n)) return s + n;
  return 0;
}

static ssize_t readExactly(int fd, char* buf, size_t len) {
  size_t got = 0;
  while (got < len) {
    ssize_t n = read(fd, buf + got, len - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -1;
    got += (size_t)n;
  }
  return (ssize_t)got;
}

/* Takes more of the reply after a wait bounded by the reply time-out. 0 (eof set at the end of the
 * input), tobasERR_TIMEOUT or tobasERR_COM. */
static int readerFill(Reader* r) {
  memmove(r->buf, r->buf + r->pos, r->len - r->pos);
  r->len -= r->pos;
  r->pos = 0;
  int stat = _pollFd(*r->fd, r->timeout);
  if (stat != 0) return stat;
  char* at = r->buf + r->len;
  ssize_t n = recv(*r->fd, at, sizeof r->buf - r->len, MSG_DONTWAIT | (r->keepBody ? MSG_PEEK : 0));
  if (n < 0 && errno == ENOTSOCK) {
    n = read(*r->fd, at, 1); /* not a socket: a byte at a time, never past the header */
  } else if (n > 0 && r->keepBody) {
    size_t end = headerBytes(r->buf, r->len + (size_t)n);
    n = readExactly(*r->fd, at, end > r->len ? end - r->len : (size_t)n);
  }
  if (n < 0) return errno == EAGAIN || errno == EINTR ? tobasSTAT_SUCCESS : tobasERR_COM;
  r->eof = n == 0;
  r->len += (size_t)n;
  return tobasSTAT_SUCCESS;
}

/* Where the value of field `name` starts in row (past its ':'), when the row is that field: the
 * name at the start of the row, in any case, followed by ':'. NULL otherwise. */
static const char* fieldAt(const char* row, size_t rowLen, const char* name) {
  size_t n = strlen(name);
  return n < rowLen && strncasecmp(row, name, n) == 0 && row[n] == ':' ? row + n + 1 : NULL;
}

/* Keeps one header line in the next row: the field name lower-cased, the content length noted. */
static int storeHeaderLine(tobasHdrParse* ps, const char* line, size_t n) {
  if (memchr(line, '\0', n) != NULL) {
    tobasLogError("Reply header line holds a NUL byte");
    return tobasERR_INV_REPLY;
  }
  if (ps->rows >= tobasHTTP_HDR_ROWS) {
    tobasLogError("Reply header has more than %d lines", tobasHTTP_HDR_ROWS);
    return tobasERR_INV_REPLY;
  }
  char* row = ps->hdr[ps->rows++];
  size_t kept = MIN(n, (size_t)tobasHTTP_HDR_ROW_LEN - 1);
  memcpy(row, line, kept);
  row[kept] = '\0';
  for (char* p = row; *p && *p != ':'; ++p) *p = (char)tolower((unsigned char)*p);
  const char* len = fieldAt(line, n, CONTENT_LENGTH);
  if (len == NULL) return tobasSTAT_SUCCESS;
  char number[32];
  size_t digits = (size_t)(line + n - len) < sizeof number ? (size_t)(line + n - len) : sizeof number - 1;
  memcpy(number, len, digits);
  number[digits] = '\0';
  long value = strtol(number, NULL, 10);
  if (value < 0) {
    tobasLogError("Invalid content length in reply: %ld", value);
    return tobasERR_INV_REPLY;
  }
  *ps->dataLen = value;
  return tobasSTAT_SUCCESS;
}

static int parseStatusLine(const char* line, tobasHTTP_RESP* resp) {
  const char* blank = memchr(line, ' ', strnlen(line, STATUS_BLANK_LIMIT));
  /* "HTTP/<version> <three digits>[ <message>]": any other first line is not an HTTP reply. */
  if (blank == NULL || strncasecmp(line, "HTTP/", 5) != 0 || !isdigit((unsigned char)blank[1]) ||
      !isdigit((unsigned char)blank[2]) || !isdigit((unsigned char)blank[3]) ||
      (blank[4] != '\0' && !isspace((unsigned char)blank[4]))) {
    tobasLogError("Invalid status line in reply");
    return tobasERR_INV_REPLY;
  }
  memcpy(resp->version, line, (size_t)(blank - line));
  resp->version[blank - line] = '\0';
  resp->status = atoi(blank + 1);
  const char* msg = strchr(blank + 1, ' ');
  if (msg != NULL) {
    tobasCopyStr(resp->message, sizeof resp->message, msg + 1);
    tobasTrimString(resp->message, "\r\n");
  }
  return tobasSTAT_SUCCESS;
}

/* The header is parsed from memory, apart from reading the socket: the reader hands over what
 * has arrived and the parser takes the complete lines. */
int _tobasParseHdr(tobasHdrParse* ps, const char* p, size_t len, int end, size_t* used) {
  *used = 0;
  while (!ps->done) {
    size_t n = lineLen(p + *used, len - *used);
    if (n == 0 && !end) return tobasSTAT_SUCCESS;
    if (n == 0) {
      tobasLogError("Reply ended within its header");
      return tobasERR_INV_REPLY;
    }
    const char* line = p + *used;
    *used += n;
    ps->done = isBlankLine(line, n);
    int stat = ps->done ? parseStatusLine(ps->hdr[0], ps->resp) : storeHeaderLine(ps, line, n);
    if (stat != 0) return stat;
  }
  return tobasSTAT_SUCCESS;
}

/* Reads the header up to the blank line that ends it. */
static int readHeader(Reader* r, tobasHTTP_HDR hdr, tobasHTTP_RESP* resp, long* dataLen) {
  tobasHdrParse ps = {hdr, resp, dataLen, 0, 0};
  for (;;) {
    size_t used = 0;
    int stat = _tobasParseHdr(&ps, r->buf + r->pos, r->len - r->pos, r->eof, &used);
    r->pos += used;
    if (stat != 0 || ps.done) return stat;
    stat = readerFill(r);
    if (stat != 0) return stat;
  }
}

/* Reads the rest of a body of dataLen bytes, of which `got` are in data already. */
static int recvRest(int fd, char* data, long got, long dataLen, float timeout) {
  for (int reads = 0; got < dataLen; ++reads) {
    if (reads >= BODY_READS) return tobasERR_RD_DATA;
    int stat = _pollFd(fd, timeout);
    if (stat != 0) return stat;
    ssize_t n = read(fd, data + got, (size_t)(dataLen - got));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) return tobasERR_RD_DATA; /* closed before the announced length */
    got += n;
  }
  return tobasSTAT_SUCCESS;
}

/* A body of dataLen bytes into a new heap block, starting with the `taken` bytes already read;
 * the socket is closed and *sockFd set to 0 whatever the outcome. */
static int recvBody(int* sockFd, const char* taken, size_t takenLen, long dataLen, char** data,
                    float timeout) {
  tobasTraceEnter("tobasRecvData");
  int stat = tobasERR_ALLOC_MEM;
  *data = dataLen >= 0 ? malloc((size_t)dataLen + 1) : NULL;
  if (*data != NULL) {
    long got = (long)takenLen < dataLen ? (long)takenLen : dataLen;
    if (got > 0) memcpy(*data, taken, (size_t)got);
    stat = recvRest(*sockFd, *data, got, dataLen, timeout);
    (*data)[stat == 0 ? dataLen : 0] = '\0';
  }
  if (stat != 0) {
    free(*data);
    *data = NULL;
  }
  if (*sockFd > 0) close(*sockFd);
  *sockFd = 0;
  return tobasTraceLeave("tobasRecvData", stat);
}

static int readerBody(Reader* r, long dataLen, char** data) {
  const char* taken = r->buf + r->pos;
  size_t takenLen = r->len - r->pos;
  r->pos = r->len;
  return recvBody(r->fd, taken, takenLen, dataLen, data, r->timeout);
}

/* The reply's status line and header; the body of a 400 reply (the server's status document)
 * is kept in rep->pdata, that of a 303 reply is dropped. */
static int recvReply(Reader* r, tobasHTTP_HDR hdr, tobasHTTP_RESP* resp, tobasHTTP_DATA* rep, long* dataLen) {
  tobasTraceEnter("tobasRecvHttpHdr");
  resp->version[0] = resp->message[0] = '\0';
  resp->status = 0;
  for (int row = 0; row != tobasHTTP_HDR_ROWS; ++row) hdr[row][0] = '\0';
  int stat = readHeader(r, hdr, resp, dataLen);
  if (stat == 0 && resp->status == tobasSRV_INV_QUERY) {
    stat = readerBody(r, *dataLen, &rep->pdata);
    if (stat == 0) stat = tobasSRV_INV_QUERY;
  } else if (stat == 0 && resp->status == tobasSRV_REDIRECT && *dataLen > 0) {
    char* body = NULL;
    readerBody(r, *dataLen, &body);
    free(body);
  }
  return tobasTraceLeave("tobasRecvHttpHdr", stat);
}

int tobasRecvHttpHdr(int* sockFd, tobasHTTP_HDR httpHdr, tobasHTTP_RESP* httpResp, tobasHTTP_DATA* repDataRef,
                     long* dataLen) {
  Reader* r = readerNew(sockFd, 1, _getTimeOut());
  int stat = r != NULL ? recvReply(r, httpHdr, httpResp, repDataRef, dataLen) : tobasERR_ALLOC_MEM;
  free(r);
  return stat;
}

int tobasRecvData(char** data, long dataLen, int* sockFd) {
  return recvBody(sockFd, NULL, 0, dataLen, data, _getTimeOut());
}

/* Reads one line, up to and including its '\n', and never a byte beyond it. On a socket the
 * bytes are looked at with MSG_PEEK and then taken up to the line's end; any other descriptor is
 * read a byte at a time. */
int tobasReadLine(int* fd, char* buf, int max) {
  tobasTraceEnter("tobasReadLine");
  int n = 0, peek = 1;
  while (n + 1 < max && max > 0) {
    ssize_t r = peek ? recv(*fd, buf + n, (size_t)(max - 1 - n), MSG_PEEK) : read(*fd, buf + n, 1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 && peek && errno == ENOTSOCK) {
      peek = 0;
      continue;
    }
    if (r <= 0) {
      buf[n] = '\0';
      tobasTraceLeave("tobasReadLine", r < 0 ? tobasERR_COM : 0);
      return r < 0 ? -1 : (n == 0 ? 0 : n + 1);
    }
    const char* nl = memchr(buf + n, '\n', (size_t)r);
    size_t take = nl != NULL ? (size_t)(nl - (buf + n)) + 1 : (size_t)r;
    if (peek && readExactly(*fd, buf + n, take) < 0) {
      buf[n] = '\0';
      tobasTraceLeave("tobasReadLine", tobasERR_COM);
      return -1;
    }
    n += (int)take;
    if (nl != NULL) {
      buf[n] = '\0';
      tobasTraceLeave("tobasReadLine", 0);
      return n;
    }
  }
  if (max > 0) buf[n] = '\0';
  tobasTraceLeave("tobasReadLine", 0);
  return max > 0 ? n + 1 : -1;
}

/* ------------------------------------------------------------------ header fields */

/* Where subField's value starts in the field value v[0..end): the name followed by '=', at the
 * start of the value or after a ';' or blank, so that "xfilename=" is not taken for "filename=". */
static const char* subFieldAt(const char* v, const char* end, const char* subField) {
  size_t n = strlen(subField);
  for (const char* p = v; (p = memmem(p, (size_t)(end - p), subField, n)) != NULL; ++p)
    if (p + n < end && p[n] == '=' && (p == v || p[-1] == ';' || p[-1] == ' ')) return p + n + 1;
  return NULL;
}

/* Where the value of fieldName (and subField) starts in the first rows of the header, or NULL. */
static const char* fieldValue(tobasHTTP_HDR httpHdr, const char* fieldName, const char* subField,
                              const char** end) {
  for (int i = 0; i < LOOKUP_ROWS; ++i) {
    const char* row = httpHdr[i];
    size_t rowLen = strnlen(row, tobasHTTP_HDR_ROW_LEN);
    const char* p = fieldAt(row, rowLen, fieldName);
    if (p == NULL) continue;
    *end = row + rowLen;
    if (subField != NULL && *subField) return subFieldAt(p, *end, subField);
    while (p < *end && *p == ' ') ++p;
    return p;
  }
  return NULL;
}

/* A field is matched by its name at the start of a row, in any case, and a sub-field by its name
 * at the start of a parameter: a name that only appears inside another field's value (as in
 * "X-A: y content-length: 3") does not count, unlike a plain search of the row's text. */
int tobasGetHttpHdrEntry(tobasHTTP_HDR httpHdr, const char* fieldName, const char* subField, char* value) {
  tobasTraceEnter("tobasGetHttpHdrEntry");
  const char* end = NULL;
  const char* p = fieldValue(httpHdr, fieldName, subField, &end);
  if (p == NULL) return tobasTraceLeave("tobasGetHttpHdrEntry", tobasERR_INV_REPLY);
  memset(value, 0, tobasMED_BUF_SIZE);
  if (p < end && *p == '"') ++p;
  size_t n = 0;
  while (p < end && *p != '"' && *p != '\0' && *p != '\r' && *p != '\n' && n < tobasMED_BUF_SIZE - 1)
    value[n++] = *p++;
  return tobasTraceLeave("tobasGetHttpHdrEntry", tobasSTAT_SUCCESS);
}

/* ------------------------------------------------------------------ authorization */

/* Codes once set stay allocated: a request may still be sending the previous one. */
typedef struct AuthNode {
  struct AuthNode* prev;
  char code[];
} AuthNode;

static _Atomic(AuthNode*) authorization = NULL;

void tobasSetAuthorization(const char* accessCode) {
  tobasTraceEnter("tobasSetAuthorization");
  size_t len = accessCode ? strlen(accessCode) : 0;
  AuthNode* node = malloc(sizeof *node + len + 1);
  if (node != NULL) {
    memcpy(node->code, accessCode ? accessCode : "", len + 1);
    node->prev = atomic_load(&authorization);
    while (!atomic_compare_exchange_weak(&authorization, &node->prev, node)) {
    }
  }
  tobasTraceLeave("tobasSetAuthorization", node ? tobasSTAT_SUCCESS : tobasERR_ALLOC_MEM);
}

const char* tobasGetAuthorization(void) {
  tobasTraceEnter("tobasGetAuthorization");
  AuthNode* node = atomic_load(&authorization);
  tobasTraceLeave("tobasGetAuthorization", tobasSTAT_SUCCESS);
  return node != NULL && node->code[0] != '\0' ? node->code : NULL;
}

/* ------------------------------------------------------------------ requests */

/* One request: where it goes and where its reply is put. */
typedef struct {
  const char* host;
  int port;
  const char* path;
  tobasHTTP_DATA* rep;
  long* dataLen;
  tobasHTTP_RESP* resp;
  char (*hdr)[tobasHTTP_HDR_ROW_LEN];
  const char* auth; /* access code sent to this server, or NULL */
  float timeout;
  long rangeFrom; /* > 0: the body is asked for from this offset on */
} Exchange;

/* Every failure of a request is logged once, with its URL. */
static int urlError(const Exchange* x, const char* what, int stat) {
  tobasLogError("%s. URL: %s:%d/%s", what, x->host, x->port, x->path);
  return stat;
}

static void resetReply(const Exchange* x) {
  tobasLogInfo(LEV4, "Submitting request with URL: http://%s:%d/%s", x->host, x->port, x->path);
  *x->dataLen = 0;
  x->rep->pdata = NULL;
  x->rep->fd = 0;
  x->resp->version[0] = x->resp->message[0] = '\0';
  x->resp->status = 0;
}

/* Formats a request header into small (SMALL_REQUEST bytes) or, when longer, a heap block. */
static char* formatRequest(char* small, int* len, const char* format, ...) tobasPRINTF_LIKE(3, 4);
static char* formatRequest(char* small, int* len, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  *len = vsnprintf(small, SMALL_REQUEST, format, ap);
  va_end(ap);
  if (*len < 0 || *len < SMALL_REQUEST) return *len < 0 ? NULL : small;
  char* big;
  va_start(ap, format);
  if (vasprintf(&big, format, ap) < 0) big = NULL;
  va_end(ap);
  return big;
}

/* Sends a request header. The access code, which ends the header before its closing CR LF LF,
 * is masked in the log; the bytes sent keep it. */
static int sendHeader(const Exchange* x, int fd, char* small, char* header, int len, int more) {
  int stat = tobasERR_ALLOC_MEM;
  if (header != NULL) {
    const int shown = x->auth != NULL ? len - (int)strlen(x->auth) - 3 : len;
    tobasLogInfo(LEV5, "Submitting HTTP header: %.*s%s to host/port: %s/%d", shown, header,
                 x->auth != NULL ? AUTH_MASK "\r\n\n" : "", x->host, x->port);
    stat = tobasSendAll(fd, header, (size_t)len, more, x->timeout);
    if (stat == TOBAS_SEND_FAILED) stat = tobasERR_WR_HD;
  }
  if (header != small) free(header);
  return stat != 0 ? urlError(x, "Error writing on socket", stat) : tobasSTAT_SUCCESS;
}

/* Host and port of a 303 reply's location ("http://host:port/..."); the path is not used. */
int _tobasParseLocation(const char* location, char* host, int* port) {
  const char* h = strstr(location, "//");
  if (h == NULL) return tobasERR_INV_REPLY;
  h += 2;
  const size_t hostLen = strcspn(h, ":/");
  const char* digits = h + hostLen + 1;
  if (hostLen == 0 || hostLen >= tobasMED_BUF_SIZE || h[hostLen] != ':' || !isdigit((unsigned char)*digits))
    return tobasERR_INV_REPLY;
  char* end;
  const long p = strtol(digits, &end, 10);
  if ((*end != '\0' && *end != '/') || p < 1 || p > 65535) return tobasERR_INV_REPLY;
  memcpy(host, h, hostLen);
  host[hostLen] = '\0';
  *port = (int)p;
  return tobasSTAT_SUCCESS;
}

static int redirection(const Exchange* x, char* nextHost, int* nextPort) {
  tobasMED_BUF location;
  if (tobasGetHttpHdrEntry(x->hdr, "location", "", location) != 0)
    return urlError(x, "Error calling tobasGetHttpHdrEntry()", tobasERR_INV_REPLY);
  if (_tobasParseLocation(location, nextHost, nextPort) != 0)
    return urlError(x, "Invalid redirection location", tobasERR_INV_REPLY);
  return tobasSTAT_SUCCESS;
}

/* After a reply header other than a redirection: the body is read, or the open connection is
 * left for the caller to read (blocking again, as callers expect of a socket). */
static int takeBody(const Exchange* x, Reader* r, int receiveData, int* fd) {
  if (receiveData && *x->dataLen > 0) {
    int stat = readerBody(r, *x->dataLen, &x->rep->pdata);
    return stat != 0 ? urlError(x, "Error calling tobasRecvData()", stat) : tobasSTAT_SUCCESS;
  }
  int blocking = 0;
  ioctl(*fd, FIONBIO, &blocking);
  x->rep->fd = *fd;
  *fd = 0;
  return tobasSTAT_SUCCESS;
}

/* One GET exchange (one hop of a redirection chain). A 303 reply fills nextHost and nextPort. */
static int getHop(const Exchange* x, const char* userAgent, int receiveData, char* nextHost, int* nextPort) {
  tobasTraceEnter("_tobasHttpGet");
  resetReply(x);
  int fd = tobasOpenSocket(x->host, x->port);
  if (fd < 0) return tobasTraceLeave("_tobasHttpGet", urlError(x, "Error calling tobasPrepSock()", fd));
  const char* auth = x->auth;
  char small[SMALL_REQUEST], range[48] = "";
  int len = 0;
  if (x->rangeFrom > 0) snprintf(range, sizeof range, "\r\nRange: bytes=%ld-", x->rangeFrom);
  /* The request line ends with a bare LF, the header with CR LF LF, and "%20" stands where POST
   * has a blank: the servers expect these bytes. The access code stays last, where the log masks it. */
  char* header = formatRequest(small, &len, "GET %s HTTP/1.0\nUser-Agent: %s%s%s%s\r\n\n", x->path, userAgent,
                               range, auth ? "\r\nAuthorization: Basic%20" : "", auth ? auth : "");
  int stat = sendHeader(x, fd, small, header, len, 0);
  Reader* r = NULL;
  if (stat == 0) {
    r = readerNew(&fd, !receiveData, x->timeout);
    stat = r != NULL ? recvReply(r, x->hdr, x->resp, x->rep, x->dataLen) : tobasERR_ALLOC_MEM;
    if (stat != 0) urlError(x, "Error calling tobasRecvHttpHdr()", stat);
  }
  if (stat == 0 && x->resp->status == tobasSRV_REDIRECT)
    stat = redirection(x, nextHost, nextPort);
  else if (stat == 0)
    stat = takeBody(x, r, receiveData, &fd);
  free(r);
  if (fd > 0) close(fd);
  return tobasTraceLeave("_tobasHttpGet", stat);
}

/* Follows at most MAX_REDIRECTS redirections, each with the path of the first request. The access
 * code goes to the first server and, after a redirection, only to a server of a registered list,
 * as a browser keeps credentials to the host they were given for. */
int tobasGetAt(const char* host, int port, const tobasRequest* rq) {
  tobasMED_BUF curHost, nextHost;
  const char* auth = tobasGetAuthorization();
  if (host == NULL) host = "";
  Exchange x = {curHost,  port,    rq->path, rq->rep,     rq->replyLen,
                rq->resp, rq->hdr, auth,     rq->timeout, rq->rangeFrom};
  if (tobasCopyStr(curHost, sizeof curHost, host) != 0) {
    tobasTraceEnter("_tobasHttpGet");
    return tobasTraceLeave("_tobasHttpGet", urlError(&x, "Host name too long", tobasERR_HOST));
  }
  for (int hops = 0;; ++hops) {
    nextHost[0] = '\0';
    int nextPort = 0;
    int stat = getHop(&x, rq->userAgent, rq->receiveData, nextHost, &nextPort);
    if (stat != 0 || nextHost[0] == '\0') return stat;
    if (hops == MAX_REDIRECTS) return urlError(&x, "Too many redirections", tobasERR_INV_REPLY);
    tobasLogInfo(LEV3, "Redirected to %s:%d", nextHost, nextPort);
    strcpy(curHost, nextHost);
    x.port = nextPort;
    const int first = strcasecmp(curHost, host) == 0 && nextPort == port;
    x.auth = auth != NULL && (first || tobasSrvListed(curHost, nextPort)) ? auth : NULL;
  }
}

/* The file to send, open, and its size; 0 or tobasERR_FILE. Only a regular file has the size it will
   send: a folder cannot be read, a pipe or device has none. */
static int openSource(const char* srcFilename, int* file, long* size) {
  struct stat st;
  *file = open(srcFilename, O_RDONLY | O_CLOEXEC);
  if (*file >= 0 && fstat(*file, &st) == 0 && S_ISREG(st.st_mode)) {
    *size = (long)st.st_size;
    return tobasSTAT_SUCCESS;
  }
  if (*file != -1) close(*file);
  *file = -1;
  return tobasERR_FILE;
}

static int sendPost(const Exchange* x, int fd, const char* mimeType, const char* contentDisp, int file,
                    const char* data, long bodyLen) {
  const char* auth = x->auth;
  char small[SMALL_REQUEST];
  int len = 0;
  char* header = formatRequest(
      small, &len,
      "POST /%.256s HTTP/1.0\r\nUser-agent: %s\r\nContent-type: %s\r\nContent-length: %ld\r\n"
      "Content-disposition: %s%s%s\r\n\n",
      x->path, tobasUSER_AGENT, mimeType ? mimeType : "", bodyLen, contentDisp ? contentDisp : "",
      auth ? "\r\nAuthorization: Basic " : "", auth ? auth : "");
  int stat = sendHeader(x, fd, small, header, len, bodyLen > 0);
  if (stat != 0 || bodyLen <= 0) return stat;
  stat = file >= 0 ? tobasSendFile(fd, file, bodyLen, x->timeout)
                   : tobasSendAll(fd, data, (size_t)bodyLen, 0, x->timeout);
  if (stat == TOBAS_SEND_FAILED) stat = tobasERR_WR_DATA;
  return stat != 0 ? urlError(x, "Error writing data on socket", stat) : tobasSTAT_SUCCESS;
}

/* The reply to a POST: header, then always the announced body. */
static int recvPostReply(const Exchange* x, int* fd) {
  Reader* r = readerNew(fd, 0, x->timeout);
  if (r == NULL) return tobasERR_ALLOC_MEM;
  int stat = recvReply(r, x->hdr, x->resp, x->rep, x->dataLen);
  if (stat != 0) urlError(x, "Error calling tobasRecvHttpHdr()", stat);
  if (stat == 0 && *fd > 0) {
    stat = readerBody(r, *x->dataLen, &x->rep->pdata);
    if (stat != 0) urlError(x, "Error calling tobasRecvData()", stat);
  }
  free(r);
  return stat;
}

int tobasPostAt(const char* host, int port, const tobasRequest* rq) {
  tobasTraceEnter("_tobasHttpPost");
  /* POST always identifies itself with the library's agent string, not rq->userAgent. */
  Exchange x = {host ? host : "",        port,        rq->path, rq->rep, rq->replyLen, rq->resp, rq->hdr,
                tobasGetAuthorization(), rq->timeout, 0};
  resetReply(&x);
  long dataLen = rq->dataLen;
  int file = -1, fd = 0, stat = tobasSTAT_SUCCESS;
  if (rq->srcFilename != NULL && rq->srcFilename[0] != '\0' &&
      openSource(rq->srcFilename, &file, &dataLen) != 0)
    stat = urlError(&x, "Error opening the file to send", tobasERR_FILE);
  if (stat == 0) fd = tobasOpenSocket(x.host, port);
  if (fd < 0) {
    stat = urlError(&x, "Error calling tobasPrepSock()", fd);
    fd = 0;
  }
  if (stat == 0) stat = sendPost(&x, fd, rq->mimeType, rq->contentDisp, file, rq->data, dataLen);
  if (stat == 0) stat = recvPostReply(&x, &fd);
  if (file >= 0) close(file);
  if (fd > 0) close(fd);
  return tobasTraceLeave("_tobasHttpPost", stat);
}
