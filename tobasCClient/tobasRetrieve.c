/* Retrieval of a file from an archive server into the local file system. The body is written
 * under a temporary name beside the target and renamed into place once it is complete, so that a
 * failed retrieval leaves nothing under the final name. */
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

/* Creates a new file (mode 0664) in the folder of final, named after it; its name into temp.
 * The descriptor, or -1. */
static int createTemp(const char* final, char* temp, size_t tempSize) {
  static atomic_uint counter;
  const char* slash = strrchr(final, '/');
  int dirLen = slash != NULL ? (int)(slash - final) + 1 : 0;
  for (int i = 0; i < TEMP_TRIES; ++i) {
    unsigned n = atomic_fetch_add(&counter, 1);
    if (snprintf(temp, tempSize, "%.*s.%s.part-%ld-%u", dirLen, final, final + dirLen, (long)getpid(), n) >=
        (int)tempSize)
      return -1;
    int fd = open(temp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0664);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

/* ------------------------------------------------------------------ copying the body */

/* Copies the socket's next `*left` bytes into the file through one buffer of TOBAS_IO_CHUNK. Each
 * wait for data is bounded by the reply time-out, counted from the last data received; a connection
 * closed early ends the copy at once. Plain reads and writes: a splice through a pipe saved the copy
 * into this process but took as long again in one pass out of two, and the bytes must pass through
 * here anyway wherever they are to be looked at. */
static int copyBody(int sock, int out, long* left, float timeout) {
  char* buf = malloc(TOBAS_IO_CHUNK);
  if (buf == NULL) return tobasERR_ALLOC_MEM;
  double lastData = tobasNow();
  int stat = tobasSTAT_SUCCESS;
  while (*left > 0 && stat == 0) {
    const double wait = lastData + timeout - tobasNow();
    stat = wait > 0 ? _pollFd(sock, (float)wait) : tobasERR_TIMEOUT;
    if (stat != 0) break;
    ssize_t n = recv(sock, buf, *left < TOBAS_IO_CHUNK ? (size_t)*left : TOBAS_IO_CHUNK, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue; /* woken without data */
    if (n < 0) {
      stat = tobasERR_RD_DATA;
    } else if (n == 0) {
      tobasLogError("Connection closed with %ld bytes of the body missing", *left);
      stat = tobasERR_RD_DATA;
    } else {
      lastData = tobasNow();
      *left -= n;
      if (tobasWriteAll(out, buf, (size_t)n) != 0) stat = tobasERR_FILE;
    }
  }
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

/* One retrieval: the reply structures and the names of the file. */
typedef struct {
  tobasHTTP_DATA rep;
  long len, left;
  float timeout;
  tobasBIG_BUF final;
  char temp[tobasBIG_BUF_SIZE + 64];
  tobasHTTP_RESP resp;
  tobasHTTP_HDR hdr;
} Retrieval;

/* Only a 200 reply that announces the length of its body is written to a file (a body without a
 * length cannot be told from one cut short); any other reply fails the retrieval. */
static int acceptReply(Retrieval* rt) {
  tobasMED_BUF length;
  if (rt->resp.status != tobasSRV_OK) {
    tobasLogError("Retrieval refused by the server: %d %s", rt->resp.status, rt->resp.message);
    return tobasERR_INV_REPLY;
  }
  if (tobasGetHttpHdrEntry(rt->hdr, "content-length", "", length) != 0) {
    tobasLogError("Reply announces no length of the file");
    return tobasERR_INV_REPLY;
  }
  return tobasSTAT_SUCCESS;
}

/* Writes the body of the reply into the target file. */
static int receiveFile(Retrieval* rt, const char* targetFile) {
  int stat = targetName(targetFile, rt->hdr, rt->final);
  int out = stat == 0 ? createTemp(rt->final, rt->temp, sizeof rt->temp) : -1;
  if (stat == 0 && out < 0) {
    tobasLogError("Cannot create target file: %s", rt->final);
    stat = tobasERR_INV_TARG_FILE;
  }
  if (stat == 0) stat = copyBody(rt->rep.fd, out, &rt->left, rt->timeout);
  if (out >= 0 && close(out) != 0 && stat == 0) stat = tobasERR_FILE;
  if (out >= 0 && stat == 0 && rename(rt->temp, rt->final) != 0) {
    tobasLogError("Cannot create target file: %s", rt->final);
    stat = tobasERR_INV_TARG_FILE;
  }
  if (out >= 0 && stat != 0) unlink(rt->temp);
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

int _tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* cmdName,
                        const char* fileId, int fileVersion, const char* processing,
                        const char* processingPars, const char* targetFile, char* finalTargetFile,
                        int internal, const char* hostId, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "_tobasRetrieve2File", timeoutSecs, status);
  if (finalTargetFile) finalTargetFile[0] = '\0';
  retrievePath(&c, cmdName, fileId, fileVersion, processing, processingPars, internal, hostId);
  Retrieval* rt = c.stat == 0 ? malloc(sizeof *rt) : NULL;
  if (c.stat == 0 && rt == NULL) c.stat = tobasERR_ALLOC_MEM;
  if (c.stat != 0) return tobasCmdRefuse(&c, c.stat, status);
  rt->rep.pdata = NULL;
  rt->rep.fd = 0;
  rt->len = 0;
  rt->timeout = c.timeout;
  const tobasRequest rq = {c.timeout, tobasUSER_AGENT, c.path,   0,         NULL,   NULL, NULL, NULL,
                           0,         &rt->rep,        &rt->len, &rt->resp, rt->hdr};
  int stat = tobasGetFrom(host, port, &rq);
  if (stat != 0) tobasLogError("Error invoking tobasHttpGet(). Host:port/URL: %s:%d/%s", host, port, c.path);
  rt->left = rt->len;
  if (stat == 0) stat = acceptReply(rt);
  if (stat == 0) stat = receiveFile(rt, targetFile);
  if (stat == 0 && finalTargetFile) strcpy(finalTargetFile, rt->final);
  retrievalStatus(stat, rt, status);
  free(rt);
  free(c.path);
  return tobasTraceLeave(c.fn, stat);
}

int tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                       const char* processing, const char* processingPars, const char* targetFile,
                       char* finalTargetFile, tobasSTATUS* status) {
  tobasTraceEnter("tobasRetrieve2File");
  return tobasTraceLeave(
      "tobasRetrieve2File",
      _tobasRetrieve2File(host, port, timeoutSecs, "RETRIEVE", fileId, fileVersion, processing,
                          processingPars, targetFile, finalTargetFile, 0, "", status));
}

int tobasGenRetrieve2File(const char* host, int port, float timeoutSecs, int cmdCode,
                          const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                          tobasSTATUS* status) {
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
  int stat = _tobasRetrieve2File(host, port, timeoutSecs, cmdName, internal ? internalId : fileId,
                                 given(version) ? atoi(version) : -1, tobasGetParVal(parArray, "processing"),
                                 tobasGetParVal(parArray, "processing_pars"), targetFile, finalTargetFile,
                                 internal, tobasGetParVal(parArray, "host_id"), status);
  return tobasTraceLeave("tobasGenRetrieve2File", stat);
}
