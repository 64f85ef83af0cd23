/* Server commands of the archive client: one function per command, the generic senders and
 * archiving from a file or from memory. */
#define _GNU_SOURCE
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tobasInternal.h"

#define DEFAULT_ARCHIVE_MIME "kest/archive-request"

/* ------------------------------------------------------------------ parameter arrays */

int tobasResetParArray(tobasPAR_ARRAY* parArray) {
  tobasTraceEnter("tobasResetParArray");
  parArray->idx = 0;
  return tobasTraceLeave("tobasResetParArray", tobasSTAT_SUCCESS);
}

int tobasAddParAndVal(tobasPAR_ARRAY* parArray, const char* par, const char* val) {
  tobasTraceEnter("tobasAddParAndVal");
  if (val == NULL) val = "";
  if (parArray->idx < 0 || parArray->idx >= tobasMAX_PARS || strlen(par) >= tobasMED_BUF_SIZE ||
      strlen(val) >= tobasMED_BUF_SIZE) {
    tobasLogError("Cannot add parameter %s: the array is full or a text is too long", par);
    return tobasTraceLeave("tobasAddParAndVal", tobasERR_INV_PARS);
  }
  strcpy(parArray->parArray[parArray->idx], par);
  strcpy(parArray->valArray[parArray->idx], val);
  parArray->idx++;
  return tobasTraceLeave("tobasAddParAndVal", tobasSTAT_SUCCESS);
}

static int parCount(const tobasPAR_ARRAY* parArray) {
  if (parArray == NULL || parArray->idx < 0) return 0;
  return parArray->idx > tobasMAX_PARS ? tobasMAX_PARS : parArray->idx;
}

const char* tobasGetParVal(const tobasPAR_ARRAY* parArray, const char* par) {
  tobasTraceEnter("tobasGetParVal");
  const char* val = NULL;
  for (int i = 0; i < parCount(parArray) && val == NULL; ++i)
    if (strcmp(parArray->parArray[i], par) == 0) val = parArray->valArray[i];
  tobasTraceLeave("tobasGetParVal", val != NULL ? tobasSTAT_SUCCESS : tobasSTAT_FAILURE);
  return val;
}

/* ------------------------------------------------------------------ encoding */

static const char* encoding(char c) {
  switch (c) {
    case ':':
      return "%3A";
    case '?':
      return "%3F";
    case '=':
      return "%3D";
    case '&':
      return "%26";
    default:
      return NULL;
  }
}

int tobasEncodeUrlVal(const char* urlVal, int skipScheme, char* encodedUrl) {
  tobasTraceEnter("tobasEncodeUrlVal");
  const char* p = urlVal ? urlVal : "";
  size_t o = 0;
  if (skipScheme) {
    o = strncmp(p, "http:", 5) == 0 || strncmp(p, "file:", 5) == 0 ? 5 : strncmp(p, "ftp:", 4) == 0 ? 4 : 0;
    memcpy(encodedUrl, p, o);
    p += o;
  }
  int stat = tobasSTAT_SUCCESS;
  for (; *p && stat == 0; ++p) {
    const char* rep = encoding(*p);
    size_t n = rep ? 3 : 1;
    if (o + n >= tobasHUGE_BUF_SIZE) {
      stat = tobasERR_INV_PARS;
      break;
    }
    memcpy(encodedUrl + o, rep ? rep : p, n);
    o += n;
  }
  encodedUrl[o] = '\0';
  return tobasTraceLeave("tobasEncodeUrlVal", stat);
}

/* ------------------------------------------------------------------ building and sending */

void tobasCmdBegin(tobasCommand* c, const char* fn, float timeoutSecs, tobasSTATUS* status) {
  tobasTraceEnter(fn);
  tobasInitStatus(status);
  c->fn = fn;
  c->retry = 0;
  c->timeout = tobasReplyTimeout(timeoutSecs);
  c->path = malloc(2 * tobasHUGE_BUF_SIZE);
  c->enc = c->path != NULL ? c->path + tobasHUGE_BUF_SIZE : NULL;
  c->stat = c->path != NULL ? tobasSTAT_SUCCESS : tobasERR_ALLOC_MEM;
  if (c->path != NULL) c->path[0] = c->enc[0] = '\0';
}

void tobasCmdAppend(tobasCommand* c, const char* format, ...) {
  if (c->stat != 0) return;
  size_t used = strlen(c->path);
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(c->path + used, tobasHUGE_BUF_SIZE - used, format, ap);
  va_end(ap);
  if (n < 0 || (size_t)n >= tobasHUGE_BUF_SIZE - used) c->stat = tobasERR_INV_PARS;
}

const char* tobasCmdEncode(tobasCommand* c, const char* value, int skipScheme) {
  if (c->stat == 0) c->stat = tobasEncodeUrlVal(value, skipScheme, c->enc);
  return c->stat == 0 ? c->enc : "";
}

/* Fills status from a reply: the document received, or the code. */
static void takeReply(const tobasCommand* c, int stat, tobasHTTP_DATA* rep, tobasSTATUS* status) {
  if (rep->fd > 0) close(rep->fd); /* a reply without a body */
  tobasFillStatus(stat, rep, status, c->timeout);
}

/* Reply structures of one request, in one heap block (the header table is 128 KiB). */
typedef struct {
  tobasHTTP_RESP resp;
  tobasHTTP_HDR hdr;
} ReplyBuffers;

int tobasCmdGet(tobasCommand* c, const char* host, int port, tobasSTATUS* status) {
  if (c->stat != 0) return tobasCmdRefuse(c, c->stat, status);
  tobasHTTP_DATA rep = {NULL, 0};
  ReplyBuffers* b = malloc(sizeof *b);
  long len = 0;
  int stat = tobasERR_ALLOC_MEM;
  if (b != NULL) {
    const tobasRequest rq = {c->timeout, tobasUSER_AGENT, c->path, 1, NULL, NULL, NULL, NULL, 0, &rep,
                             &len,       &b->resp,        b->hdr,  0};
    tobasRetry r;
    tobasRetryBegin(&r);
    if (!c->retry) r.maxAttempts = 1;
    b->resp.status = 0;
    while ((stat = tobasGetFrom(host, port, &rq)) != 0 || b->resp.status != tobasSRV_OK) {
      if (!tobasRetryAgain(&r, stat, b->resp.status, b->hdr, &rep.fd)) break;
      free(rep.pdata); /* the reply of the attempt that failed */
      rep.pdata = NULL;
    }
  }
  takeReply(c, stat, &rep, status);
  free(b);
  free(c->path);
  return tobasTraceLeave(c->fn, stat);
}

int tobasCmdRefuse(tobasCommand* c, int stat, tobasSTATUS* status) {
  tobasLogError("%s(): request too long or illegal parameters", c->fn);
  tobasFillStatus(stat, NULL, status, c->timeout);
  free(c->path);
  return tobasTraceLeave(c->fn, stat);
}

/* POST of a file or memory block to c->path; status filled from the reply; command ended. */
static int cmdPost(tobasCommand* c, const char* host, int port, const char* mimeType, const char* contentDisp,
                   const char* srcFilename, const char* data, long dataLen, tobasSTATUS* status) {
  if (c->stat != 0) return tobasCmdRefuse(c, c->stat, status);
  tobasHTTP_DATA rep = {NULL, 0};
  ReplyBuffers* b = malloc(sizeof *b);
  long len = 0;
  int stat = tobasERR_ALLOC_MEM;
  if (b != NULL) {
    const tobasRequest rq = {c->timeout, tobasUSER_AGENT, c->path, 0,    mimeType, contentDisp, srcFilename,
                             data,       dataLen,         &rep,    &len, &b->resp, b->hdr,      0};
    stat = tobasPostTo(host, port, &rq);
  }
  takeReply(c, stat, &rep, status);
  free(b);
  free(c->path);
  return tobasTraceLeave(c->fn, stat);
}

static int given(const char* s) { return s != NULL && s[0] != '\0'; }

static int roundTimeout(float timeoutSecs) { return timeoutSecs == -1.0f ? -1 : (int)(timeoutSecs + 0.5f); }

/* ------------------------------------------------------------------ simple commands */

int tobasClone(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
               const char* diskId, const char* targetDiskId, int wait, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasClone", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?wait=\"%d\"", "CLONE", wait);
  if (given(fileId)) tobasCmdAppend(&c, "&file_id=\"%s\"", fileId);
  if (fileVersion != -1) tobasCmdAppend(&c, "&file_version=%d", fileVersion);
  if (given(diskId)) tobasCmdAppend(&c, "&disk_id=\"%s\"", diskId);
  if (given(targetDiskId)) tobasCmdAppend(&c, "&target_disk_id=\"%s\"", targetDiskId);
  return tobasCmdGet(&c, host, port, status);
}

/* EXIT, ONLINE and OFFLINE: the command and its wait flag. */
static int waitCommand(const char* fn, const char* name, const char* host, int port, float timeoutSecs,
                       int wait, const char* extra, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, fn, timeoutSecs, status);
  tobasCmdAppend(&c, "%s?wait=\"%d\"%s", name, wait, extra);
  return tobasCmdGet(&c, host, port, status);
}

int tobasExit(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status) {
  return waitCommand("tobasExit", "EXIT", host, port, timeoutSecs, wait, "", status);
}

int tobasOnline(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status) {
  return waitCommand("tobasOnline", "ONLINE", host, port, timeoutSecs, wait, "", status);
}

int tobasOffline(const char* host, int port, float timeoutSecs, int force, int wait, tobasSTATUS* status) {
  return waitCommand("tobasOffline", "OFFLINE", host, port, timeoutSecs, wait, force ? "&force=1" : "",
                     status);
}

int tobasLabel(const char* host, int port, float timeoutSecs, const char* slotId, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasLabel", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?slot_id=\"%s\"", "LABEL", tobasCmdEncode(&c, slotId, 0));
  return tobasCmdGet(&c, host, port, status);
}

int tobasRegister(const char* host, int port, float timeoutSecs, const char* regPath, int wait,
                  tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasRegister", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?wait=\"%d\"&path=\"%s\"", "REGISTER", wait, regPath ? regPath : "");
  return tobasCmdGet(&c, host, port, status);
}

int tobasRemDisk(const char* host, int port, float timeoutSecs, const char* diskId, int execute,
                 tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasRemDisk", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?disk_id=\"%s\"&execute=%d", "REMDISK", tobasCmdEncode(&c, diskId, 0), execute);
  return tobasCmdGet(&c, host, port, status);
}

int tobasRemFile(const char* host, int port, float timeoutSecs, const char* diskId, const char* fileId,
                 int fileVersion, int execute, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasRemFile", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?disk_id=\"%s\"", "REMFILE", tobasCmdEncode(&c, diskId, 0));
  tobasCmdAppend(&c, "&file_id=\"%s\"&file_version=%d&execute=%d", tobasCmdEncode(&c, fileId, 0), fileVersion,
                 execute);
  return tobasCmdGet(&c, host, port, status);
}

int tobasStatus(const char* host, int port, float timeoutSecs, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasStatus", timeoutSecs, status);
  tobasCmdAppend(&c, "STATUS");
  c.retry = 1; /* asking again changes nothing on the server */
  return tobasCmdGet(&c, host, port, status);
}

int tobasSubscribe(const char* host, int port, float timeoutSecs, const char* url, int priority,
                   const char* startDate, const char* filterPlugIn, const char* filterPlugInPars,
                   tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasSubscribe", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?url=\"%s\"&priority=%d", "SUBSCRIBE", tobasCmdEncode(&c, url, 0), priority);
  /* Each optional parameter given replaces the whole path built so far (required). */
  const char* const optional[] = {startDate, filterPlugIn, filterPlugInPars};
  const char* const formats[] = {"&start_date=\"%s\"", "&filter_plug_in=\"%s\"", "&plug_in_pars=\"%s\""};
  for (int i = 0; i < 3; ++i) {
    if (!given(optional[i])) continue;
    const char* enc = tobasCmdEncode(&c, optional[i], 0);
    if (c.stat == 0) c.path[0] = '\0';
    tobasCmdAppend(&c, formats[i], enc);
  }
  return tobasCmdGet(&c, host, port, status);
}

int tobasUnsubscribe(const char* host, int port, float timeoutSecs, const char* url, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasUnsubscribe", timeoutSecs, status);
  tobasCmdAppend(&c, "%s?url=\"%s\"", "UNSUBSCRIBE", tobasCmdEncode(&c, url, 0));
  return tobasCmdGet(&c, host, port, status);
}

int tobasGenSendCmd(const char* host, int port, float timeoutSecs, int cmdCode,
                    const tobasPAR_ARRAY* parArray, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasGenSendCmd", timeoutSecs, status);
  tobasSMALL_BUF cmdName = "";
  if (c.stat == 0 && tobasCmd2Str(cmdCode, cmdName) != 0) c.stat = tobasERR_UNKNOWN_CMD;
  /* The same path with the values as given, for the log. */
  char* raw = c.stat == 0 ? malloc(tobasHUGE_BUF_SIZE) : NULL;
  if (c.stat == 0 && raw == NULL) c.stat = tobasERR_ALLOC_MEM;
  if (raw != NULL) strcpy(raw, cmdName);
  tobasCmdAppend(&c, "%s", cmdName);
  for (int i = 0; c.stat == 0 && i < parCount(parArray); ++i) {
    const char* name = parArray->parArray[i];
    const char* val = parArray->valArray[i];
    tobasCmdAppend(&c, "&%s", tobasCmdEncode(&c, name, 0));
    if (val[0] != '\0') tobasCmdAppend(&c, "=\"%s\"", tobasCmdEncode(&c, val, 0));
    tobasAppendf(raw, tobasHUGE_BUF_SIZE, val[0] ? "&%s=\"%s\"" : "&%s%s", name, val);
  }
  if (c.stat == 0) tobasLogInfo(LEV3, "Issuing command with URL: %s ...", raw);
  free(raw);
  return tobasCmdGet(&c, host, port, status);
}

/* ------------------------------------------------------------------ archiving */

/* Archive pull: the server fetches the file at the URI; the parameters go into the query. */
static void pullPath(tobasCommand* c, const char* cmdName, const char* fileUri, const char* mimeType,
                     const tobasPAR_ARRAY* parArray) {
  tobasCmdAppend(c, "%s?filename=\"%s\"&mime_type=\"%s\"", cmdName, tobasCmdEncode(c, fileUri, 1), mimeType);
  for (int i = 0; i < parCount(parArray); ++i)
    tobasCmdAppend(c, "&%s=\"%s\"", parArray->parArray[i], tobasCmdEncode(c, parArray->valArray[i], 0));
}

/* Archive push: the path is the command; the content disposition, built in the path's buffer
 * and then moved to c->enc, carries the file name and the parameters. */
static void pushDisposition(tobasCommand* c, const char* cmdName, const char* fileUri,
                            const tobasPAR_ARRAY* parArray) {
  tobasCmdAppend(c, "attachment; filename=\"%s\"", tobasCmdEncode(c, fileUri, 1));
  for (int i = 0; i < parCount(parArray); ++i)
    tobasCmdAppend(c, "; %s=\"%s\"", parArray->parArray[i], parArray->valArray[i]);
  if (c->stat == 0) {
    strcpy(c->enc, c->path);
    strcpy(c->path, cmdName);
  }
}

int tobasGenSendData(const char* host, int port, int cmdCode, float timeoutSecs, const char* fileUri,
                     const char* mimeType, const tobasPAR_ARRAY* parArray, tobasSTATUS* status) {
  tobasCommand c;
  tobasCmdBegin(&c, "tobasGenSendData", timeoutSecs, status);
  tobasSMALL_BUF cmdName = "";
  if (fileUri == NULL) fileUri = "";
  if (mimeType == NULL) mimeType = "";
  if (c.stat == 0 && tobasCmd2Str(cmdCode, cmdName) != 0) c.stat = tobasERR_UNKNOWN_CMD;
  const int pull = strstr(fileUri, "file:") || strstr(fileUri, "http:") || strstr(fileUri, "ftp:");
  if (pull)
    pullPath(&c, cmdName, fileUri, mimeType, parArray);
  else
    pushDisposition(&c, cmdName, fileUri, parArray);
  return pull ? tobasCmdGet(&c, host, port, status)
              : cmdPost(&c, host, port, mimeType[0] ? mimeType : DEFAULT_ARCHIVE_MIME, c.enc, fileUri, NULL,
                        0, status);
}

int tobasArchive(const char* host, int port, float timeoutSecs, const char* fileUri, const char* mimeType,
                 int noVersioning, int wait, tobasSTATUS* status) {
  tobasTraceEnter("tobasArchive");
  tobasPAR_ARRAY pars;
  char num[3][16];
  snprintf(num[0], sizeof num[0], "%d", noVersioning);
  snprintf(num[1], sizeof num[1], "%d", wait);
  snprintf(num[2], sizeof num[2], "%d", roundTimeout(timeoutSecs));
  tobasResetParArray(&pars);
  tobasAddParAndVal(&pars, "no_versioning", num[0]);
  tobasAddParAndVal(&pars, "wait", num[1]);
  tobasAddParAndVal(&pars, "time_out", num[2]);
  int stat = tobasGenSendData(host, port, tobasCMD_ARCHIVE, timeoutSecs, fileUri, mimeType, &pars, status);
  return tobasTraceLeave("tobasArchive", stat);
}

int tobasArchiveFromMem(const char* host, int port, float timeoutSecs, const char* fileUri,
                        const char* bufPtr, int size, const char* mimeType, int noVersioning, int wait,
                        tobasSTATUS* status) {
  (void)mimeType; /* a memory block is always announced as DEFAULT_ARCHIVE_MIME (required) */
  tobasCommand c;
  tobasCmdBegin(&c, "tobasArchiveFromMem", timeoutSecs, status);
  if (size < 0 || (size > 0 && bufPtr == NULL)) c.stat = tobasERR_INV_PARS;
  /* "time_out" without its '=' is sent exactly so (required). */
  tobasCmdAppend(&c, "attachment; filename=\"%s\"; wait=\"%d\"; no_versioning=\"%d\"; time_out\"%d\"",
                 tobasCmdEncode(&c, fileUri, 1), wait, noVersioning, roundTimeout(timeoutSecs));
  if (c.stat == 0) {
    strcpy(c.enc, c.path);
    strcpy(c.path, "ARCHIVE");
  }
  return cmdPost(&c, host, port, DEFAULT_ARCHIVE_MIME, c.enc, "", bufPtr, size, status);
}

int tobasRestore(const char* host, int port, float timeoutSecs, const char* fileUri, const char* fileId,
                 int fileVersion, tobasSTATUS* status) {
  tobasTraceEnter("tobasRestore");
  tobasPAR_ARRAY pars;
  char num[2][16];
  snprintf(num[0], sizeof num[0], "%d", fileVersion);
  snprintf(num[1], sizeof num[1], "%d", roundTimeout(timeoutSecs));
  tobasResetParArray(&pars);
  int stat = tobasAddParAndVal(&pars, "filename", fileUri ? fileUri : "");
  if (stat == 0) stat = tobasAddParAndVal(&pars, "file_id", fileId ? fileId : "");
  if (stat == 0) stat = tobasAddParAndVal(&pars, "file_version", num[0]);
  if (stat == 0) stat = tobasAddParAndVal(&pars, "time_out", num[1]);
  if (stat == 0) {
    stat = tobasGenSendData(host, port, tobasCMD_RESTORE, timeoutSecs, fileUri, "", &pars, status);
  } else {
    tobasLogError("tobasRestore(): request too long or illegal parameters");
    tobasFillStatus(stat, NULL, status, tobasReplyTimeout(timeoutSecs));
  }
  return tobasTraceLeave("tobasRestore", stat);
}
