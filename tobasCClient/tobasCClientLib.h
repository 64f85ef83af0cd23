/*
 * tobasCClientLib.h - client library for the archive servers' HTTP command protocol.
 *
 * Plain C (C11), usable from C++. Depends on libc and pthreads (ISA-L and libcrypto inside, for checksums).
 *
 * Conventions: every function returns an int status code of tobasSTAT (0 = success) unless
 * said otherwise; the caller owns every buffer passed in; heap results are freed by the
 * caller with free(). Buffers typed as tobasSMALL_BUF/tobasMED_BUF/... must be at least
 * that large; results that would not fit are refused with an error, never truncated into
 * a neighbouring buffer.
 *
 * Threads: any function may be called from several threads at once; a status record, parameter
 * array or reply structure is used by one thread at a time.
 */
#ifndef TOBAS_CCLIENT_LIB_H
#define TOBAS_CCLIENT_LIB_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ buffers and limits */

#define tobasSMALL_BUF_SIZE 128
#define tobasMED_BUF_SIZE 256
#define tobasBIG_BUF_SIZE 512
#define tobasHUGE_BUF_SIZE 16384

typedef char tobasSMALL_BUF[tobasSMALL_BUF_SIZE];
typedef char tobasMED_BUF[tobasMED_BUF_SIZE];
typedef char tobasBIG_BUF[tobasBIG_BUF_SIZE];
typedef char tobasHUGE_BUF[tobasHUGE_BUF_SIZE];

/* Received reply header: one line a row, row 0 is the status line. */
#define tobasHTTP_HDR_ROWS 512
#define tobasHTTP_HDR_ROW_LEN 256
typedef char tobasHTTP_HDR[tobasHTTP_HDR_ROWS][tobasHTTP_HDR_ROW_LEN];

#define tobasMAX_SRV_LISTS 32  /* server lists in the process */
#define tobasMAX_SRVS 32       /* servers in one list */
#define tobasMAX_PARS 16       /* pairs in a tobasPAR_ARRAY */
#define tobasMAX_REPLY_DATA 32 /* entries of tobasSTATUS.replyData */

/* Agent string sent by the commands. */
#define tobasUSER_AGENT "TOB/AS C-API"

/* ------------------------------------------------------------------ status codes */

typedef enum {
  tobasSTAT_SUCCESS = 0,
  tobasSTAT_FAILURE = 1,

  tobasERR_HOST = -1,
  tobasERR_SOCK = -2,
  tobasERR_CON = -3,
  tobasERR_COM = -4,
  tobasERR_TIMEOUT = -5,

  tobasERR_WR_HD = -100,
  tobasERR_WR_DATA = -101,
  tobasERR_RD_DATA = -102,
  tobasERR_INV_REPLY = -103,

  tobasERR_FILE = -200,
  tobasERR_ALLOC_MEM = -201,

  tobasERR_UNKNOWN_STAT = -1000,
  tobasERR_UNKNOWN_CMD = -1001,
  tobasERR_INV_TARG_FILE = -1002,
  tobasERR_INV_PARS = -1003,
  tobasERR_CHECKSUM = -1004, /* the file retrieved is not the one expected */

  tobasERR_OPEN_LOG_FILE = -2000,

  tobasSRV_OK = 200,
  tobasSRV_PARTIAL = 206, /* the rest of a file, from the offset asked for */
  tobasSRV_REDIRECT = 303,
  tobasSRV_INV_QUERY = 400,

  TOBAS_ER_DAPI_BAD_FILE = 4003,
  TOBAS_WA_BUF_DATA = 4022
} tobasSTAT;

/* ------------------------------------------------------------------ command codes */

typedef enum {
  tobasCMD_ARCHIVE = 0,
  tobasCMD_CHECKFILE = 1,
  tobasCMD_CLONE = 2,
  tobasCMD_DISCARD = 3,
  tobasCMD_EXIT = 4,
  tobasCMD_INIT = 5,
  tobasCMD_LABEL = 6,
  tobasCMD_ONLINE = 7,
  tobasCMD_OFFLINE = 8,
  tobasCMD_REGISTER = 9,
  tobasCMD_REMDISK = 10,
  tobasCMD_REMFILE = 11,
  tobasCMD_RESTORE = 12,
  tobasCMD_RETRIEVE = 13,
  tobasCMD_STATUS = 14,
  tobasCMD_SUBSCRIBE = 15,
  tobasCMD_UNSUBSCRIBE = 16
} tobasCMD;

/* ------------------------------------------------------------------ reply structures */

/* Parsed status line of a reply. */
typedef struct {
  tobasSMALL_BUF version; /* protocol token, lower-cased */
  int status;             /* HTTP status code */
  tobasHUGE_BUF message;  /* rest of the status line, CR/LF trimmed */
} tobasHTTP_RESP;

/* Reply body (heap, NUL-terminated, freed by the caller) or the open connection. */
typedef struct {
  char* pdata;
  int fd; /* connected socket left for the caller to read, 0 otherwise */
} tobasHTTP_DATA;

/* Status record filled by every command. */
typedef struct {
  tobasSMALL_BUF date;
  tobasSTAT errorCode;
  tobasSMALL_BUF hostId;
  tobasHUGE_BUF message;
  tobasSMALL_BUF status; /* "SUCCESS", "FAILURE" ("OK" after a retrieval) */
  tobasSMALL_BUF state;
  tobasSMALL_BUF subState;
  tobasSMALL_BUF version;
  char* replyData[tobasMAX_REPLY_DATA]; /* [0]: the received status document (heap) */
} tobasSTATUS;

/* Parameter list of the generic command functions. */
typedef struct {
  tobasMED_BUF parArray[tobasMAX_PARS];
  tobasMED_BUF valArray[tobasMAX_PARS];
  int idx; /* pairs used */
} tobasPAR_ARRAY;

/* ------------------------------------------------------------------ server lists */

typedef enum { tobasCTX_SWITCH_RANDOM = 0, tobasCTX_SWITCH_CYCLIC = 1 } tobasCTX_SWITCH_SCHEME;

typedef struct {
  tobasSMALL_BUF id; /* list identifier; "" is the default list */
  tobasCTX_SWITCH_SCHEME scheme;
  tobasMED_BUF hosts[tobasMAX_SRVS];
  int ports[tobasMAX_SRVS];
  int numberOfSrvs;
  int srvIdx; /* round-robin start position, -1 after parsing */
  int used;   /* 1 when the entry holds a registered list (also for the default list "") */
} tobasSRV_INFO;

/* ------------------------------------------------------------------ log */

typedef enum { LEV0 = 0, LEV1 = 1, LEV2 = 2, LEV3 = 3, LEV4 = 4, LEV5 = 5 } tobasLOG_LEVEL;

/* Line types */
#define tobasLOG_EMERG "EMERG"
#define tobasLOG_ALERT "ALERT"
#define tobasLOG_CRIT "CRIT"
#define tobasLOG_ERROR "ERROR"
#define tobasLOG_WARNING "WARNING"
#define tobasLOG_NOTICE "NOTICE"
#define tobasLOG_INFO "INFO"
#define tobasLOG_DEBUG "DEBUG"

/* Marker word of rotated log files and of the first line of a fresh log. */
#define tobasLOG_ROTATE_TAG "LOG-ROTATE"

#if defined(__GNUC__)
#define tobasPRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
#else
#define tobasPRINTF_LIKE(f, a)
#endif

void tobasLog_v(const char* type, int level, const char* format, va_list args);
void tobasLogEmerg(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogAlert(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogCrit(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogError(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogWarning(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogNotice(const char* format, ...) tobasPRINTF_LIKE(1, 2);
void tobasLogInfo(int level, const char* format, ...) tobasPRINTF_LIKE(2, 3);
void tobasLogDebug(const char* format, ...) tobasPRINTF_LIKE(1, 2);

/* Stores the settings and creates the file (mode 0644) if needed.
 * logRotate: seconds after local midnight from which a daily rotation may happen, -1 = never.
 * logHistory: days a rotated file is kept, -1 = forever.
 * Returns 0 or tobasERR_OPEN_LOG_FILE. An empty logFile disables writing to a file. */
int tobasPrepLog(const char* logFile, int logLevel, int logRotate, int logHistory);
void tobasSetVerboseLevel(int level);
/* Reads TOBAS_LOG_FILE, TOBAS_LOG_LEVEL, TOBAS_VERBOSE_LEVEL once per process. */
void tobasInitLogConds(void);
/* Rotates the log if due; rotatedLogFile (tobasBIG_BUF) receives the new name.
 * 0, or 1 when the rename fails. */
int tobasLogFileRotate(int tmpLogLevel, const char* systemId, char* rotatedLogFile);
/* Deletes rotated files older than the history; 0, or 1 when the directory cannot be opened. */
int tobasCleanUpRotLogFiles(int tmpLogLevel);

/* Current settings (copies). logFile receives at most tobasBIG_BUF characters. */
void tobasGetLogSettings(char* logFile, int* logLevel, int* verboseLevel, int* logRotate, int* logHistory);

/* ------------------------------------------------------------------ utilities */

/* Splits at the last '/': path gets the directory ("." when there is none, "/" for the
 * root), filename the rest. Both outputs are tobasBIG_BUF; 1 if a part does not fit. */
int tobasSplitFilename(const char* complPath, char* path, char* filename);
/* Current UTC time as ISO 8601 with `precision` decimals (0..9); isoTime: tobasSMALL_BUF. */
int tobasGenIsoTime(int precision, char* isoTime);
/* Removes the characters of trimChars from both ends of str, in place. */
int tobasTrimString(char* str, const char* trimChars);
int tobasToUpper(char* str);
/* Last occurrence of subStr in str, or NULL. */
char* tobasStrRStr(const char* str, const char* subStr);
/* Reads a whole file into a heap buffer (NUL-terminated, freed by the caller).
 * 0 or tobasERR_FILE / tobasERR_ALLOC_MEM. size may be NULL. */
int tobasLoadFile(const char* filename, char** buf, size_t* size);
/* Writes size bytes of buf to filename (created or truncated). 0 or tobasERR_FILE. */
int tobasSaveInFile(const char* filename, const char* buf, size_t size);
/* 1 if path is a directory, else 0. */
int tobasIsDir(const char* path);
/* Host name from HOSTNAME, else HOST; hostName: tobasMED_BUF. 0, or 1 when neither is set. */
int tobasGetHostName(char* hostName);
const char* tobasVersion(void);
/* The library's own name and version ("libtobasCClient 0.1.0"). */
const char* tobasLibraryVersion(void);
const char* tobasVersionDate(void);
const char* tobasLicense(void);
const char* tobasManPage(void);

/* ------------------------------------------------------------------ transport */

struct sockaddr_in;

/* Connected socket (>= 0) or tobasERR_HOST / tobasERR_SOCK / tobasERR_CON. */
int tobasPrepSock(const char* host, int port);
/* Connects sockFd within 0.5 s: 0 success, 1 failure. */
int _tobasConnect(int sockFd, const struct sockaddr_in* servAddr);
/* Waits for input: 0, tobasERR_COM or tobasERR_TIMEOUT. timeoutSecs <= 0: the reply time-out. */
int _pollFd(int fd, float timeoutSecs);
/* The process-wide default reply time-out (<= 0: no limit in practice), used by the transport
 * functions of this section. A command carries its own time-out and leaves this value as it is. */
void _setReplyTimeoutFromFloat(float secs);
float _getTimeOut(void);

/* Reads one line, never past its newline, into buf of max bytes, NUL-terminated. */
int tobasReadLine(int* fd, char* buf, int max);
/* Reads status line and header lines, each wait bounded by the reply time-out; the body stays in
 * the socket. 0, an error, or 400 (body in repDataRef->pdata). */
int tobasRecvHttpHdr(int* sockFd, tobasHTTP_HDR httpHdr, tobasHTTP_RESP* httpResp, tobasHTTP_DATA* repDataRef,
                     long* dataLen);
/* Value of a header field (and sub-field) into value (tobasMED_BUF). The field is matched by its name
 * at the start of a row (any case), the sub-field by its name at the start of a parameter.
 * 0 or tobasERR_INV_REPLY. */
int tobasGetHttpHdrEntry(tobasHTTP_HDR httpHdr, const char* fieldName, const char* subField, char* value);
/* Reads dataLen bytes into a new heap block *data; closes the socket, *sockFd = 0. */
int tobasRecvData(char** data, long dataLen, int* sockFd);

int _tobasHttpGet(const char* host, int port, const char* userAgent, const char* path, int receiveData,
                  tobasHTTP_DATA* repDataRef, long* dataLen, tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr);
/* As _tobasHttpGet, with fail-over when host names a registered server list ("" = default list). */
int tobasHttpGet(const char* host, int port, const char* userAgent, const char* path, int receiveData,
                 tobasHTTP_DATA* repDataRef, long* dataLen, tobasHTTP_RESP* httpResp, tobasHTTP_HDR httpHdr);
/* Posts srcFilename (a regular file: anything else is tobasERR_FILE, before any request) or, without one,
   dataLen bytes of data. */
int _tobasHttpPost(const char* host, int port, const char* userAgent, const char* path, const char* mimeType,
                   const char* contentDisp, const char* srcFilename, const char* data, long dataLen,
                   tobasHTTP_DATA* repDataRef, long* replyLen, tobasHTTP_RESP* httpResp,
                   tobasHTTP_HDR httpHdr);
int tobasHttpPost(const char* host, int port, const char* userAgent, const char* path, const char* mimeType,
                  const char* contentDisp, const char* srcFilename, const char* data, long dataLen,
                  tobasHTTP_DATA* repDataRef, long* replyLen, tobasHTTP_RESP* httpResp,
                  tobasHTTP_HDR httpHdr);

/* Access code sent as is in an Authorization header (NULL/"" clears it from later requests); after
 * a redirection only to the first server or a registered one. The log shows it masked. */
void tobasSetAuthorization(const char* accessCode);
const char* tobasGetAuthorization(void);

/* Registers (or re-parses) the list listId from "host:port,host:port,...". 0 or 1. */
int tobasParseSrvListId(const char* listId, const char* servers);
/* The default list (identifier ""). */
int tobasParseSrvList(const char* servers);
/* "host:port" -> host (tobasMED_BUF) and port. 0, or 1 without ':' (outputs untouched). */
int tobasSplitSrvAddr(const char* srvAddr, char* host, int* port);

void _tobasInitSrvInfo(void);
void _tobasLockSrvInfoSem(void);
void _tobasUnlockSrvInfoSem(void);
void _tobasGetSrvInfoObj(const char* listId, int* foundList, tobasSRV_INFO** srvInfoP);
/* Next server of a list into host (tobasMED_BUF) and *port; *idx -1 starts a new walk. */
int _tobasGetNextSrv(int* idx, tobasSRV_INFO* srvInfo, char* host, int* port);

/* ------------------------------------------------------------------ status document */

void tobasInitStatus(tobasSTATUS* status);
void tobasFreeStatus(tobasSTATUS* status);
/* Fills status after a request; takes ownership of repDataRef->pdata. Returns 0. */
int tobasHandleStatus(int retCode, tobasHTTP_DATA* repDataRef, tobasSTATUS* status);
/* Parses a status document; on success status->replyData[0] = xmlDoc (now owned by status). */
int tobasUnpackStatus(char* xmlDoc, tobasSTATUS* status);
int tobasGetXmlAttr(const char* xmlDoc, const char* pt, const char* attr, int maxValLen, char* value);
/* Text of a status code into buf (tobasBIG_BUF); tobasERR_UNKNOWN_STAT leaves buf untouched. */
int tobasStat2Str(int statusCode, char* buf);
int tobasSuccess(const tobasSTATUS* status);
int tobasLogCodeInStatus(const tobasSTATUS* status, const char* errId);
void tobasDumpStatStdout(const tobasSTATUS* status);
int tobasCmd2No(const char* cmdStr, int* code);
/* Command name into buf (tobasSMALL_BUF). */
int tobasCmd2Str(int code, char* buf);

/* ------------------------------------------------------------------ commands */

/* host: a server host, or a registered list identifier ("" = default list).
 * timeoutSecs: reply time-out; <= 0 means no limit in practice.
 * Return: the transport's code (0 on success); the server's error number is in status->errorCode. */

int tobasArchive(const char* host, int port, float timeoutSecs, const char* fileUri, const char* mimeType,
                 int noVersioning, int wait, tobasSTATUS* status);
int tobasArchiveFromMem(const char* host, int port, float timeoutSecs, const char* fileUri,
                        const char* bufPtr, int size, const char* mimeType, int noVersioning, int wait,
                        tobasSTATUS* status);
int tobasClone(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
               const char* diskId, const char* targetDiskId, int wait, tobasSTATUS* status);
int tobasExit(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status);
int tobasLabel(const char* host, int port, float timeoutSecs, const char* slotId, tobasSTATUS* status);
int tobasOnline(const char* host, int port, float timeoutSecs, int wait, tobasSTATUS* status);
int tobasOffline(const char* host, int port, float timeoutSecs, int force, int wait, tobasSTATUS* status);
int tobasRegister(const char* host, int port, float timeoutSecs, const char* path, int wait,
                  tobasSTATUS* status);
int tobasRemDisk(const char* host, int port, float timeoutSecs, const char* diskId, int execute,
                 tobasSTATUS* status);
int tobasRemFile(const char* host, int port, float timeoutSecs, const char* diskId, const char* fileId,
                 int fileVersion, int execute, tobasSTATUS* status);
int tobasRestore(const char* host, int port, float timeoutSecs, const char* fileUri, const char* fileId,
                 int fileVersion, tobasSTATUS* status);
/* finalTargetFile (tobasBIG_BUF) receives the path written. */
int tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                       const char* processing, const char* processingPars, const char* targetFile,
                       char* finalTargetFile, tobasSTATUS* status);
int tobasStatus(const char* host, int port, float timeoutSecs, tobasSTATUS* status);
int tobasSubscribe(const char* host, int port, float timeoutSecs, const char* url, int priority,
                   const char* startDate, const char* filterPlugIn, const char* filterPlugInPars,
                   tobasSTATUS* status);
int tobasUnsubscribe(const char* host, int port, float timeoutSecs, const char* url, tobasSTATUS* status);

int tobasGenSendCmd(const char* host, int port, float timeoutSecs, int cmdCode,
                    const tobasPAR_ARRAY* parArray, tobasSTATUS* status);
int tobasGenSendData(const char* host, int port, int cmdCode, float timeoutSecs, const char* fileUri,
                     const char* mimeType, const tobasPAR_ARRAY* parArray, tobasSTATUS* status);
/* Parameters taken from parArray: "file_id" (or "internal"), "file_version", "processing",
 * "processing_pars", "host_id". */
int tobasGenRetrieve2File(const char* host, int port, float timeoutSecs, int cmdCode,
                          const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                          tobasSTATUS* status);
int _tobasRetrieve2File(const char* host, int port, float timeoutSecs, const char* cmdName,
                        const char* fileId, int fileVersion, const char* processing,
                        const char* processingPars, const char* targetFile, char* finalTargetFile,
                        int internal, const char* hostId, tobasSTATUS* status);

/* ------------------------------------------------------------------ transfers over bad networks */

/* Retries of retrievals and of STATUS, for the whole process; never of archiving, which is not safe
 * to repeat. Default: one attempt. maxAttempts: attempts in all (1: no retry). The wait before
 * retry k (1, 2, ...) is the server's Retry-After (seconds, when its reply has one) plus a random
 * share of min(firstDelayMs * 2^(k-1), maxDelayMs), so that clients refused together come back
 * apart. Retried: connection errors, time-outs, replies cut short, and replies 408, 429, 500, 502,
 * 503 and 504; any other failure ends the call at once. deadlineMs: no retry starts later than this
 * many ms after the call began (0: no deadline). With a server list each attempt goes through its
 * fail-over. 0, or tobasERR_INV_PARS (policy unchanged) for maxAttempts < 1, a negative value or
 * maxDelayMs < firstDelayMs. Safe to call while other threads transfer: a call takes the policy
 * once, when it starts. */
int tobasSetRetryPolicy(int maxAttempts, int firstDelayMs, int maxDelayMs, int deadlineMs);
/* The policy now in force; any pointer may be NULL. */
void tobasGetRetryPolicy(int* maxAttempts, int* firstDelayMs, int* maxDelayMs, int* deadlineMs);

/* Options of one retrieval. A zeroed record (or NULL) asks for none: the plain retrieval. */
typedef struct {
  /* Keep what arrived as "<final name>.part" when the retrieval fails, and go on from the end of
   * such a file ("Range: bytes=N-") when one is there. Without it a failure leaves nothing.
   * Within one call, retries always go on from where the previous attempt broke off. */
  int resume;
  /* Expected checksum and its method: "crc32", "md5" or "sha256" (any case). The checksum is computed while
   * the bytes arrive; a mismatch fails the retrieval with tobasERR_CHECKSUM and leaves no file. NULL or "":
   * no check. Values: crc32 a decimal number (signed or not) or "0x" and hex digits; md5 and
   * sha256 hex digits (any case). */
  const char* checksumMethod;
  const char* checksum;
} tobasRETRIEVE_OPTS;

/* 1 when name is a checksum method that tobasRETRIEVE_OPTS takes, else 0. */
int tobasChecksumMethodKnown(const char* name);
/* tobasRetrieve2File and tobasGenRetrieve2File with options; opts may be NULL. An unknown method
 * or a malformed value is tobasERR_INV_PARS before any request. */
int tobasRetrieve2FileOpts(const char* host, int port, float timeoutSecs, const char* fileId, int fileVersion,
                           const char* processing, const char* processingPars, const char* targetFile,
                           char* finalTargetFile, const tobasRETRIEVE_OPTS* opts, tobasSTATUS* status);
int tobasGenRetrieve2FileOpts(const char* host, int port, float timeoutSecs, int cmdCode,
                              const tobasPAR_ARRAY* parArray, const char* targetFile, char* finalTargetFile,
                              const tobasRETRIEVE_OPTS* opts, tobasSTATUS* status);

/* Parameter arrays. tobasAddParAndVal: 0, or tobasERR_INV_PARS when full or a text is too long. */
int tobasResetParArray(tobasPAR_ARRAY* parArray);
int tobasAddParAndVal(tobasPAR_ARRAY* parArray, const char* par, const char* val);
const char* tobasGetParVal(const tobasPAR_ARRAY* parArray, const char* par);

/* Encodes ':', '?', '=' and '&' of a query value; encodedUrl: tobasHUGE_BUF.
 * 0, or tobasERR_INV_PARS when the result does not fit. */
int tobasEncodeUrlVal(const char* urlVal, int skipScheme, char* encodedUrl);

#ifdef __cplusplus
}
#endif

#endif /* TOBAS_CCLIENT_LIB_H */
