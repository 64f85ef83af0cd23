/* Server lists of the archive client and fail-over of GET and POST across a list. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tobasInternal.h"

#define NEW_WALK (-1) /* a walk index (and a list's start index) before the first server */

/* ------------------------------------------------------------------ the table of lists */

static tobasSRV_INFO srvInfoList[tobasMAX_SRV_LISTS];
static pthread_mutex_t srvInfoMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t srvInfoOnce = PTHREAD_ONCE_INIT;

static void initSrvInfoOnce(void) {
  pthread_mutex_lock(&srvInfoMutex);
  memset(srvInfoList, 0, sizeof srvInfoList);
  for (int i = 0; i < tobasMAX_SRV_LISTS; ++i) srvInfoList[i].srvIdx = NEW_WALK;
  pthread_mutex_unlock(&srvInfoMutex);
}

void _tobasInitSrvInfo(void) {
  tobasTraceEnter("_tobasInitSrvInfo");
  pthread_once(&srvInfoOnce, initSrvInfoOnce);
  tobasTraceLeave("_tobasInitSrvInfo", tobasSTAT_SUCCESS);
}

void _tobasLockSrvInfoSem(void) {
  tobasTraceEnter("_tobasLockSrvInfoSem");
  pthread_mutex_lock(&srvInfoMutex);
  tobasTraceLeave("_tobasLockSrvInfoSem", tobasSTAT_SUCCESS);
}

void _tobasUnlockSrvInfoSem(void) {
  tobasTraceEnter("_tobasUnlockSrvInfoSem");
  pthread_mutex_unlock(&srvInfoMutex);
  tobasTraceLeave("_tobasUnlockSrvInfoSem", tobasSTAT_SUCCESS);
}

/* Lookup with the mutex held: the list named listId, else the first free entry. */
static tobasSRV_INFO* findSrvInfoLocked(const char* listId, int* found) {
  *found = 0;
  for (int i = 0; i < tobasMAX_SRV_LISTS; ++i) {
    tobasSRV_INFO* e = &srvInfoList[i];
    if (!e->used) {
      *found = listId[0] == '\0'; /* the default list counts as present */
      return e;
    }
    if (strcmp(e->id, listId) == 0) {
      *found = 1;
      return e;
    }
  }
  return NULL;
}

void _tobasGetSrvInfoObj(const char* listId, int* foundList, tobasSRV_INFO** srvInfoP) {
  tobasTraceEnter("_tobasGetSrvInfoObj");
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();
  *srvInfoP = findSrvInfoLocked(listId ? listId : "", foundList);
  _tobasUnlockSrvInfoSem();
  tobasTraceLeave("_tobasGetSrvInfoObj", tobasSTAT_SUCCESS);
}

int _tobasGetNextSrv(int* idx, tobasSRV_INFO* srvInfo, char* host, int* port) {
  tobasTraceEnter("_tobasGetNextSrv");
  _tobasLockSrvInfoSem();
  int n = srvInfo->numberOfSrvs;
  if (n <= 0) {
    _tobasUnlockSrvInfoSem();
    return tobasTraceLeave("_tobasGetNextSrv", tobasSTAT_FAILURE);
  }
  if (*idx == NEW_WALK) {
    srvInfo->srvIdx = srvInfo->srvIdx < 0 ? 0 : (srvInfo->srvIdx + 1) % n;
    *idx = srvInfo->srvIdx;
  } else {
    *idx = (*idx + 1) % n;
  }
  strcpy(host, srvInfo->hosts[*idx]);
  *port = srvInfo->ports[*idx];
  _tobasUnlockSrvInfoSem();
  tobasLogInfo(LEV4, "Next server: %s:%d", host, *port);
  return tobasTraceLeave("_tobasGetNextSrv", tobasSTAT_SUCCESS);
}

int tobasSrvListed(const char* host, int port) {
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();
  int listed = 0;
  for (int i = 0; i < tobasMAX_SRV_LISTS && !listed; ++i)
    for (int j = 0; srvInfoList[i].used && j < srvInfoList[i].numberOfSrvs && !listed; ++j)
      listed = srvInfoList[i].ports[j] == port && strcasecmp(srvInfoList[i].hosts[j], host) == 0;
  _tobasUnlockSrvInfoSem();
  return listed;
}

/* ------------------------------------------------------------------ parsing */

int tobasSplitSrvAddr(const char* srvAddr, char* host, int* port) {
  tobasTraceEnter("tobasSplitSrvAddr");
  const char* colon = strchr(srvAddr, ':');
  if (colon == NULL || (size_t)(colon - srvAddr) >= tobasMED_BUF_SIZE)
    return tobasTraceLeave("tobasSplitSrvAddr", tobasSTAT_FAILURE);
  memcpy(host, srvAddr, (size_t)(colon - srvAddr));
  host[colon - srvAddr] = '\0';
  *port = atoi(colon + 1);
  return tobasTraceLeave("tobasSplitSrvAddr", tobasSTAT_SUCCESS);
}

/* Adds the comma-separated "host:port" pieces of `servers` (a work copy, cut up) to entry e. */
static int addServers(tobasSRV_INFO* e, char* servers) {
  char* save = NULL;
  for (char* piece = strtok_r(servers, ",", &save); piece != NULL; piece = strtok_r(NULL, ",", &save)) {
    tobasMED_BUF host;
    int port;
    if (tobasSplitSrvAddr(piece, host, &port) != 0) {
      tobasLogError("Illegal server address in list %s: %s", e->id, piece);
      return tobasSTAT_FAILURE;
    }
    if (e->numberOfSrvs >= tobasMAX_SRVS) {
      tobasLogError("Too many servers in list %s (at most %d): %s refused", e->id, tobasMAX_SRVS, piece);
      return tobasSTAT_FAILURE;
    }
    strcpy(e->hosts[e->numberOfSrvs], host);
    e->ports[e->numberOfSrvs] = port;
    e->numberOfSrvs++;
  }
  return tobasSTAT_SUCCESS;
}

int tobasParseSrvListId(const char* listId, const char* servers) {
  tobasTraceEnter("tobasParseSrvListId");
  if (listId == NULL) listId = "";
  if (servers == NULL) servers = "";
  tobasLogInfo(LEV3, "tobasParseSrvListId(): listId=%s, servers=%s", listId, servers);
  if (strlen(listId) >= tobasSMALL_BUF_SIZE || strlen(servers) >= tobasHUGE_BUF_SIZE) {
    tobasLogError("Server list ID or server list too long");
    return tobasTraceLeave("tobasParseSrvListId", tobasSTAT_FAILURE);
  }
  char* work = strdup(servers);
  if (work == NULL) return tobasTraceLeave("tobasParseSrvListId", tobasSTAT_FAILURE);
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();
  int found, stat = tobasSTAT_FAILURE;
  tobasSRV_INFO* e = findSrvInfoLocked(listId, &found);
  if (e != NULL) {
    memset(e, 0, sizeof *e);
    strcpy(e->id, listId);
    e->used = 1;
    e->srvIdx = NEW_WALK;
    e->scheme = tobasCTX_SWITCH_CYCLIC;
    stat = addServers(e, work);
  }
  _tobasUnlockSrvInfoSem();
  free(work);
  if (e == NULL) tobasLogError("Illegal Server List ID or no more free slots");
  return tobasTraceLeave("tobasParseSrvListId", stat);
}

int tobasParseSrvList(const char* servers) {
  tobasTraceEnter("tobasParseSrvList");
  return tobasTraceLeave("tobasParseSrvList", tobasParseSrvListId("", servers));
}

/* ------------------------------------------------------------------ fail-over */

/* One attempt of a request at host:port. */
typedef int (*Attempt)(const char* host, int port, const tobasRequest* rq);

/* A host that names a registered list: the attempt is made at each server of the list in turn,
 * starting one further than the previous request, until one succeeds; tobasSTAT_FAILURE if none
 * does. Any other host: one attempt, whose result is returned. */
static int failOver(const char* fn, const char* host, int port, const tobasRequest* rq, Attempt attempt) {
  tobasTraceEnter(fn);
  int found;
  tobasSRV_INFO* list;
  if (host == NULL) host = "";
  _tobasGetSrvInfoObj(host, &found, &list);
  if (!found) return tobasTraceLeave(fn, attempt(host, port, rq));
  _tobasLockSrvInfoSem();
  const int n = list->numberOfSrvs;
  _tobasUnlockSrvInfoSem();
  rq->rep->pdata = NULL;
  rq->rep->fd = 0;
  for (int i = 0, idx = NEW_WALK; i < n; ++i) {
    tobasMED_BUF h;
    int p;
    if (_tobasGetNextSrv(&idx, list, h, &p) != 0) break;
    free(rq->rep->pdata); /* what an earlier attempt left */
    rq->rep->pdata = NULL;
    if (attempt(h, p, rq) == 0) return tobasTraceLeave(fn, tobasSTAT_SUCCESS);
  }
  return tobasTraceLeave(fn, tobasSTAT_FAILURE);
}

int tobasGetFrom(const char* host, int port, const tobasRequest* rq) {
  return failOver("tobasHttpGet", host, port, rq, tobasGetAt);
}

int tobasPostTo(const char* host, int port, const tobasRequest* rq) {
  return failOver("tobasHttpPost", host, port, rq, tobasPostAt);
}

/* The public GET and POST functions: a request with the process-wide default reply time-out, sent
 * in one attempt (the underscore forms) or with fail-over. */
#define TOBAS_DEFINE_GET(fnName, send)                                                                     \
  int fnName(const char* host, int port, const char* userAgent, const char* path, int receiveData,         \
             tobasHTTP_DATA* repDataRef, long* dataLen, tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr) { \
    const tobasRequest rq = {_getTimeOut(), userAgent, path,       receiveData, NULL,     NULL,    NULL,   \
                             NULL,          0,         repDataRef, dataLen,     httpResp, httpHdr, 0};     \
    return send(host, port, &rq);                                                                          \
  }

#define TOBAS_DEFINE_POST(fnName, send)                                                                     \
  int fnName(const char* host, int port, const char* userAgent, const char* path, const char* mimeType,     \
             const char* contentDisp, const char* srcFilename, const char* data, long dataLen,              \
             tobasHTTP_DATA* repDataRef, long* replyLen, tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr) { \
    const tobasRequest rq = {_getTimeOut(), userAgent,   path,    0,       mimeType,                        \
                             contentDisp,   srcFilename, data,    dataLen, repDataRef,                      \
                             replyLen,      httpResp,    httpHdr, 0};                                       \
    return send(host, port, &rq);                                                                           \
  }

TOBAS_DEFINE_GET(_tobasHttpGet, tobasGetAt)
TOBAS_DEFINE_GET(tobasHttpGet, tobasGetFrom)
TOBAS_DEFINE_POST(_tobasHttpPost, tobasPostAt)
TOBAS_DEFINE_POST(tobasHttpPost, tobasPostTo)
