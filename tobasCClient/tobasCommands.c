/* Server commands of the archive client: one function per command, the generic senders,
 * archiving from a file or from memory, and retrieval into the local file system. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

/* ------------------------------------------------------------------ parameter arrays */

int tobasResetParArray(tobasPAR_ARRAY* parArray) {
  parArray->idx = 0;
  return tobasSTAT_SUCCESS;
}

int tobasAddParAndVal(tobasPAR_ARRAY* parArray, const char* par, const char* val) {
  if (val == NULL) val = "";
  if (parArray->idx < 0 || parArray->idx >= tobasMAX_PARS || strlen(par) >= tobasMED_BUF_SIZE ||
      strlen(val) >= tobasMED_BUF_SIZE) {
    tobasLogError("Cannot add parameter %s: the array is full or a text is too long", par);
    return tobasERR_INV_PARS;
  }
  strcpy(parArray->parArray[parArray->idx], par);
  strcpy(parArray->valArray[parArray->idx], val);
  parArray->idx++;
  return tobasSTAT_SUCCESS;
}

static int _parCount(const tobasPAR_ARRAY* parArray) {
  if (parArray == NULL || parArray->idx < 0) return 0;
  return parArray->idx > tobasMAX_PARS ? tobasMAX_PARS : parArray->idx;
}

const char* tobasGetParVal(const tobasPAR_ARRAY* parArray, const char* par) {
  for (int i = 0; i < _parCount(parArray); ++i)
    if (strcmp(parArray->parArray[i], par) == 0) return parArray->valArray[i];
  return NULL;
}

/* ------------------------------------------------------------------ encoding */

int tobasEncodeUrlVal(const char* urlVal, int skipScheme, char* encodedUrl) {
  size_t o = 0;
  const char* p = urlVal ? urlVal : "";
  encodedUrl[0] = '\0';
  if (skipScheme) {
    size_t keep = 0;
    if (strncmp(p, "http:", 5) == 0 || strncmp(p, "file:", 5) == 0)
      keep = 5;
    else if (strncmp(p, "ftp:", 4) == 0)
      keep = 4;
    memcpy(encodedUrl, p, keep);
    o = keep;
    p += keep;
  }
  for (; *p; ++p) {
    const char* rep = NULL;
    switch (*p) {
      case ':':
        rep = "%3A";
        break;
      case '?':
        rep = "%3F";
        break;
      case '=':
        rep = "%3D";
        break;
      case '&':
        rep = "%26";
        break;
      default:
        break;
    }
    size_t n = rep ? 3 : 1;
    if (o + n >= tobasHUGE_BUF_SIZE) {
      encodedUrl[o] = '\0';
      return tobasERR_INV_PARS;
    }
    if (rep)
      memcpy(encodedUrl + o, rep, 3);
    else
      encodedUrl[o] = *p;
    o += n;
  }
  encodedUrl[o] = '\0';
  return tobasSTAT_SUCCESS;
}

/* ------------------------------------------------------------------ common frame */

static int _roundTimeout(float timeoutSecs) { return timeoutSecs == -1.0f ? -1 : (int)(timeoutSecs + 0.5f); }

static int _leave(const char* fn, int stat) {
  TOBAS_LEAVE(fn, stat);
  return stat;
}

/* Sends a GET of path and fills status from the reply. */
static int _issueGet(const char* fn, const char* host, int port, const char* path, tobasSTATUS* status) {
  tobasHTTP_DATA rep = {NULL, 0};
  tobasHTTP_RESP* resp = malloc(sizeof *resp);
  tobasHTTP_HDR* hdr = malloc(sizeof *hdr);
  long len = 0;
  int stat;
  if (resp == NULL || hdr == NULL)
    stat = tobasERR_ALLOC_MEM;
  else
    stat = tobasHttpGet(host, port, tobasUSER_AGENT, path, 1, &rep, &len, resp, *hdr);
  if (rep.fd > 0) close(rep.fd); /* a reply without a body */
  tobasHandleStatus(stat, &rep, status);
  free(resp);
  free(hdr);
  return _leave(fn, stat);
}

/* A command whose path could not be built. */
static int _refuse(const char* fn, int stat, tobasSTATUS* status) {
  tobasLogError("%s(): request too long or illegal parameters", fn);
  tobasHandleStatus(stat, NULL, status);
  return _leave(fn, stat);
}

#define TOBAS_CMD_START(fn, t)                \
  TOBAS_ENTER(fn);                            \
  _setReplyTimeoutFromFloat(t);               \
  tobasInitStatus(status);                    \
  char* path = calloc(1, tobasHUGE_BUF_SIZE); \
  char* enc = calloc(1, tobasHUGE_BUF_SIZE);  \
  int stat = path && enc ? 0 : tobasERR_ALLOC_MEM

#define TOBAS_APPEND(...) \
  if (stat == 0 && _tobasAppendf(path, tobasHUGE_BUF_SIZE, __VA_ARGS__) != 0) stat = tobasERR_INV_PARS
#define TOBAS_ENCODE(val, skip) \
  if (stat == 0) stat = tobasEncodeUrlVal(val, skip, enc)

#define TOBAS_CMD_SEND(fn)                          \
  if (stat == 0)                                    \
    stat = _issueGet(fn, host, port, path, status); \
  else                                              \
    stat = _refuse(fn, stat, status);               \
  free(path);                                       \
  free(enc);                                        \
  return stat

static int _given(const char* s) { return s != NULL && s[0] != '\0'; }

/* ------------------------------------------------------------------ simple commands */

int tobasClone(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
               const char* diskId, const char* targetDiskId, int wait, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasClone", timeoutSecs);
  TOBAS_APPEND("%s?wait=\"%d\"", "CLONE", wait);
  if (_given(fileId)) TOBAS_APPEND("&file_id=\"%s\"", fileId);
  if (fileVersion != -1) TOBAS_APPEND("&file_version=%d", fileVersion);
  if (_given(diskId)) TOBAS_APPEND("&disk_id=\"%s\"", diskId);
  if (_given(targetDiskId)) TOBAS_APPEND("&target_disk_id=\"%s\"", targetDiskId);
  TOBAS_CMD_SEND("tobasClone");
}

int tobasExit(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasExit", timeoutSecs);
  TOBAS_APPEND("%s?wait=\"%d\"", "EXIT", wait);
  TOBAS_CMD_SEND("tobasExit");
}

int tobasLabel(const char* host, int port, float timeoutSecs, const char* slotId, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasLabel", timeoutSecs);
  TOBAS_ENCODE(slotId, 0);
  TOBAS_APPEND("%s?slot_id=\"%s\"", "LABEL", enc);
  TOBAS_CMD_SEND("tobasLabel");
}

int tobasOnline(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasOnline", timeoutSecs);
  TOBAS_APPEND("%s?wait=\"%d\"", "ONLINE", wait);
  TOBAS_CMD_SEND("tobasOnline");
}

int tobasOffline(const char* host, int port, float timeoutSecs, int force, int wait, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasOffline", timeoutSecs);
  TOBAS_APPEND("%s?wait=\"%d\"", "OFFLINE", wait);
  if (force) TOBAS_APPEND("&force=1");
  TOBAS_CMD_SEND("tobasOffline");
}

int tobasRegister(const char* host, int port, float timeoutSecs, const char* regPath, int wait,
                  tobasSTATUS* status) {
  TOBAS_CMD_START("tobasRegister", timeoutSecs);
  TOBAS_APPEND("%s?wait=\"%d\"&path=\"%s\"", "REGISTER", wait, regPath ? regPath : "");
  TOBAS_CMD_SEND("tobasRegister");
}

int tobasRemDisk(const char* host, int port, float timeoutSecs, const char* diskId, int execute,
                 tobasSTATUS* status) {
  TOBAS_CMD_START("tobasRemDisk", timeoutSecs);
  TOBAS_ENCODE(diskId, 0);
  TOBAS_APPEND("%s?disk_id=\"%s\"&execute=%d", "REMDISK", enc, execute);
  TOBAS_CMD_SEND("tobasRemDisk");
}

int tobasRemFile(const char* host, int port, float timeoutSecs, const char* diskId, const char* fileId,
                 int fileVersion, int execute, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasRemFile", timeoutSecs);
  TOBAS_ENCODE(diskId, 0);
  TOBAS_APPEND("%s?disk_id=\"%s\"", "REMFILE", enc);
  TOBAS_ENCODE(fileId, 0);
  TOBAS_APPEND("&file_id=\"%s\"&file_version=%d&execute=%d", enc, fileVersion, execute);
  TOBAS_CMD_SEND("tobasRemFile");
}

int tobasStatus(const char* host, int port, float timeoutSecs, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasStatus", timeoutSecs);
  TOBAS_APPEND("STATUS");
  TOBAS_CMD_SEND("tobasStatus");
}

int tobasSubscribe(const char* host, int port, float timeoutSecs, const char* url, int priority,
                   const char* startDate, const char* filterPlugIn, const char* filterPlugInPars,
                   tobasSTATUS* status) {
  TOBAS_CMD_START("tobasSubscribe", timeoutSecs);
  TOBAS_ENCODE(url, 0);
  TOBAS_APPEND("%s?url=\"%s\"&priority=%d", "SUBSCRIBE", enc, priority);
  /* Each optional parameter given replaces the whole path built so far. */
  const char* const optional[3] = {startDate, filterPlugIn, filterPlugInPars};
  const char* const formats[3] = {"&start_date=\"%s\"", "&filter_plug_in=\"%s\"", "&plug_in_pars=\"%s\""};
  for (int i = 0; i < 3; ++i) {
    if (!_given(optional[i])) continue;
    TOBAS_ENCODE(optional[i], 0);
    if (stat == 0) {
      path[0] = '\0';
      TOBAS_APPEND(formats[i], enc);
    }
  }
  TOBAS_CMD_SEND("tobasSubscribe");
}

int tobasUnsubscribe(const char* host, int port, float timeoutSecs, const char* url, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasUnsubscribe", timeoutSecs);
  TOBAS_ENCODE(url, 0);
  TOBAS_APPEND("%s?url=\"%s\"", "UNSUBSCRIBE", enc);
  TOBAS_CMD_SEND("tobasUnsubscribe");
}

int tobasGenSendCmd(const char* host, int port, float timeoutSecs, int cmdCode,
                    const tobasPAR_ARRAY* parArray, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasGenSendCmd", timeoutSecs);
  tobasSMALL_BUF cmdName;
  char* raw = calloc(1, tobasHUGE_BUF_SIZE);
  char* encVal = calloc(1, tobasHUGE_BUF_SIZE);
  if (stat == 0 && (raw == NULL || encVal == NULL)) stat = tobasERR_ALLOC_MEM;
  if (stat == 0 && tobasCmd2Str(cmdCode, cmdName) != 0) stat = tobasERR_UNKNOWN_CMD;
  TOBAS_APPEND("%s", cmdName);
  if (stat == 0 && _tobasAppendf(raw, tobasHUGE_BUF_SIZE, "%s", cmdName) != 0) stat = tobasERR_INV_PARS;
  for (int i = 0; stat == 0 && i < _parCount(parArray); ++i) {
    const char* name = parArray->parArray[i];
    const char* val = parArray->valArray[i];
    TOBAS_ENCODE(name, 0);
    if (stat == 0 && val[0] != '\0') stat = tobasEncodeUrlVal(val, 0, encVal);
    if (val[0] == '\0') {
      TOBAS_APPEND("&%s", enc);
      if (stat == 0 && _tobasAppendf(raw, tobasHUGE_BUF_SIZE, "&%s", name) != 0) stat = tobasERR_INV_PARS;
    } else {
      TOBAS_APPEND("&%s=\"%s\"", enc, encVal);
      if (stat == 0 && _tobasAppendf(raw, tobasHUGE_BUF_SIZE, "&%s=\"%s\"", name, val) != 0)
        stat = tobasERR_INV_PARS;
    }
  }
  if (stat == 0) tobasLogInfo(LEV3, "Issuing command with URL: %s ...", raw);
  free(raw);
  free(encVal);
  TOBAS_CMD_SEND("tobasGenSendCmd");
}

/* ------------------------------------------------------------------ archiving */

/* POST of a file or memory block to path and status filled from the reply. */
static int _issuePost(const char* fn, const char* host, int port, const char* path, const char* mimeType,
                      const char* contentDisp, const char* srcFilename, const char* data, long dataLen,
                      tobasSTATUS* status) {
  tobasHTTP_DATA rep = {NULL, 0};
  tobasHTTP_RESP* resp = malloc(sizeof *resp);
  tobasHTTP_HDR* hdr = malloc(sizeof *hdr);
  long len = 0;
  int stat;
  if (resp == NULL || hdr == NULL)
    stat = tobasERR_ALLOC_MEM;
  else
    stat = tobasHttpPost(host, port, tobasUSER_AGENT, path, mimeType, contentDisp, srcFilename, data, dataLen,
                         &rep, &len, resp, *hdr);
  if (rep.fd > 0) close(rep.fd);
  tobasHandleStatus(stat, &rep, status);
  free(resp);
  free(hdr);
  return _leave(fn, stat);
}

int tobasGenSendData(const char* host, int port, int cmdCode, float timeoutSecs, const char* fileUri,
                     const char* mimeType, const tobasPAR_ARRAY* parArray, tobasSTATUS* status) {
  TOBAS_CMD_START("tobasGenSendData", timeoutSecs);
  tobasSMALL_BUF cmdName;
  if (fileUri == NULL) fileUri = "";
  if (mimeType == NULL) mimeType = "";
  if (stat == 0 && tobasCmd2Str(cmdCode, cmdName) != 0) stat = tobasERR_UNKNOWN_CMD;
  TOBAS_ENCODE(fileUri, 1);
  int pull = strstr(fileUri, "file:") || strstr(fileUri, "http:") || strstr(fileUri, "ftp:");
  if (pull) {
    TOBAS_APPEND("%s?filename=\"%s\"&mime_type=\"%s\"", cmdName, enc, mimeType);
    for (int i = 0; stat == 0 && i < _parCount(parArray); ++i) {
      TOBAS_ENCODE(parArray->valArray[i], 0);
      TOBAS_APPEND("&%s=\"%s\"", parArray->parArray[i], enc);
    }
    TOBAS_CMD_SEND("tobasGenSendData");
  }
  char* disp = calloc(1, tobasHUGE_BUF_SIZE);
  if (stat == 0 && disp == NULL) stat = tobasERR_ALLOC_MEM;
  if (stat == 0 && _tobasAppendf(disp, tobasHUGE_BUF_SIZE, "attachment; filename=\"%s\"", enc) != 0)
    stat = tobasERR_INV_PARS;
  for (int i = 0; stat == 0 && i < _parCount(parArray); ++i)
    if (_tobasAppendf(disp, tobasHUGE_BUF_SIZE, "; %s=\"%s\"", parArray->parArray[i],
                      parArray->valArray[i]) != 0)
      stat = tobasERR_INV_PARS;
  TOBAS_APPEND("%s", cmdName);
  if (stat == 0)
    stat = _issuePost("tobasGenSendData", host, port, path, mimeType[0] ? mimeType : "kest/archive-request",
                      disp, fileUri, NULL, 0, status);
  else
    stat = _refuse("tobasGenSendData", stat, status);
  free(disp);
  free(path);
  free(enc);
  return stat;
}

int tobasArchive(const char* host, int port, float timeoutSecs, const char* fileUri, const char* mimeType,
                 int noVersioning, int wait, tobasSTATUS* status) {
  TOBAS_ENTER("tobasArchive");
  tobasPAR_ARRAY pars;
  char num[32];
  tobasResetParArray(&pars);
  snprintf(num, sizeof num, "%d", noVersioning);
  tobasAddParAndVal(&pars, "no_versioning", num);
  snprintf(num, sizeof num, "%d", wait);
  tobasAddParAndVal(&pars, "wait", num);
  snprintf(num, sizeof num, "%d", _roundTimeout(timeoutSecs));
  tobasAddParAndVal(&pars, "time_out", num);
  int stat = tobasGenSendData(host, port, tobasCMD_ARCHIVE, timeoutSecs, fileUri, mimeType, &pars, status);
  return _leave("tobasArchive", stat);
}

int tobasArchiveFromMem(const char* host, int port, float timeoutSecs, const char* fileUri,
                        const char* bufPtr, int size, const char* mimeType, int noVersioning, int wait,
                        tobasSTATUS* status) {
  TOBAS_CMD_START("tobasArchiveFromMem", timeoutSecs);
  char* disp = calloc(1, tobasHUGE_BUF_SIZE);
  char* unused = calloc(1, tobasHUGE_BUF_SIZE);
  if (stat == 0 && (disp == NULL || unused == NULL)) stat = tobasERR_ALLOC_MEM;
  if (size < 0 || (size > 0 && bufPtr == NULL)) stat = tobasERR_INV_PARS;
  TOBAS_ENCODE(fileUri, 1);
  if (stat == 0 &&
      _tobasAppendf(disp, tobasHUGE_BUF_SIZE,
                    "attachment; filename=\"%s\"; wait=\"%d\"; no_versioning=\"%d\"; time_out\"%d\"", enc,
                    wait, noVersioning, _roundTimeout(timeoutSecs)) != 0)
    stat = tobasERR_INV_PARS;
  /* The mime type is prepared but, as in every release of this client, not sent: memory
   * archiving always announces kest/archive-request. */
  if (stat == 0) _tobasAppendf(unused, tobasHUGE_BUF_SIZE, "&mime_type=\"%s\"", mimeType ? mimeType : "");
  TOBAS_APPEND("ARCHIVE");
  if (stat == 0)
    stat = _issuePost("tobasArchiveFromMem", host, port, path, "kest/archive-request", disp, "", bufPtr, size,
                      status);
  else
    stat = _refuse("tobasArchiveFromMem", stat, status);
  free(disp);
  free(unused);
  free(path);
  free(enc);
  return stat;
}

int tobasRestore(const char* host, int port, float timeoutSecs, const char* fileUri, const char* fileId,
                 int fileVersion, tobasSTATUS* status) {
  TOBAS_ENTER("tobasRestore");
  tobasPAR_ARRAY pars;
  char num[32];
  tobasResetParArray(&pars);
  int stat = tobasAddParAndVal(&pars, "filename", fileUri ? fileUri : "");
  if (stat == 0) stat = tobasAddParAndVal(&pars, "file_id", fileId ? fileId : "");
  snprintf(num, sizeof num, "%d", fileVersion);
  if (stat == 0) stat = tobasAddParAndVal(&pars, "file_version", num);
  snprintf(num, sizeof num, "%d", _roundTimeout(timeoutSecs));
  if (stat == 0) stat = tobasAddParAndVal(&pars, "time_out", num);
  if (stat != 0) {
    _setReplyTimeoutFromFloat(timeoutSecs);
    return _refuse("tobasRestore", stat, status);
  }
  stat = tobasGenSendData(host, port, tobasCMD_RESTORE, timeoutSecs, fileUri, "", &pars, status);
  return _leave("tobasRestore", stat);
}

/* ------------------------------------------------------------------ retrieval */

/* Reads and drops what is left of an announced body. */
static void _drain(int fd, long left) {
  char buf[64 * 1024];
  while (left > 0 && _pollFd(fd, _getTimeOut()) == 0) {
    ssize_t n = read(fd, buf, left < (long)sizeof buf ? (size_t)left : sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    left -= n;
  }
}

/* Final name of the retrieved file into final (tobasBIG_BUF). */
static int _targetName(const char* targetFile, tobasHTTP_HDR hdr, char* final) {
  tobasMED_BUF name;
  final[0] = '\0';
  if (_given(targetFile) && !tobasIsDir(targetFile))
    return _tobasCopy(final, tobasBIG_BUF_SIZE, targetFile) == 0 ? 0 : tobasERR_INV_TARG_FILE;
  if (tobasGetHttpHdrEntry(hdr, "content-disposition", "filename", name) != 0) return tobasERR_INV_REPLY;
  const char* dir = _given(targetFile) ? targetFile : getenv("PWD");
  int rc = 0;
  if (dir != NULL) {
    size_t len = strlen(dir);
    rc = _tobasAppendf(final, tobasBIG_BUF_SIZE, "%s%s", dir, len > 0 && dir[len - 1] == '/' ? "" : "/");
  }
  if (rc == 0) rc = _tobasAppendf(final, tobasBIG_BUF_SIZE, "%s", name);
  return rc == 0 ? 0 : tobasERR_INV_TARG_FILE;
}

/* Moves the n bytes waiting in `pipeRd` into `out`: spliced when the file takes it, else read
 * into `buf` and written. Returns 0, or tobasERR_FILE. */
static int _drainPipe(int pipeRd, int out, size_t n, char* buf, int* spliceOut) {
  while (n > 0) {
    ssize_t m = -1;
    if (*spliceOut) {
      m = splice(pipeRd, NULL, out, NULL, n, SPLICE_F_MOVE);
      if (m < 0 && errno == EINTR) continue;
      if (m < 0 && (errno == EINVAL || errno == ENOSYS)) *spliceOut = 0; /* not for this file */
    }
    if (!*spliceOut) {
      m = read(pipeRd, buf, n < TOBAS_RECV_CHUNK ? n : TOBAS_RECV_CHUNK);
      if (m < 0 && errno == EINTR) continue;
      if (m > 0 && _tobasWriteAll(out, buf, (size_t)m) != 0) return tobasERR_FILE;
    }
    if (m <= 0) return tobasERR_FILE;
    n -= (size_t)m;
  }
  return 0;
}

/* Copies len bytes of the socket into out. The bytes go through a pipe with splice, so they are
 * not copied through this process; where the socket or the file does not allow that, they are
 * read into a buffer and written. Before each read the socket is waited for with the reply
 * time-out; a read that brings nothing counts against it from the last data received. */
static int _copyBody(int sock, int out, long len, long* left) {
  char* buf = malloc(TOBAS_RECV_CHUNK);
  if (buf == NULL) return tobasERR_ALLOC_MEM;
  int pipeFd[2] = {-1, -1};
  int spliceIn = pipe2(pipeFd, O_CLOEXEC) == 0, spliceOut = 1;
  if (spliceIn) fcntl(pipeFd[1], F_SETPIPE_SZ, TOBAS_RECV_CHUNK); /* a larger pipe if allowed */
  int stat = tobasSTAT_SUCCESS;
  time_t lastData = time(NULL);
  *left = len;
  while (*left > 0) {
    stat = _pollFd(sock, _getTimeOut());
    if (stat != 0) break;
    const size_t want = *left < TOBAS_RECV_CHUNK ? (size_t)*left : TOBAS_RECV_CHUNK;
    ssize_t n;
    if (spliceIn) {
      n = splice(sock, NULL, pipeFd[1], NULL, want, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
      if (n < 0 && errno == EAGAIN) continue; /* woken without data: wait again */
      if (n < 0 && (errno == EINVAL || errno == ENOSYS)) {
        spliceIn = 0; /* not a socket splice can read: plain reads from here on */
        continue;
      }
    } else {
      n = read(sock, buf, want);
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      stat = tobasERR_RD_DATA;
      break;
    }
    if (n == 0) {
      /* Nothing came: the reply time-out runs from the last data received. */
      if ((double)(time(NULL) - lastData) >= (double)_getTimeOut()) {
        stat = tobasERR_TIMEOUT;
        break;
      }
      struct timespec pause = {0, 10 * 1000 * 1000};
      nanosleep(&pause, NULL);
      continue;
    }
    lastData = time(NULL);
    const int written = spliceIn ? _drainPipe(pipeFd[0], out, (size_t)n, buf, &spliceOut)
                                 : _tobasWriteAll(out, buf, (size_t)n);
    *left -= n;
    if (written != 0) {
      stat = tobasERR_FILE;
      break;
    }
  }
  if (pipeFd[0] >= 0) close(pipeFd[0]);
  if (pipeFd[1] >= 0) close(pipeFd[1]);
  free(buf);
  return stat;
}

int _tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* cmdName,
                        const char* fileId, int fileVersion, const char* processing,
                        const char* processingPars, const char* targetFile, char* finalTargetFile,
                        int internal, const char* hostId, tobasSTATUS* status) {
  TOBAS_CMD_START("_tobasRetrieve2File", timeoutSecs);
  tobasBIG_BUF final = "";
  if (finalTargetFile) finalTargetFile[0] = '\0';
  if (fileId == NULL) fileId = "";
  if (strcmp(fileId, "--TOB--LOG--") == 0) {
    TOBAS_APPEND("%s?tob_log", cmdName);
  } else if (strcmp(fileId, "--CFG--") == 0) {
    TOBAS_APPEND("%s?cfg", cmdName);
  } else {
    TOBAS_ENCODE(fileId, 0);
    TOBAS_APPEND(internal ? "%s?internal=\"%s\"" : "%s?file_id=\"%s\"", cmdName, enc);
  }
  if (_given(processing)) {
    TOBAS_ENCODE(processing, 0);
    TOBAS_APPEND("&processing=\"%s\"", enc);
    if (_given(processingPars)) {
      TOBAS_ENCODE(processingPars, 0);
      TOBAS_APPEND("&processing_pars=\"%s\"", enc);
    }
  }
  if (fileVersion != -1) TOBAS_APPEND("&file_version=\"%d\"", fileVersion);
  if (_given(hostId)) TOBAS_APPEND("&host_id=%s", hostId);
  if (stat != 0) {
    free(path);
    free(enc);
    return _refuse("_tobasRetrieve2File", stat, status);
  }

  tobasHTTP_DATA rep = {NULL, 0};
  tobasHTTP_RESP* resp = malloc(sizeof *resp);
  tobasHTTP_HDR* hdr = malloc(sizeof *hdr);
  long len = 0, left = 0;
  if (resp == NULL || hdr == NULL) {
    stat = tobasERR_ALLOC_MEM;
  } else {
    stat = tobasHttpGet(host, port, tobasUSER_AGENT, path, 0, &rep, &len, resp, *hdr);
    if (stat != 0) tobasLogError("Error invoking tobasHttpGet(). Host:port/URL: %s:%d/%s", host, port, path);
  }
  int sock = rep.fd;
  left = len;
  if (stat == 0) stat = _targetName(targetFile, *hdr, final);
  if (stat == 0) {
    int out = open(final, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
    if (out < 0) {
      tobasLogError("Cannot create target file: %s", final);
      stat = tobasERR_INV_TARG_FILE;
    } else {
      if (finalTargetFile) strcpy(finalTargetFile, final);
      stat = _copyBody(sock, out, len, &left);
      if (close(out) != 0 && stat == 0) stat = tobasERR_FILE;
    }
  }
  if (stat == 0) {
    if (sock > 0) close(sock);
    tobasInitStatus(status);
    strcpy(status->message, "Successfully handled RETRIEVE command");
    strcpy(status->status, "OK");
    status->errorCode = 0;
  } else {
    if (stat != tobasSRV_INV_QUERY && stat != tobasERR_TIMEOUT && rep.pdata == NULL && sock > 0)
      _drain(sock, left);
    if (sock > 0) close(sock);
    tobasHandleStatus(stat, &rep, status);
  }
  free(resp);
  free(hdr);
  free(path);
  free(enc);
  return _leave("_tobasRetrieve2File", stat);
}

int tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                       const char* processing, const char* processingPars, const char* targetFile,
                       char* finalTargetFile, tobasSTATUS* status) {
  return _tobasRetrieve2File(host, port, timeoutSecs, "RETRIEVE", fileId, fileVersion, processing,
                             processingPars, targetFile, finalTargetFile, 0, "", status);
}

int tobasGenRetrieve2File(const char* host, int port, float timeoutSecs, int cmdCode,
                          const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                          tobasSTATUS* status) {
  tobasSMALL_BUF cmdName;
  if (tobasCmd2Str(cmdCode, cmdName) != 0) {
    _setReplyTimeoutFromFloat(timeoutSecs);
    tobasInitStatus(status);
    return _refuse("tobasGenRetrieve2File", tobasERR_UNKNOWN_CMD, status);
  }
  const char* fileId = tobasGetParVal(parArray, "file_id");
  const char* internalId = tobasGetParVal(parArray, "internal");
  const char* version = tobasGetParVal(parArray, "file_version");
  int internal = fileId == NULL && internalId != NULL;
  return _tobasRetrieve2File(host, port, timeoutSecs, cmdName, internal ? internalId : fileId,
                             _given(version) ? atoi(version) : -1, tobasGetParVal(parArray, "processing"),
                             tobasGetParVal(parArray, "processing_pars"), targetFile, finalTargetFile,
                             internal, tobasGetParVal(parArray, "host_id"), status);
}
