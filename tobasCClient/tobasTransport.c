/* HTTP/1.0 transport of the archive client: bounded connect, reply time-out, GET and POST,
 * reply header and body readers, redirection, authorization and server lists with fail-over. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

#define TOBAS_LINE_BUF 16384
#define TOBAS_CONNECT_BOUND 0.5f
#define TOBAS_CONNECT_TRIES 6
#define TOBAS_RECV_READS 11
#define TOBAS_POLL_EINTR_RETRIES 3

/* ------------------------------------------------------------------ reply time-out */

static _Atomic float _replyTimeout = 0.0f;

void _setReplyTimeoutFromFloat(float secs) { atomic_store(&_replyTimeout, secs <= 0.0f ? 1e8f : secs); }

float _getTimeOut(void) {
  float t = atomic_load(&_replyTimeout);
  return t == 0.0f ? 100000.0f : t;
}

int _pollFd(int fd, float timeoutSecs) {
  if (timeoutSecs <= 0.0f) timeoutSecs = _getTimeOut();
  tobasLogDebug("Requested timeout: %.6fs", timeoutSecs);
  unsigned long ms = (unsigned long)((double)timeoutSecs * 1000.0);
  tobasLogDebug("Polling for ready fd's. Timeout: %lums", ms);
  unsigned long remaining = ms;
  int interrupted = 0;
  for (;;) {
    /* poll() takes an int: wait in slices for very long time-outs. */
    int slice = remaining > (unsigned long)INT_MAX ? INT_MAX : (int)remaining;
    struct pollfd pfd = {fd, POLLIN, 0};
    int r = poll(&pfd, 1, slice);
    if (r > 0) return tobasSTAT_SUCCESS;
    if (r == 0) {
      if (remaining > (unsigned long)slice) {
        remaining -= (unsigned long)slice;
        continue;
      }
      return tobasERR_TIMEOUT;
    }
    if (errno != EINTR) return tobasERR_COM;
    if (++interrupted > TOBAS_POLL_EINTR_RETRIES) return tobasERR_COM;
    tobasLogDebug("Error calling poll() (interrupted system call). Iteration: %d", interrupted);
    sleep(0);
  }
}

/* ------------------------------------------------------------------ connecting */

/* The connect itself is bounded by a send time-out on the socket (Linux applies SO_SNDTIMEO to
 * connect), so that a server which does not accept within TOBAS_CONNECT_BOUND ends the attempt
 * without a connecting thread to start, cancel or clean up; on loopback the connect completes
 * within the call. A refused attempt is tried again, up to TOBAS_CONNECT_TRIES times, each
 * failure logged. The socket's send time-out is cleared again afterwards. */
int _tobasConnect(int sockFd, const struct sockaddr_in* servAddr) {
  TOBAS_ENTER("_tobasConnect");
  struct timeval bound = {0, (suseconds_t)(TOBAS_CONNECT_BOUND * 1e6f)};
  if (setsockopt(sockFd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0) {
    TOBAS_LEAVE("_tobasConnect", 1);
    return 1;
  }
  int ok = 0, failures = 0;
  for (;;) {
    if (connect(sockFd, (const struct sockaddr*)servAddr, sizeof *servAddr) == 0 || errno == EISCONN) {
      ok = 1;
      break;
    }
    /* Not accepted within the bound (or a connect still under way after a signal). */
    if (errno == EINPROGRESS || errno == EALREADY || errno == EINTR || errno == EAGAIN) break;
    ++failures;
    tobasLogDebug("_connectThread(): Error calling connect(). Parent Thread ID: %lu",
                  (unsigned long)pthread_self());
    if (failures >= TOBAS_CONNECT_TRIES) break;
    sched_yield();
  }
  struct timeval none = {0, 0};
  if (setsockopt(sockFd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none) != 0) ok = 0;
  TOBAS_LEAVE("_tobasConnect", ok ? 0 : 1);
  return ok ? 0 : 1;
}

int tobasPrepSock(const char* host, int port) {
  TOBAS_ENTER("tobasPrepSock");
  struct addrinfo hints, *res = NULL;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  if (host == NULL || getaddrinfo(host, NULL, &hints, &res) != 0 || res == NULL) {
    TOBAS_LEAVE("tobasPrepSock", tobasERR_HOST);
    return tobasERR_HOST;
  }
  struct sockaddr_in addr;
  memcpy(&addr, res->ai_addr, sizeof addr);
  freeaddrinfo(res);
  addr.sin_family = AF_INET;
  addr.sin_port = htons((unsigned short)port);

  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TOBAS_LEAVE("tobasPrepSock", tobasERR_SOCK);
    return tobasERR_SOCK;
  }
  if (fd < 3) { /* keep clear of 0, which marks "no socket" in the reply structures */
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    if (moved < 0) {
      TOBAS_LEAVE("tobasPrepSock", tobasERR_SOCK);
      return tobasERR_SOCK;
    }
    fd = moved;
  }
  if (port < 0 || port > 65535 || _tobasConnect(fd, &addr) != 0) {
    close(fd);
    TOBAS_LEAVE("tobasPrepSock", tobasERR_CON);
    return tobasERR_CON;
  }
  TOBAS_LEAVE("tobasPrepSock", 0);
  return fd;
}

/* ------------------------------------------------------------------ reading replies */

/* Reads one line, up to and including its '\n', and never a byte beyond it: the body that
 * follows a reply header stays in the socket for whoever reads it next. On a socket the bytes
 * are looked at with MSG_PEEK and then taken up to the line's end, two calls a line instead of
 * one a byte; any other descriptor is read a byte at a time. */
int tobasReadLine(int* fd, char* buf, int max) {
  if (max <= 0) return -1;
  int n = 0;
  int peek = 1;
  while (n < max - 1) {
    size_t want = peek ? (size_t)(max - 1 - n) : 1;
    ssize_t r = peek ? recv(*fd, buf + n, want, MSG_PEEK) : read(*fd, buf + n, 1);
    if (r < 0) {
      if (errno == EINTR) continue;
      if (peek && errno == ENOTSOCK) {
        peek = 0;
        continue;
      }
      buf[n] = '\0';
      return -1;
    }
    if (r == 0) {
      buf[n] = '\0';
      return n == 0 ? 0 : n + 1;
    }
    const char* nl = memchr(buf + n, '\n', (size_t)r);
    size_t take = nl != NULL ? (size_t)(nl - (buf + n)) + 1 : (size_t)r;
    if (peek) {
      /* Take what was looked at; the bytes are there, so the read returns them at once. */
      size_t got = 0;
      while (got < take) {
        ssize_t t = read(*fd, buf + n + got, take - got);
        if (t < 0 && errno == EINTR) continue;
        if (t <= 0) {
          buf[n + got] = '\0';
          return -1;
        }
        got += (size_t)t;
      }
    }
    n += (int)take;
    if (nl != NULL) {
      buf[n] = '\0';
      return n;
    }
  }
  buf[n] = '\0';
  return n + 1;
}

int tobasRecvData(char** data, long dataLen, int* sockFd) {
  TOBAS_ENTER("tobasRecvData");
  int fd = *sockFd;
  int stat = tobasSTAT_SUCCESS;
  *data = dataLen >= 0 ? malloc((size_t)dataLen + 1) : NULL;
  if (*data == NULL) {
    stat = tobasERR_ALLOC_MEM;
  } else {
    long got = 0;
    int reads = 0;
    while (got < dataLen) {
      if (reads >= TOBAS_RECV_READS) {
        stat = tobasERR_RD_DATA;
        break;
      }
      ++reads;
      /* A wait that times out counts as a read that brought nothing. */
      if (_pollFd(fd, _getTimeOut()) != 0) continue;
      ssize_t n = read(fd, *data + got, (size_t)(dataLen - got));
      if (n < 0) {
        if (errno == EINTR) continue;
        stat = tobasERR_RD_DATA;
        break;
      }
      got += n;
    }
    (*data)[got] = '\0';
    if (stat != tobasSTAT_SUCCESS) {
      free(*data);
      *data = NULL;
    }
  }
  if (fd > 0) close(fd);
  *sockFd = 0;
  TOBAS_LEAVE("tobasRecvData", stat);
  return stat;
}

/* When the socket already holds a whole reply header (through its blank line) within `max`
 * bytes, takes exactly those bytes into `buf` and returns their number: one look and one read
 * instead of two calls a line. Returns 0, taking nothing, otherwise (header not all there yet,
 * a line too long for one tobasReadLine call, or not a socket). */
static size_t _takeWholeHeader(int fd, char* buf, size_t max) {
  ssize_t got = recv(fd, buf, max, MSG_PEEK | MSG_DONTWAIT);
  if (got <= 0) return 0;
  size_t pos = 0, end = 0;
  while (pos < (size_t)got) {
    const char* nl = memchr(buf + pos, '\n', (size_t)got - pos);
    if (nl == NULL) return 0;
    size_t len = (size_t)(nl - (buf + pos)) + 1;
    if (len > TOBAS_LINE_BUF - 1) return 0;
    pos += len;
    if (len == 1 || (len >= 2 && buf[pos - len] == '\r' && buf[pos - len + 1] == '\n')) {
      end = pos;
      break;
    }
  }
  if (end == 0) return 0;
  size_t taken = 0;
  while (taken < end) {
    ssize_t r = read(fd, buf + taken, end - taken);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return 0; /* cannot happen: the bytes were there */
    taken += (size_t)r;
  }
  return end;
}

int tobasRecvHttpHdr(int* sockFd, tobasHTTP_HDR httpHdr, tobasHTTP_RESP* httpResp, tobasHTTP_DATA* repDataRef,
                     long* dataLen) {
  TOBAS_ENTER("tobasRecvHttpHdr");
  memset(httpResp, 0, sizeof *httpResp);
  /* Every row an empty string: readers stop at a row's NUL, so the rest of it need not be
   * cleared (the table is 128 KiB). */
  for (int r = 0; r < tobasHTTP_HDR_ROWS; ++r) httpHdr[r][0] = '\0';
  int stat = _pollFd(*sockFd, _getTimeOut());
  if (stat != 0) {
    TOBAS_LEAVE("tobasRecvHttpHdr", stat);
    return stat;
  }
  /* line: one line at a time; head: the whole header when it has already arrived. */
  char* line = malloc(2 * TOBAS_LINE_BUF);
  if (line == NULL) {
    TOBAS_LEAVE("tobasRecvHttpHdr", tobasERR_ALLOC_MEM);
    return tobasERR_ALLOC_MEM;
  }
  char* head = line + TOBAS_LINE_BUF;
  size_t headLen = _takeWholeHeader(*sockFd, head, TOBAS_LINE_BUF), headPos = 0;
  int row = 0, n;
  for (;;) {
    if (headLen > 0) {
      /* The same lines tobasReadLine would give, from the bytes already taken. */
      const char* nl = memchr(head + headPos, '\n', headLen - headPos);
      size_t len = (size_t)(nl - (head + headPos)) + 1;
      memcpy(line, head + headPos, len);
      line[len] = '\0';
      headPos += len;
      n = (int)len;
    } else {
      n = tobasReadLine(sockFd, line, TOBAS_LINE_BUF);
    }
    if (n <= 1 || strncmp(line, "\r\n", 2) == 0) break;
    for (char* p = line; *p && *p != ':'; ++p) *p = (char)tolower((unsigned char)*p);
    if (row >= tobasHTTP_HDR_ROWS) {
      tobasLogError("Reply header has more than %d lines", tobasHTTP_HDR_ROWS);
      free(line);
      TOBAS_LEAVE("tobasRecvHttpHdr", tobasERR_INV_REPLY);
      return tobasERR_INV_REPLY;
    }
    _tobasCopy(httpHdr[row++], tobasHTTP_HDR_ROW_LEN, line);
    char* len = strstr(line, "content-length:");
    if (len != NULL) {
      long value = strtol(len + 15, NULL, 10);
      if (value < 0) {
        tobasLogError("Invalid content length in reply: %ld", value);
        free(line);
        TOBAS_LEAVE("tobasRecvHttpHdr", tobasERR_INV_REPLY);
        return tobasERR_INV_REPLY;
      }
      *dataLen = value;
    }
  }
  free(line);
  if (n < 0) {
    TOBAS_LEAVE("tobasRecvHttpHdr", tobasERR_COM);
    return tobasERR_COM;
  }
  const char* status = httpHdr[0];
  const char* blank = memchr(status, ' ', strnlen(status, 127));
  if (blank == NULL) {
    TOBAS_LEAVE("tobasRecvHttpHdr", tobasERR_INV_REPLY);
    return tobasERR_INV_REPLY;
  }
  memcpy(httpResp->version, status, (size_t)(blank - status));
  httpResp->version[blank - status] = '\0';
  httpResp->status = atoi(blank + 1);
  const char* msg = strchr(blank + 1, ' ');
  if (msg != NULL) {
    _tobasCopy(httpResp->message, sizeof httpResp->message, msg + 1);
    tobasTrimString(httpResp->message, "\r\n");
  }
  if (httpResp->status == tobasSRV_INV_QUERY) {
    stat = tobasRecvData(&repDataRef->pdata, *dataLen, sockFd);
    stat = stat == 0 ? tobasSRV_INV_QUERY : stat;
  } else if (httpResp->status == tobasSRV_REDIRECT) {
    char* body = NULL;
    if (*dataLen > 0) tobasRecvData(&body, *dataLen, sockFd);
    free(body);
    stat = tobasSTAT_SUCCESS;
  }
  TOBAS_LEAVE("tobasRecvHttpHdr", stat);
  return stat;
}

int tobasGetHttpHdrEntry(tobasHTTP_HDR httpHdr, const char* fieldName, const char* subField, char* value) {
  TOBAS_ENTER("tobasGetHttpHdrEntry");
  const char* row = NULL;
  size_t rowLen = 0, nameLen = strlen(fieldName);
  for (int i = 0; i < 32 && row == NULL; ++i) {
    size_t len = strnlen(httpHdr[i], tobasHTTP_HDR_ROW_LEN);
    if (memmem(httpHdr[i], len, fieldName, nameLen) != NULL) {
      row = httpHdr[i];
      rowLen = len;
    }
  }
  const char* end = row != NULL ? row + rowLen : NULL;
  const char* p = NULL;
  if (row != NULL && subField != NULL && *subField) {
    char key[tobasMED_BUF_SIZE + 2];
    if (snprintf(key, sizeof key, "%s=", subField) < (int)sizeof key) {
      p = memmem(row, rowLen, key, strlen(key));
      if (p != NULL) p += strlen(key);
    }
  } else if (row != NULL) {
    p = memchr(row, ':', rowLen);
    if (p != NULL)
      for (++p; p < end && *p == ' ';) ++p;
  }
  if (p == NULL) {
    TOBAS_LEAVE("tobasGetHttpHdrEntry", tobasERR_INV_REPLY);
    return tobasERR_INV_REPLY;
  }
  memset(value, 0, tobasMED_BUF_SIZE);
  if (p < end && *p == '"') {
    ++p;
    if (p < end && *p == '"') {
      TOBAS_LEAVE("tobasGetHttpHdrEntry", 0);
      return tobasSTAT_SUCCESS;
    }
  }
  for (int n = 0; p < end && n < tobasMED_BUF_SIZE - 1 && *p != '"' && *p != '\r' && *p != '\n'; ++n)
    value[n] = *p++;
  TOBAS_LEAVE("tobasGetHttpHdrEntry", 0);
  return tobasSTAT_SUCCESS;
}

/* ------------------------------------------------------------------ authorization */

/* Every code ever set stays allocated (readers in other threads may still format it). */
typedef struct _tobasAuthNode {
  struct _tobasAuthNode* prev;
  char code[];
} _tobasAuthNode;

static _Atomic(_tobasAuthNode*) _authorization = NULL;

void tobasSetAuthorization(const char* accessCode) {
  TOBAS_ENTER("tobasSetAuthorization");
  size_t len = accessCode ? strlen(accessCode) : 0;
  _tobasAuthNode* node = malloc(sizeof *node + len + 1);
  if (node != NULL) {
    memcpy(node->code, accessCode ? accessCode : "", len + 1);
    node->prev = atomic_load(&_authorization);
    while (!atomic_compare_exchange_weak(&_authorization, &node->prev, node)) {
    }
  }
  TOBAS_LEAVE("tobasSetAuthorization", node ? 0 : tobasERR_ALLOC_MEM);
}

const char* tobasGetAuthorization(void) {
  _tobasAuthNode* node = atomic_load(&_authorization);
  return node != NULL && node->code[0] != '\0' ? node->code : NULL;
}

/* ------------------------------------------------------------------ GET */

/* One GET exchange. A 303 reply sets *redirected and the new host and port. */
static int _tobasHttpGetOnce(const char* host, int port, const char* userAgent, const char* path,
                             int receiveData, tobasHTTP_DATA* repDataRef, long* dataLen,
                             tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr, int* redirected, char* newHost,
                             int* newPort) {
  *redirected = 0;
  tobasLogInfo(LEV4, "Submitting request with URL: http://%s:%d/%s", host, port, path);
  *dataLen = 0;
  repDataRef->pdata = NULL;
  repDataRef->fd = 0;
  memset(httpResp, 0, sizeof *httpResp);
  int fd = tobasPrepSock(host, port);
  if (fd < 0) {
    tobasLogError("Error calling tobasPrepSock(). URL: %s:%d/%s", host, port, path);
    return fd;
  }
  const char* auth = tobasGetAuthorization();
  const char* authFmt = "\r\nAuthorization: Basic%%20%s";
  char authPart[64 + 1];
  char* authBuf = authPart;
  authPart[0] = '\0';
  if (auth != NULL) {
    size_t need = strlen(auth) + 64;
    if (need > sizeof authPart) authBuf = malloc(need);
    if (authBuf == NULL) {
      close(fd);
      return tobasERR_ALLOC_MEM;
    }
    snprintf(authBuf, need, authFmt, auth);
  }
  const char* hdrFmt = "GET %s HTTP/1.0\nUser-Agent: %s%s\r\n\n";
  int hdrLen = snprintf(NULL, 0, hdrFmt, path, userAgent, authBuf);
  char* header = malloc((size_t)hdrLen + 1);
  if (header == NULL) {
    if (authBuf != authPart) free(authBuf);
    close(fd);
    return tobasERR_ALLOC_MEM;
  }
  snprintf(header, (size_t)hdrLen + 1, hdrFmt, path, userAgent, authBuf);
  if (authBuf != authPart) free(authBuf);
  tobasLogInfo(LEV5, "Submitting HTTP header: %s to host/port: %s/%d", header, host, port);
  int wr = _tobasSendAll(fd, header, (size_t)hdrLen);
  free(header);
  if (wr != 0) {
    tobasLogError("Error writing on socket. URL: %s:%d/%s", host, port, path);
    close(fd);
    return tobasERR_WR_HD;
  }
  int stat = tobasRecvHttpHdr(&fd, httpHdr, httpResp, repDataRef, dataLen);
  if (stat != 0) {
    tobasLogError("Error calling tobasRecvHttpHdr(). URL: %s:%d/%s", host, port, path);
    if (fd > 0) close(fd);
    return stat;
  }
  if (httpResp->status == tobasSRV_REDIRECT) {
    tobasMED_BUF location;
    if (fd > 0) close(fd);
    if (tobasGetHttpHdrEntry(httpHdr, "location", "", location) != 0) {
      tobasLogError("Error calling tobasGetHttpHdrEntry(). URL: %s:%d/%s", host, port, path);
      return tobasERR_INV_REPLY;
    }
    const char* h = strstr(location, "//");
    const char* colon = h ? strchr(h + 2, ':') : NULL;
    if (colon == NULL || (size_t)(colon - (h + 2)) >= tobasMED_BUF_SIZE) {
      tobasLogError("Invalid redirection location: %s. URL: %s:%d/%s", location, host, port, path);
      return tobasERR_INV_REPLY;
    }
    memcpy(newHost, h + 2, (size_t)(colon - (h + 2)));
    newHost[colon - (h + 2)] = '\0';
    *newPort = atoi(colon + 1); /* the number ends at the '/' of the path */
    *redirected = 1;
    return tobasSTAT_SUCCESS;
  }
  if (receiveData && *dataLen > 0) {
    stat = tobasRecvData(&repDataRef->pdata, *dataLen, &fd);
    if (stat != 0) {
      tobasLogError("Error calling tobasRecvData(). URL: %s:%d/%s", host, port, path);
      free(repDataRef->pdata);
      repDataRef->pdata = NULL;
      return stat;
    }
  } else {
    repDataRef->fd = fd;
  }
  return tobasSTAT_SUCCESS;
}

int _tobasHttpGet(const char* host, int port, const char* userAgent, const char* path, int receiveData,
                  tobasHTTP_DATA* repDataRef, long* dataLen, tobasHTTP_RESP* httpResp,
                  tobasHTTP_HDR httpHdr) {
  TOBAS_ENTER("_tobasHttpGet");
  tobasMED_BUF curHost, newHost;
  if (_tobasCopy(curHost, sizeof curHost, host) != 0) {
    TOBAS_LEAVE("_tobasHttpGet", tobasERR_HOST);
    return tobasERR_HOST;
  }
  /* Redirections are followed in a loop, with the path of the first request. */
  for (;;) {
    int redirected = 0, newPort = 0;
    int stat = _tobasHttpGetOnce(curHost, port, userAgent, path, receiveData, repDataRef, dataLen, httpResp,
                                 httpHdr, &redirected, newHost, &newPort);
    if (!redirected) {
      TOBAS_LEAVE("_tobasHttpGet", stat);
      return stat;
    }
    tobasLogInfo(LEV3, "Redirected to %s:%d", newHost, newPort);
    strcpy(curHost, newHost);
    port = newPort;
  }
}

/* ------------------------------------------------------------------ POST */

int _tobasHttpPost(const char* host, int port, const char* userAgent, const char* path, const char* mimeType,
                   const char* contentDisp, const char* srcFilename, const char* data, long dataLen,
                   tobasHTTP_DATA* repDataRef, long* replyLen, tobasHTTP_RESP* httpResp,
                   tobasHTTP_HDR httpHdr) {
  TOBAS_ENTER("_tobasHttpPost");
  (void)userAgent; /* POST always identifies itself with the library's agent string */
  int fromFile = srcFilename != NULL && srcFilename[0] != '\0';
  long bodyLen = dataLen;
  *replyLen = 0;
  repDataRef->pdata = NULL;
  repDataRef->fd = 0;
  memset(httpResp, 0, sizeof *httpResp);
  if (fromFile) {
    struct stat st;
    if (stat(srcFilename, &st) != 0) {
      TOBAS_LEAVE("_tobasHttpPost", tobasERR_FILE);
      return tobasERR_FILE;
    }
    bodyLen = (long)st.st_size;
  }
  tobasLogInfo(LEV4, "Submitting request with URL: http://%s:%d/%s", host, port, path);
  int fd = tobasPrepSock(host, port);
  if (fd < 0) {
    tobasLogError("Error calling tobasPrepSock(). URL: %s:%d/%s", host, port, path);
    TOBAS_LEAVE("_tobasHttpPost", fd);
    return fd;
  }
  const char* auth = tobasGetAuthorization();
  const char* hdrFmt =
      "POST /%.256s HTTP/1.0\r\nUser-agent: %s\r\nContent-type: %s\r\nContent-length: %ld\r\n"
      "Content-disposition: %s%s%s\r\n\n";
  const char* authHead = auth ? "\r\nAuthorization: Basic " : "";
  if (mimeType == NULL) mimeType = "";
  if (contentDisp == NULL) contentDisp = "";
  int hdrLen = snprintf(NULL, 0, hdrFmt, path, tobasUSER_AGENT, mimeType, bodyLen, contentDisp, authHead,
                        auth ? auth : "");
  char* header = malloc((size_t)hdrLen + 1);
  if (header == NULL) {
    close(fd);
    TOBAS_LEAVE("_tobasHttpPost", tobasERR_ALLOC_MEM);
    return tobasERR_ALLOC_MEM;
  }
  snprintf(header, (size_t)hdrLen + 1, hdrFmt, path, tobasUSER_AGENT, mimeType, bodyLen, contentDisp,
           authHead, auth ? auth : "");
  tobasLogInfo(LEV5, "Submitting HTTP header: %s to host/port: %s/%d", header, host, port);
  int wr = _tobasSendAll(fd, header, (size_t)hdrLen);
  free(header);
  if (wr != 0) {
    tobasLogError("Error writing on socket. URL: %s:%d/%s", host, port, path);
    close(fd);
    TOBAS_LEAVE("_tobasHttpPost", tobasERR_WR_HD);
    return tobasERR_WR_HD;
  }
  int stat = tobasSTAT_SUCCESS;
  if (bodyLen > 0 && fromFile) {
    int file = open(srcFilename, O_RDONLY | O_CLOEXEC);
    char* chunk = file >= 0 ? malloc(TOBAS_SEND_CHUNK) : NULL;
    if (file < 0) {
      stat = tobasERR_FILE;
    } else if (chunk == NULL) {
      stat = tobasERR_ALLOC_MEM;
    } else {
      long left = bodyLen; /* never more than announced */
      while (left > 0) {
        ssize_t n = read(file, chunk, left < TOBAS_SEND_CHUNK ? (size_t)left : TOBAS_SEND_CHUNK);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
          stat = tobasERR_FILE;
          break;
        }
        if (n == 0) break;
        if (_tobasSendAll(fd, chunk, (size_t)n) != 0) {
          stat = tobasERR_WR_DATA;
          break;
        }
        left -= n;
      }
    }
    free(chunk);
    if (file >= 0) close(file);
  } else if (bodyLen > 0) {
    if (_tobasSendAll(fd, data, (size_t)bodyLen) != 0) stat = tobasERR_WR_DATA;
  }
  if (stat != 0) {
    tobasLogError("Error writing data on socket. URL: %s:%d/%s", host, port, path);
    close(fd);
    TOBAS_LEAVE("_tobasHttpPost", stat);
    return stat;
  }
  stat = tobasRecvHttpHdr(&fd, httpHdr, httpResp, repDataRef, replyLen);
  if (stat == 0 && fd > 0) {
    stat = tobasRecvData(&repDataRef->pdata, *replyLen, &fd);
    if (stat != 0) {
      free(repDataRef->pdata);
      repDataRef->pdata = NULL;
    }
  }
  if (stat != 0) tobasLogError("Error receiving reply. URL: %s:%d/%s", host, port, path);
  if (fd > 0) close(fd);
  TOBAS_LEAVE("_tobasHttpPost", stat);
  return stat;
}

/* ------------------------------------------------------------------ server lists */

static tobasSRV_INFO _srvInfoList[tobasMAX_SRV_LISTS];
static pthread_mutex_t _srvInfoMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t _srvInfoOnce = PTHREAD_ONCE_INIT;

static void _initSrvInfoOnce(void) {
  pthread_mutex_lock(&_srvInfoMutex);
  memset(_srvInfoList, 0, sizeof _srvInfoList);
  for (int i = 0; i < tobasMAX_SRV_LISTS; ++i) _srvInfoList[i].srvIdx = -1;
  pthread_mutex_unlock(&_srvInfoMutex);
}

void _tobasInitSrvInfo(void) { pthread_once(&_srvInfoOnce, _initSrvInfoOnce); }
void _tobasLockSrvInfoSem(void) { pthread_mutex_lock(&_srvInfoMutex); }
void _tobasUnlockSrvInfoSem(void) { pthread_mutex_unlock(&_srvInfoMutex); }

/* Lookup with the mutex held: the list named listId, else the first free entry. */
static void _findSrvInfoLocked(const char* listId, int* found, tobasSRV_INFO** srvInfoP) {
  *found = 0;
  *srvInfoP = NULL;
  for (int i = 0; i < tobasMAX_SRV_LISTS; ++i) {
    tobasSRV_INFO* e = &_srvInfoList[i];
    if (!e->used) {
      *found = listId[0] == '\0'; /* the default list counts as present */
      *srvInfoP = e;
      return;
    }
    if (strcmp(e->id, listId) == 0) {
      *found = 1;
      *srvInfoP = e;
      return;
    }
  }
}

void _tobasGetSrvInfoObj(const char* listId, int* foundList, tobasSRV_INFO** srvInfoP) {
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();
  _findSrvInfoLocked(listId ? listId : "", foundList, srvInfoP);
  _tobasUnlockSrvInfoSem();
}

int _tobasGetNextSrv(int* idx, tobasSRV_INFO* srvInfo, char* host, int* port) {
  _tobasLockSrvInfoSem();
  int n = srvInfo->numberOfSrvs;
  if (n <= 0) {
    _tobasUnlockSrvInfoSem();
    return tobasSTAT_FAILURE;
  }
  int i;
  if (*idx == -1) {
    srvInfo->srvIdx = (srvInfo->srvIdx + 1) % n;
    if (srvInfo->srvIdx < 0) srvInfo->srvIdx = 0;
    i = srvInfo->srvIdx;
  } else {
    i = (*idx + 1) % n;
  }
  *idx = i;
  strcpy(host, srvInfo->hosts[i]);
  *port = srvInfo->ports[i];
  _tobasUnlockSrvInfoSem();
  tobasLogInfo(LEV4, "Next server: %s:%d", host, *port);
  return tobasSTAT_SUCCESS;
}

int tobasSplitSrvAddr(const char* srvAddr, char* host, int* port) {
  const char* colon = strchr(srvAddr, ':');
  if (colon == NULL || (size_t)(colon - srvAddr) >= tobasMED_BUF_SIZE) return tobasSTAT_FAILURE;
  memcpy(host, srvAddr, (size_t)(colon - srvAddr));
  host[colon - srvAddr] = '\0';
  *port = atoi(colon + 1);
  return tobasSTAT_SUCCESS;
}

int tobasParseSrvListId(const char* listId, const char* servers) {
  TOBAS_ENTER("tobasParseSrvListId");
  if (listId == NULL) listId = "";
  if (servers == NULL) servers = "";
  tobasLogInfo(LEV3, "tobasParseSrvListId(): listId=%s, servers=%s", listId, servers);
  if (strlen(listId) >= tobasSMALL_BUF_SIZE || strlen(servers) >= tobasHUGE_BUF_SIZE) {
    tobasLogError("Server list ID or server list too long");
    TOBAS_LEAVE("tobasParseSrvListId", 1);
    return tobasSTAT_FAILURE;
  }
  char* work = strdup(servers);
  if (work == NULL) {
    TOBAS_LEAVE("tobasParseSrvListId", 1);
    return tobasSTAT_FAILURE;
  }
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();
  int found;
  tobasSRV_INFO* e;
  _findSrvInfoLocked(listId, &found, &e);
  if (e == NULL) {
    _tobasUnlockSrvInfoSem();
    free(work);
    tobasLogError("Illegal Server List ID or no more free slots");
    TOBAS_LEAVE("tobasParseSrvListId", 1);
    return tobasSTAT_FAILURE;
  }
  memset(e, 0, sizeof *e);
  strcpy(e->id, listId);
  e->used = 1;
  e->srvIdx = -1;
  e->scheme = tobasCTX_SWITCH_CYCLIC;
  int stat = tobasSTAT_SUCCESS;
  char* save = NULL;
  for (char* piece = strtok_r(work, ",", &save); piece != NULL; piece = strtok_r(NULL, ",", &save)) {
    tobasMED_BUF host;
    int port;
    if (tobasSplitSrvAddr(piece, host, &port) != 0) {
      tobasLogError("Illegal server address in list %s: %s", listId, piece);
      stat = tobasSTAT_FAILURE;
      break;
    }
    if (e->numberOfSrvs >= tobasMAX_SRVS) {
      tobasLogError("Too many servers in list %s (at most %d): %s refused", listId, tobasMAX_SRVS, piece);
      stat = tobasSTAT_FAILURE;
      break;
    }
    strcpy(e->hosts[e->numberOfSrvs], host);
    e->ports[e->numberOfSrvs] = port;
    e->numberOfSrvs++;
  }
  _tobasUnlockSrvInfoSem();
  free(work);
  TOBAS_LEAVE("tobasParseSrvListId", stat);
  return stat;
}

int tobasParseSrvList(const char* servers) { return tobasParseSrvListId("", servers); }

/* ------------------------------------------------------------------ fail-over */

static int _srvCount(tobasSRV_INFO* list) {
  _tobasLockSrvInfoSem();
  int n = list->numberOfSrvs;
  _tobasUnlockSrvInfoSem();
  return n;
}

int tobasHttpGet(const char* host, int port, const char* userAgent, const char* path, int receiveData,
                 tobasHTTP_DATA* repDataRef, long* dataLen, tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr) {
  TOBAS_ENTER("tobasHttpGet");
  int found;
  tobasSRV_INFO* list;
  if (host == NULL) host = "";
  _tobasGetSrvInfoObj(host, &found, &list);
  if (!found) {
    int stat =
        _tobasHttpGet(host, port, userAgent, path, receiveData, repDataRef, dataLen, httpResp, httpHdr);
    TOBAS_LEAVE("tobasHttpGet", stat);
    return stat;
  }
  int n = _srvCount(list), idx = -1;
  repDataRef->pdata = NULL;
  repDataRef->fd = 0;
  for (int i = 0; i < n; ++i) {
    tobasMED_BUF h;
    int p;
    if (_tobasGetNextSrv(&idx, list, h, &p) != 0) break;
    free(repDataRef->pdata); /* what an earlier attempt left */
    repDataRef->pdata = NULL;
    if (_tobasHttpGet(h, p, userAgent, path, receiveData, repDataRef, dataLen, httpResp, httpHdr) == 0) {
      TOBAS_LEAVE("tobasHttpGet", 0);
      return tobasSTAT_SUCCESS;
    }
  }
  tobasLogDebug("Leaving tobasHttpGet()/FAILURE");
  return tobasSTAT_FAILURE;
}

int tobasHttpPost(const char* host, int port, const char* userAgent, const char* path, const char* mimeType,
                  const char* contentDisp, const char* srcFilename, const char* data, long dataLen,
                  tobasHTTP_DATA* repDataRef, long* replyLen, tobasHTTP_RESP* httpResp,
                  tobasHTTP_HDR httpHdr) {
  TOBAS_ENTER("tobasHttpPost");
  int found;
  tobasSRV_INFO* list;
  if (host == NULL) host = "";
  _tobasGetSrvInfoObj(host, &found, &list);
  if (!found) {
    int stat = _tobasHttpPost(host, port, userAgent, path, mimeType, contentDisp, srcFilename, data, dataLen,
                              repDataRef, replyLen, httpResp, httpHdr);
    TOBAS_LEAVE("tobasHttpPost", stat);
    return stat;
  }
  int n = _srvCount(list), idx = -1;
  repDataRef->pdata = NULL;
  repDataRef->fd = 0;
  for (int i = 0; i < n; ++i) {
    tobasMED_BUF h;
    int p;
    if (_tobasGetNextSrv(&idx, list, h, &p) != 0) break;
    free(repDataRef->pdata);
    repDataRef->pdata = NULL;
    if (_tobasHttpPost(h, p, userAgent, path, mimeType, contentDisp, srcFilename, data, dataLen, repDataRef,
                       replyLen, httpResp, httpHdr) == 0) {
      TOBAS_LEAVE("tobasHttpPost", 0);
      return tobasSTAT_SUCCESS;
    }
  }
  tobasLogDebug("Leaving tobasHttpPost()/FAILURE");
  return tobasSTAT_FAILURE;
}
