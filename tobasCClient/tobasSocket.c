/* Sockets of the archive client: reply time-out, waiting for a descriptor, bounded connect,
 * sending bytes and files. Every wait is measured on the monotonic clock. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/param.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tobasInternal.h"

#define CONNECT_BOUND_SECS 0.5
#define CONNECT_TRIES 6
#define POLL_INTERRUPTS 3
#define NO_REPLY_TIMEOUT 1e8f    /* a time-out <= 0 given to a command: no limit in practice */
#define UNSET_REPLY_TIMEOUT 1e5f /* the reply time-out before any command set one */

/* ------------------------------------------------------------------ reply time-out */

static _Atomic float replyTimeout = 0.0f;

float tobasReplyTimeout(float secs) { return secs <= 0.0f ? NO_REPLY_TIMEOUT : secs; }

void _setReplyTimeoutFromFloat(float secs) {
  tobasTraceEnter("_setReplyTimeoutFromFloat");
  atomic_store(&replyTimeout, tobasReplyTimeout(secs));
  tobasTraceLeave("_setReplyTimeoutFromFloat", tobasSTAT_SUCCESS);
}

float _getTimeOut(void) {
  tobasTraceEnter("_getTimeOut");
  float t = atomic_load(&replyTimeout);
  tobasTraceLeave("_getTimeOut", tobasSTAT_SUCCESS);
  return t == 0.0f ? UNSET_REPLY_TIMEOUT : t;
}

/* ------------------------------------------------------------------ waiting */

/* Milliseconds for poll() from seconds left, rounded up so that a wait never ends early. */
static int pollMs(double left) {
  if (left <= 0) return 0;
  double ms = left * 1000.0 + 1.0;
  return ms > INT_MAX ? INT_MAX : (int)ms;
}

int tobasWaitFd(int fd, short events, double timeoutSecs, int maxInterrupts) {
  const double deadline = tobasNow() + timeoutSecs;
  int interrupted = 0;
  for (;;) {
    struct pollfd pfd = {fd, events, 0};
    int r = poll(&pfd, 1, pollMs(deadline - tobasNow()));
    if (r > 0) return tobasSTAT_SUCCESS;
    if (r == 0) {
      if (tobasNow() >= deadline) return tobasERR_TIMEOUT;
      continue; /* a slice of a very long wait */
    }
    if (errno != EINTR) return tobasERR_COM;
    ++interrupted;
    if (maxInterrupts != TOBAS_ANY_INTERRUPTS && interrupted > maxInterrupts) return tobasERR_COM;
    tobasLogDebug("Error calling poll() (interrupted system call). Iteration: %d", interrupted);
  }
}

int _pollFd(int fd, float timeoutSecs) {
  tobasTraceEnter("_pollFd");
  if (timeoutSecs <= 0.0f) timeoutSecs = _getTimeOut();
  tobasLogDebug("Requested timeout: %.6fs", timeoutSecs);
  tobasLogDebug("Polling for ready fd's. Timeout: %lums", (unsigned long)((double)timeoutSecs * 1000.0));
  int stat = tobasWaitFd(fd, POLLIN, timeoutSecs, POLL_INTERRUPTS);
  return tobasTraceLeave("_pollFd", stat);
}

/* ------------------------------------------------------------------ connecting */

/* Result of one connect attempt still under way at `deadline`: 0 connected, else errno. */
static int awaitConnect(int sockFd, double deadline) {
  struct pollfd pfd = {sockFd, POLLOUT, 0};
  for (;;) {
    int r = poll(&pfd, 1, pollMs(deadline - tobasNow()));
    if (r > 0) break;
    if (r == 0 && tobasNow() >= deadline) return ETIMEDOUT;
    if (r < 0 && errno != EINTR) return errno; /* a signal: wait on within the bound */
  }
  if ((pfd.revents & (POLLERR | POLLHUP)) == 0) return 0;
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(sockFd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
  return err != 0 ? err : ECONNREFUSED;
}

/* Connects the non-blocking socket: the attempt is waited for with a bound of CONNECT_BOUND_SECS,
 * whatever the reply time-out; a signal does not end the wait early. A refused attempt is tried
 * again, up to CONNECT_TRIES times. */
static int connectWithin(int sockFd, const struct sockaddr_in* servAddr) {
  tobasTraceEnter("_tobasConnect");
  const double deadline = tobasNow() + CONNECT_BOUND_SECS;
  int stat = tobasSTAT_FAILURE;
  for (int failures = 0; failures < CONNECT_TRIES;) {
    int err = connect(sockFd, (const struct sockaddr*)servAddr, sizeof *servAddr) == 0 ? 0 : errno;
    if (err == EINPROGRESS || err == EINTR || err == EALREADY) err = awaitConnect(sockFd, deadline);
    if (err == 0 || err == EISCONN) {
      stat = tobasSTAT_SUCCESS;
      break;
    }
    if (err == ETIMEDOUT) break;
    ++failures;
    tobasLogDebug("_connectThread(): Error calling connect(). Parent Thread ID: %lu",
                  (unsigned long)pthread_self());
  }
  return tobasTraceLeave("_tobasConnect", stat);
}

int _tobasConnect(int sockFd, const struct sockaddr_in* servAddr) {
  int flags = fcntl(sockFd, F_GETFL);
  if (flags < 0 || fcntl(sockFd, F_SETFL, flags | O_NONBLOCK) != 0) return tobasSTAT_FAILURE;
  int stat = connectWithin(sockFd, servAddr);
  fcntl(sockFd, F_SETFL, flags);
  return stat;
}

/* IPv4 address of host into addr; 0 or tobasERR_HOST. A numeric address needs no lookup. */
static int resolve(const char* host, int port, struct sockaddr_in* addr) {
  *addr = (struct sockaddr_in){.sin_family = AF_INET, .sin_port = htons((unsigned short)port)};
  if (host == NULL) return tobasERR_HOST;
  if (inet_pton(AF_INET, host, &addr->sin_addr) == 1) return tobasSTAT_SUCCESS;
  const struct addrinfo hints = {.ai_family = AF_INET, .ai_socktype = SOCK_STREAM};
  struct addrinfo* res = NULL;
  if (getaddrinfo(host, NULL, &hints, &res) != 0 || res == NULL) return tobasERR_HOST;
  addr->sin_addr = ((const struct sockaddr_in*)res->ai_addr)->sin_addr;
  freeaddrinfo(res);
  return tobasSTAT_SUCCESS;
}

int tobasOpenSocket(const char* host, int port) {
  tobasTraceEnter("tobasPrepSock");
  struct sockaddr_in addr;
  if (resolve(host, port, &addr) != 0) return tobasTraceLeave("tobasPrepSock", tobasERR_HOST);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd >= 0 && fd < 3) { /* keep clear of 0, which marks "no socket" in the reply structures */
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    fd = moved;
  }
  if (fd < 0) return tobasTraceLeave("tobasPrepSock", tobasERR_SOCK);
  if (port < 0 || port > 65535 || connectWithin(fd, &addr) != 0) {
    close(fd);
    return tobasTraceLeave("tobasPrepSock", tobasERR_CON);
  }
  tobasTraceLeave("tobasPrepSock", tobasSTAT_SUCCESS);
  return fd;
}

int tobasPrepSock(const char* host, int port) {
  int fd = tobasOpenSocket(host, port);
  int blocking = 0;
  if (fd >= 0) ioctl(fd, FIONBIO, &blocking);
  return fd;
}

/* ------------------------------------------------------------------ sending */

int tobasSendAll(int fd, const char* buf, size_t len, int more, float timeout) {
  while (len > 0) {
    ssize_t n = send(fd, buf, len, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      int stat = tobasWaitFd(fd, POLLOUT, timeout, TOBAS_ANY_INTERRUPTS);
      if (stat != 0) return stat == tobasERR_TIMEOUT ? stat : TOBAS_SEND_FAILED;
      continue;
    }
    if (n <= 0) return TOBAS_SEND_FAILED;
    buf += n;
    len -= (size_t)n;
  }
  return tobasSTAT_SUCCESS;
}

/* Read and sent in pieces that stay in the processor's cache between the read and the send
 * (sendfile, which hands the socket one page at a time, is slower here). */
int tobasSendFile(int sock, int file, long len, float timeout) {
  char* piece = malloc(TOBAS_SEND_PIECE);
  int stat = piece != NULL ? tobasSTAT_SUCCESS : tobasERR_ALLOC_MEM;
  while (len > 0 && stat == 0) {
    ssize_t n = read(file, piece, (size_t)MIN(len, TOBAS_SEND_PIECE));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) stat = tobasERR_FILE; /* unreadable, or shorter than its announced size */
    if (n > 0) stat = tobasSendAll(sock, piece, (size_t)n, 0, timeout);
    len -= n;
  }
  free(piece);
  return stat;
}
