/* Retrieval of a file from an archive server into the local file system. The body is written
 * under a temporary name beside the target and renamed into place once it is complete, so that a
 * failed retrieval leaves nothing under the final name. A retrieval that breaks off goes on where
 * it stopped ("Range: bytes=N-") when the retry policy grants another attempt, and across calls
 * from "<final name>.part" when resuming is asked for; a checksum, when one is expected, is computed
 * as the bytes arrive. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/param.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tobasInternal.h"

#define TOB_LOG_ID "--TOB--LOG--"
#define CFG_ID "--CFG--"
#define TEMP_TRIES 100 /* names tried for the temporary file */

static int given(const char* s) { return s != NULL && s[0] != '\0'; }

static void retrievePath(tobasCommand* c, const char* cmdName, const char* fileId, int fileVersion,
                         const char* processing, const char* processingPars, int internal,
                         const char* hostId) {
  if (fileId == NULL) fileId = "";
  if (strcmp(fileId, TOB_LOG_ID) == 0)
    tobasCmdAppend(c, "%s?tob_log", cmdName);
  else if (strcmp(fileId, CFG_ID) == 0)
    tobasCmdAppend(c, "%s?cfg", cmdName);
  else
    tobasCmdAppend(c, internal ? "%s?internal=\"%s\"" : "%s?file_id=\"%s\"", cmdName,
                   tobasCmdEncode(c, fileId, 0));
  if (given(processing)) {
    tobasCmdAppend(c, "&processing=\"%s\"", tobasCmdEncode(c, processing, 0));
    if (given(processingPars))
      tobasCmdAppend(c, "&processing_pars=\"%s\"", tobasCmdEncode(c, processingPars, 0));
  }
  if (fileVersion != -1) tobasCmdAppend(c, "&file_version=\"%d\"", fileVersion);
  if (given(hostId)) tobasCmdAppend(c, "&host_id=%s", hostId);
}

/* ------------------------------------------------------------------ target file */

/* A name taken from a reply may only name a file in the target folder. */
static int plainFileName(const char* name) {
  return name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 && strchr(name, '/') == NULL;
}

int _tobasReplyFileName(tobasHTTP_HDR hdr, char* name) {
  if (tobasGetHttpHdrEntry(hdr, "content-disposition", "filename", name) != 0) {
    tobasLogError("Reply names no file to write");
    return tobasERR_INV_REPLY;
  }
  if (!plainFileName(name)) {
    tobasLogError("Reply names an illegal file to write: \"%s\"", name);
    return tobasERR_INV_REPLY;
  }
  return tobasSTAT_SUCCESS;
}

/* The final name of the retrieved file into final (tobasBIG_BUF): targetFile itself, or the file
 * name of the reply's content disposition in the folder targetFile (or PWD when it is empty). */
static int targetName(const char* targetFile, tobasHTTP_HDR hdr, char* final) {
  tobasMED_BUF name;
  final[0] = '\0';
  if (given(targetFile) && !tobasIsDir(targetFile))
    return tobasCopyStr(final, tobasBIG_BUF_SIZE, targetFile) == 0 ? 0 : tobasERR_INV_TARG_FILE;
  int stat = _tobasReplyFileName(hdr, name);
  if (stat != 0) return stat;
  const char* dir = given(targetFile) ? targetFile : getenv("PWD");
  size_t len = dir != NULL ? strlen(dir) : 0;
  int rc = dir != NULL
               ? tobasAppendf(final, tobasBIG_BUF_SIZE, "%s%s", dir, len && dir[len - 1] == '/' ? "" : "/")
               : 0;
  if (rc == 0) rc = tobasAppendf(final, tobasBIG_BUF_SIZE, "%s", name);
  return rc == 0 ? 0 : tobasERR_INV_TARG_FILE;
}

/* Creates a new file (mode 0664) in the folder of final, named after it; its name into temp, which
 * has room for any final name of a tobasBIG_BUF and the suffix. The descriptor, or -1. */
static int createTemp(const char* final, char* temp, size_t tempSize) {
  static atomic_uint counter;
  const char* slash = strrchr(final, '/');
  int dirLen = slash != NULL ? (int)(slash - final) + 1 : 0;
  for (int i = 0; i < TEMP_TRIES; ++i) {
    unsigned n = atomic_fetch_add(&counter, 1);
    snprintf(temp, tempSize, "%.*s.%s.part-%ld-%u", dirLen, final, final + dirLen, (long)getpid(), n);
    int fd = open(temp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0664);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

/* ------------------------------------------------------------------ copying the body */

/* A checksum fed whole pieces: the buffer holds TOBAS_SUM_QUEUE + 1 of them, taken in turn; the
 * ones before the checksum's thread are hashed while the next fills. */
static int fedPieces(tobasSum* sum) { return sum != NULL && !tobasSumHere(sum); }

/* After n bytes arrived at the end of the piece being filled: a checksum computed here takes them
 * while they are in the cache; a full piece goes to a checksum fed pieces, and the next piece of
 * the buffer takes the next bytes. The piece the next bytes go to. */
static char* received(tobasSum* sum, char* buf, char* piece, size_t* fill, size_t n) {
  if (sum != NULL && tobasSumHere(sum)) tobasSumUpdate(sum, piece + *fill - n, n);
  if (*fill < TOBAS_IO_CHUNK) return piece;
  *fill = 0;
  if (!fedPieces(sum)) return piece;
  tobasSumFeed(sum, piece, TOBAS_IO_CHUNK);
  return piece == buf + TOBAS_SUM_QUEUE * TOBAS_IO_CHUNK ? buf : piece + TOBAS_IO_CHUNK;
}

/* Copies the socket's next `*left` bytes into the file through a buffer of TOBAS_IO_CHUNK (of
 * TOBAS_SUM_QUEUE + 1 of them with a checksum fed pieces). Each wait for data is bounded by the reply
 * time-out, counted from the last data received; a connection closed early ends the copy at once,
 * and what was written up to then is hashed all the same, so that a later attempt can go on from
 * it. Plain reads and writes: a splice through a pipe saved the copy into this process but took as
 * long again in one pass out of two, and the bytes must pass through here anyway to be hashed. */
static int copyBody(int sock, int out, long* left, float timeout, tobasSum* sum) {
  char* buf = malloc(fedPieces(sum) ? (TOBAS_SUM_QUEUE + 1) * (size_t)TOBAS_IO_CHUNK : TOBAS_IO_CHUNK);
  if (buf == NULL) return tobasERR_ALLOC_MEM;
  char* piece = buf;
  size_t fill = 0;
  double lastData = tobasNow();
  int stat = tobasSTAT_SUCCESS;
  while (*left > 0 && stat == 0) {
    const double wait = lastData + timeout - tobasNow();
    stat = wait > 0 ? _pollFd(sock, (float)wait) : tobasERR_TIMEOUT;
    if (stat != 0) break;
    ssize_t n = recv(sock, piece + fill, MIN((size_t)*left, TOBAS_IO_CHUNK - fill), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue; /* woken without data */
    if (n < 0) {
      stat = tobasERR_RD_DATA;
    } else if (n == 0) {
      tobasLogError("Connection closed with %ld bytes of the body missing", *left);
      stat = tobasERR_RD_DATA;
    } else if (tobasWriteAll(out, piece + fill, (size_t)n) != 0) {
      stat = tobasERR_FILE;
    } else {
      lastData = tobasNow();
      *left -= n;
      fill += (size_t)n;
      piece = received(sum, buf, piece, &fill, (size_t)n);
    }
  }
  if (fedPieces(sum) && fill > 0) tobasSumFeed(sum, piece, fill);
  if (sum != NULL) tobasSumWait(sum); /* the buffer goes */
  free(buf);
  return stat;
}

/* Reads and drops what is left of an announced body. */
static void drain(int fd, long left, float timeout) {
  char buf[64 * 1024];
  while (left > 0 && _pollFd(fd, timeout) == 0) {
    ssize_t n = read(fd, buf, (size_t)MIN(left, (long)sizeof buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    left -= n;
  }
}

/* ------------------------------------------------------------------ retrieval */

/* One retrieval: the reply structures, the names of the file and what of it is here. */
typedef struct {
  tobasHTTP_DATA rep;
  long len, left;
  float timeout;
  tobasBIG_BUF final;
  char temp[tobasBIG_BUF_SIZE + 64]; /* final's name and a suffix (.part, .<name>.part-<pid>-<n>) */
  tobasHTTP_RESP resp;
  tobasHTTP_HDR hdr;
  int out;    /* the file being written, -1 before the first body */
  long have;  /* bytes in it */
  long total; /* the whole file's size once a reply told it, else -1 */
  int resume; /* "<final>.part" is kept after a failure and gone on from */
  tobasSum* sum;
} Retrieval;

/* A reply that cannot be used, where a new request at once (for the whole file, or for the rest
 * of a partial file found) can. */
#define ASK_AGAIN 1
/* Requests of one attempt: the first, one to resume a partial file found by the name the reply
 * gave, one for the whole file after a reply with the wrong part. */
#define ASKS 3

/* Forgets the bytes of the file: the body starts again from its first byte. */
static int startOver(Retrieval* rt) {
  tobasLogInfo(LEV3, "Retrieval starts again from the first byte of %s", rt->final);
  rt->have = 0;
  if (rt->sum != NULL) tobasSumRestart(rt->sum);
  return ftruncate(rt->out, 0) == 0 && lseek(rt->out, 0, SEEK_SET) == 0 ? tobasSTAT_SUCCESS : tobasERR_FILE;
}

int _tobasParseContentRange(const char* value, long* from, long* last, long* total) {
  int end = 0;
  const int ok = sscanf(value, "bytes %ld-%ld/%ld%n", from, last, total, &end) == 3 && value[end] == '\0' &&
                 *from >= 0 && *from <= *last && *last < *total;
  return ok ? tobasSTAT_SUCCESS : tobasERR_INV_REPLY;
}

/* A 206 reply is the rest of the file only when its range starts where the file ends and runs to
 * the end of a file of the size known; otherwise the file is started again. */
static int acceptPartial(Retrieval* rt) {
  tobasMED_BUF range;
  long from = -1, last = -1, total = -1;
  if (tobasGetHttpHdrEntry(rt->hdr, "content-range", "", range) != 0 ||
      _tobasParseContentRange(range, &from, &last, &total) != 0 || from != rt->have || last != total - 1 ||
      rt->len != total - from || (rt->total >= 0 && total != rt->total)) {
    tobasLogError("Reply holds another part of the file than the rest from byte %ld", rt->have);
    rt->left = 0; /* not worth reading */
    const int stat = startOver(rt);
    return stat != 0 ? stat : ASK_AGAIN;
  }
  rt->total = total;
  return tobasSTAT_SUCCESS;
}

/* Only a 200 reply, or a 206 one to a request for the rest, that announces the length of its body
 * is written to a file (a body without a length cannot be told from one cut short); any other
 * reply fails the attempt. */
static int acceptReply(Retrieval* rt) {
  tobasMED_BUF length;
  const int partial = rt->resp.status == tobasSRV_PARTIAL && rt->have > 0;
  if (rt->resp.status != tobasSRV_OK && !partial) {
    tobasLogError("Retrieval refused by the server: %d %s", rt->resp.status, rt->resp.message);
    return tobasERR_INV_REPLY;
  }
  if (tobasGetHttpHdrEntry(rt->hdr, "content-length", "", length) != 0) {
    tobasLogError("Reply announces no length of the file");
    return tobasERR_INV_REPLY;
  }
  return partial ? acceptPartial(rt) : tobasSTAT_SUCCESS;
}

/* "<final>.part": a new file, or the one an earlier call left when it is a plain file of its own
 * (never a link), positioned at its end; its size into rt->have. The descriptor, or -1. */
static int openPart(Retrieval* rt) {
  struct stat st;
  snprintf(rt->temp, sizeof rt->temp, "%s.part", rt->final); /* fits: see Retrieval */
  int fd = open(rt->temp, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0664);
  if (fd >= 0 &&
      (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || lseek(fd, 0, SEEK_END) < 0)) {
    close(fd);
    return -1;
  }
  if (fd >= 0) rt->have = (long)st.st_size;
  return fd;
}

/* The checksum of the bytes an earlier call left in the file. */
static int hashPart(Retrieval* rt) {
  char* buf = malloc(TOBAS_IO_CHUNK);
  if (buf == NULL) return tobasERR_ALLOC_MEM;
  long at = 0;
  while (at < rt->have) {
    ssize_t n = pread(rt->out, buf, (size_t)MIN(rt->have - at, (long)TOBAS_IO_CHUNK), at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    tobasSumUpdate(rt->sum, buf, (size_t)n);
    at += n;
  }
  free(buf);
  return at == rt->have ? tobasSTAT_SUCCESS : tobasERR_FILE;
}

/* Opens the file the body goes into, named after the final name. */
static int openTarget(Retrieval* rt, const char* targetFile) {
  int stat = targetName(targetFile, rt->hdr, rt->final);
  if (stat != 0) return stat;
  rt->out = rt->resume ? openPart(rt) : createTemp(rt->final, rt->temp, sizeof rt->temp);
  if (rt->out < 0) {
    tobasLogError("Cannot create target file: %s", rt->final);
    return tobasERR_INV_TARG_FILE;
  }
  if (rt->have > 0) tobasLogInfo(LEV3, "Going on from byte %ld of %s", rt->have, rt->temp);
  return rt->have > 0 && rt->sum != NULL ? hashPart(rt) : tobasSTAT_SUCCESS;
}

/* Closes the connection of an earlier request without reading on. (Only a 400 reply, which is not
 * tried again, leaves a body in rep.pdata.) */
static void hangUp(Retrieval* rt) {
  if (rt->rep.fd > 0) close(rt->rep.fd);
  rt->rep.fd = 0;
}

/* One request: for the rest of the file when part of it is here, else for all of it; its body is
 * appended to the file. */
static int exchange(Retrieval* rt, const char* host, int port, const char* path, const char* targetFile) {
  hangUp(rt);
  rt->len = 0;
  rt->resp.status = 0;
  const tobasRequest rq = {rt->timeout, tobasUSER_AGENT, path,     0,         NULL,    NULL,    NULL, NULL,
                           0,           &rt->rep,        &rt->len, &rt->resp, rt->hdr, rt->have};
  int stat = tobasGetFrom(host, port, &rq);
  if (stat != 0) tobasLogError("Error invoking tobasHttpGet(). Host:port/URL: %s:%d/%s", host, port, path);
  rt->left = rt->len;
  if (stat == 0) stat = acceptReply(rt);
  if (stat == 0 && rt->out < 0) {
    stat = openTarget(rt, targetFile);
    if (stat == 0 && rt->have > 0) {
      rt->left = 0; /* the whole file came, and part of it is here already */
      return ASK_AGAIN;
    }
  }
  if (stat == 0 && rt->resp.status == tobasSRV_OK) {
    if (rt->have > 0) stat = startOver(rt);
    rt->total = rt->len;
  }
  if (stat != 0) return stat;
  const long before = rt->left;
  stat = copyBody(rt->rep.fd, rt->out, &rt->left, rt->timeout, rt->sum);
  rt->have += before - rt->left;
  return stat;
}

static int attempt(Retrieval* rt, const char* host, int port, const char* path, const char* targetFile) {
  int stat = ASK_AGAIN;
  for (int asks = 0; stat == ASK_AGAIN && asks < ASKS; ++asks)
    stat = exchange(rt, host, port, path, targetFile);
  return stat == ASK_AGAIN ? tobasERR_INV_REPLY : stat;
}

/* Closes the file: renamed into place after a retrieval that succeeded (and whose checksum, when one
 * is expected, matches); after one that failed removed, or kept with what arrived when resuming. */
static int closeTarget(Retrieval* rt, int stat) {
  if (rt->out < 0) return stat;
  if (stat == 0 && rt->sum != NULL) stat = tobasSumCheck(rt->sum);
  if (close(rt->out) != 0 && stat == 0) stat = tobasERR_FILE;
  rt->out = -1;
  if (stat == 0 && rename(rt->temp, rt->final) != 0) {
    tobasLogError("Cannot create target file: %s", rt->final);
    stat = tobasERR_INV_TARG_FILE;
  }
  if (stat != 0 && rt->resume && rt->have > 0 && stat != tobasERR_CHECKSUM)
    tobasLogInfo(LEV1, "Partial file kept: %s (%ld bytes)", rt->temp, rt->have);
  else if (stat != 0)
    unlink(rt->temp);
  return stat;
}

/* Fills status after the retrieval and closes the connection. */
static void retrievalStatus(int stat, Retrieval* rt, tobasSTATUS* status) {
  int sock = rt->rep.fd;
  if (stat != 0 && stat != tobasSRV_INV_QUERY && stat != tobasERR_TIMEOUT && rt->rep.pdata == NULL &&
      sock > 0)
    drain(sock, rt->left, rt->timeout);
  if (sock > 0) close(sock);
  if (stat != 0) {
    tobasFillStatus(stat, &rt->rep, status, rt->timeout);
    return;
  }
  tobasInitStatus(status);
  strcpy(status->message, "Successfully handled RETRIEVE command");
  strcpy(status->status, "OK");
  status->errorCode = tobasSTAT_SUCCESS;
}

/* A retrieval with the attempts the retry policy grants. A file named by the caller is opened
 * before the first request when resuming, so that it asks for the rest of a partial file at once. */
static int retrieveWith(const char* fn, const char* host, int port, float timeoutSecs, const char* cmdName,
                        const char* fileId, int fileVersion, const char* processing,
                        const char* processingPars, const char* targetFile, char* finalTargetFile,
                        int internal, const char* hostId, const tobasRETRIEVE_OPTS* opts,
                        tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, fn, timeoutSecs, status);
  if (finalTargetFile) finalTargetFile[0] = '\0';
  retrievePath(&c, cmdName, fileId, fileVersion, processing, processingPars, internal, hostId);
  Retrieval* rt = c.stat == 0 ? malloc(sizeof *rt) : NULL;
  if (c.stat == 0 && rt == NULL) c.stat = tobasERR_ALLOC_MEM;
  if (c.stat == 0)
    c.stat = tobasSumNew(opts ? opts->checksumMethod : NULL, opts ? opts->checksum : NULL, &rt->sum);
  if (c.stat != 0) {
    free(rt);
    return tobasCmdRefuse(&c, c.stat, status);
  }
  rt->rep.pdata = NULL;
  rt->rep.fd = 0;
  rt->len = rt->left = rt->have = 0;
  rt->total = -1;
  rt->out = -1;
  rt->resume = opts != NULL && opts->resume;
  rt->timeout = c.timeout;
  int stat = rt->resume && given(targetFile) && !tobasIsDir(targetFile) ? openTarget(rt, targetFile) : 0;
  tobasRetry retry;
  tobasRetryBegin(&retry);
  while (stat == 0) {
    stat = attempt(rt, host, port, c.path, targetFile);
    if (stat == 0 || !tobasRetryAgain(&retry, stat, rt->resp.status, rt->hdr, &rt->rep.fd)) break;
    stat = 0;
  }
  stat = closeTarget(rt, stat);
  if (stat == 0 && finalTargetFile) strcpy(finalTargetFile, rt->final);
  retrievalStatus(stat, rt, status);
  tobasSumFree(rt->sum);
  free(rt);
  free(c.path);
  return tobasTraceLeave(c.fn, stat);
}

int _tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* cmdName,
                        const char* fileId, int fileVersion, const char* processing,
                        const char* processingPars, const char* targetFile, char* finalTargetFile,
                        int internal, const char* hostId, tobasSTATUS* status) {
  return retrieveWith("_tobasRetrieve2File", host, port, timeoutSecs, cmdName, fileId, fileVersion,
                      processing, processingPars, targetFile, finalTargetFile, internal, hostId, NULL,
                      status);
}

int tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                       const char* processing, const char* processingPars, const char* targetFile,
                       char* finalTargetFile, tobasSTATUS* status) {
  return tobasRetrieve2FileOpts(host, port, timeoutSecs, fileId, fileVersion, processing, processingPars,
                                targetFile, finalTargetFile, NULL, status);
}

int tobasRetrieve2FileOpts(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                           const char* processing, const char* processingPars, const char* targetFile,
                           char* finalTargetFile, const tobasRETRIEVE_OPTS* opts, tobasSTATUS* status) {
  tobasTraceEnter("tobasRetrieve2File");
  return tobasTraceLeave(
      "tobasRetrieve2File",
      retrieveWith("_tobasRetrieve2File", host, port, timeoutSecs, "RETRIEVE", fileId, fileVersion,
                   processing, processingPars, targetFile, finalTargetFile, 0, "", opts, status));
}

int tobasGenRetrieve2File(const char* host, int port, float timeoutSecs, int cmdCode,
                          const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                          tobasSTATUS* status) {
  return tobasGenRetrieve2FileOpts(host, port, timeoutSecs, cmdCode, parArray, targetFile, finalTargetFile,
                                   NULL, status);
}

int tobasGenRetrieve2FileOpts(const char* host, int port, float timeoutSecs, int cmdCode,
                              const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                              const tobasRETRIEVE_OPTS* opts, tobasSTATUS* status) {
  tobasSMALL_BUF cmdName;
  if (tobasCmd2Str(cmdCode, cmdName) != 0) {
    tobasCommand c;
    tobasCmdBegin(&c, "tobasGenRetrieve2File", timeoutSecs, status);
    return tobasCmdRefuse(&c, tobasERR_UNKNOWN_CMD, status);
  }
  tobasTraceEnter("tobasGenRetrieve2File");
  const char* fileId = tobasGetParVal(parArray, "file_id");
  const char* internalId = tobasGetParVal(parArray, "internal");
  const char* version = tobasGetParVal(parArray, "file_version");
  int internal = fileId == NULL && internalId != NULL;
  int stat =
      retrieveWith("_tobasRetrieve2File", host, port, timeoutSecs, cmdName, internal ? internalId : fileId,
                   given(version) ? atoi(version) : -1, tobasGetParVal(parArray, "processing"),
                   tobasGetParVal(parArray, "processing_pars"), targetFile, finalTargetFile, internal,
                   tobasGetParVal(parArray, "host_id"), opts, status);
  return tobasTraceLeave("tobasGenRetrieve2File", stat);
}
