/* The client's own log: one file written line by line, an echo on standard output,
 * daily rotation and clean-up of rotated files. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

#define TOBAS_LOG_MSG_MAX tobasHUGE_BUF_SIZE

static pthread_mutex_t _logMutex = PTHREAD_MUTEX_INITIALIZER; /* guards _logFile */
static tobasBIG_BUF _logFile = "";
static atomic_int _logLevel = LEV0;
static atomic_int _verboseLevel = -1; /* nothing echoed until asked for */
static atomic_int _logRotate = -1;
static atomic_int _logHistory = -1;
static pthread_once_t _logCondsOnce = PTHREAD_ONCE_INIT;

static void _readLogEnv(void) {
  const char* file = getenv("TOBAS_LOG_FILE");
  if (file != NULL && strlen(file) < sizeof _logFile) {
    pthread_mutex_lock(&_logMutex);
    strcpy(_logFile, file);
    pthread_mutex_unlock(&_logMutex);
  }
  const char* level = getenv("TOBAS_LOG_LEVEL");
  if (level != NULL && *level) atomic_store(&_logLevel, atoi(level));
  const char* verbose = getenv("TOBAS_VERBOSE_LEVEL");
  if (verbose != NULL && *verbose) atomic_store(&_verboseLevel, atoi(verbose));
}

void tobasInitLogConds(void) { pthread_once(&_logCondsOnce, _readLogEnv); }

int _tobasDebugOn(void) {
  tobasInitLogConds();
  return atomic_load(&_logLevel) > 4 || atomic_load(&_verboseLevel) > 4;
}

static void _currentLogFile(char* out) {
  pthread_mutex_lock(&_logMutex);
  strcpy(out, _logFile);
  pthread_mutex_unlock(&_logMutex);
}

void tobasGetLogSettings(char* logFile, int* logLevel, int* verboseLevel, int* logRotate, int* logHistory) {
  tobasInitLogConds();
  if (logFile) _currentLogFile(logFile);
  if (logLevel) *logLevel = atomic_load(&_logLevel);
  if (verboseLevel) *verboseLevel = atomic_load(&_verboseLevel);
  if (logRotate) *logRotate = atomic_load(&_logRotate);
  if (logHistory) *logHistory = atomic_load(&_logHistory);
}

void tobasLog_v(const char* type, int level, const char* format, va_list args) {
  tobasInitLogConds();
  int toFile = level <= atomic_load(&_logLevel);
  int toStdout = level <= atomic_load(&_verboseLevel);
  if (!toFile && !toStdout) return;

  char stamp[tobasSMALL_BUF_SIZE];
  tobasGenIsoTime(3, stamp);
  char* msg = malloc(TOBAS_LOG_MSG_MAX);
  if (msg == NULL) return;
  vsnprintf(msg, TOBAS_LOG_MSG_MAX, format, args);
  char head[tobasSMALL_BUF_SIZE + 32], tail[48];
  snprintf(head, sizeof head, "%s [%s] ", stamp, type);
  snprintf(tail, sizeof tail, " [%lu]\n", (unsigned long)pthread_self());

  if (toFile) {
    tobasBIG_BUF file;
    _currentLogFile(file);
    if (file[0] != '\0') {
      int fd = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (fd < 0) {
        free(msg);
        return; /* no file, no echo */
      }
      /* One write per line, so lines of several threads interleave whole. */
      struct iovec iov[3] = {{head, strlen(head)}, {msg, strlen(msg)}, {tail, strlen(tail)}};
      ssize_t ignored = writev(fd, iov, 3);
      (void)ignored;
      close(fd);
    }
  }
  if (toStdout) {
    flockfile(stdout);
    fputs(head, stdout);
    fputs(msg, stdout);
    fputs(tail, stdout);
    fflush(stdout);
    funlockfile(stdout);
  }
  free(msg);
}

#define TOBAS_DEFINE_LOG_FN(fnName, typeName) \
  void fnName(const char* format, ...) {      \
    va_list ap;                               \
    va_start(ap, format);                     \
    tobasLog_v(typeName, LEV0, format, ap);   \
    va_end(ap);                               \
  }

TOBAS_DEFINE_LOG_FN(tobasLogEmerg, tobasLOG_EMERG)
TOBAS_DEFINE_LOG_FN(tobasLogAlert, tobasLOG_ALERT)
TOBAS_DEFINE_LOG_FN(tobasLogCrit, tobasLOG_CRIT)
TOBAS_DEFINE_LOG_FN(tobasLogError, tobasLOG_ERROR)
TOBAS_DEFINE_LOG_FN(tobasLogWarning, tobasLOG_WARNING)
TOBAS_DEFINE_LOG_FN(tobasLogNotice, tobasLOG_NOTICE)

void tobasLogInfo(int level, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  tobasLog_v(tobasLOG_INFO, level, format, ap);
  va_end(ap);
}

void tobasLogDebug(const char* format, ...) {
  if (!_tobasDebugOn()) return;
  va_list ap;
  va_start(ap, format);
  tobasLog_v(tobasLOG_DEBUG, LEV5, format, ap);
  va_end(ap);
}

int tobasPrepLog(const char* logFile, int logLevel, int logRotate, int logHistory) {
  tobasInitLogConds();
  if (logFile == NULL) logFile = "";
  if (strlen(logFile) >= sizeof _logFile) return tobasERR_OPEN_LOG_FILE;
  pthread_mutex_lock(&_logMutex);
  strcpy(_logFile, logFile);
  pthread_mutex_unlock(&_logMutex);
  atomic_store(&_logLevel, logLevel);
  atomic_store(&_logRotate, logRotate);
  atomic_store(&_logHistory, logHistory);
  if (logFile[0] == '\0') return tobasSTAT_SUCCESS;
  int fd = open(logFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return tobasERR_OPEN_LOG_FILE;
  close(fd);
  return tobasSTAT_SUCCESS;
}

void tobasSetVerboseLevel(int level) {
  tobasInitLogConds();
  atomic_store(&_verboseLevel, level);
}

/* Time of the last rotation, from the marker line at the top of the log; 0 without one. */
static long _lastRotation(const char* logFile) {
  char head[257];
  int fd = open(logFile, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t n = read(fd, head, 256);
  close(fd);
  if (n <= 0) return 0;
  head[n] = '\0';
  /* The head may hold NUL bytes: search it piece by piece. */
  for (ssize_t off = 0; off < n; off += (ssize_t)strlen(head + off) + 1) {
    char* tag = strstr(head + off, tobasLOG_ROTATE_TAG);
    if (tag != NULL) {
      size_t avail = strlen(tag);
      return avail > 12 ? strtol(tag + 12, NULL, 10) : 0;
    }
  }
  return 0;
}

int tobasLogFileRotate(int tmpLogLevel, const char* systemId, char* rotatedLogFile) {
  TOBAS_ENTER("tobasLogFileRotate");
  int rotateAt = atomic_load(&_logRotate);
  if (rotatedLogFile) rotatedLogFile[0] = '\0';
  if (rotateAt == -1) {
    TOBAS_LEAVE("tobasLogFileRotate", 0);
    return tobasSTAT_SUCCESS;
  }
  tobasBIG_BUF logFile;
  _currentLogFile(logFile);
  time_t now = time(NULL);
  struct tm local;
  tzset();
  localtime_r(&now, &local);
  long timeOfDay = local.tm_hour * 3600L + local.tm_min * 60L + local.tm_sec;
  long last = _lastRotation(logFile);
  if (!((long)now - last > 86400 && timeOfDay >= rotateAt)) {
    TOBAS_LEAVE("tobasLogFileRotate", 0);
    return tobasSTAT_SUCCESS;
  }
  tobasLogInfo(tmpLogLevel, "Rotating log file ...");
  tobasBIG_BUF dir, name, rotated;
  if (tobasSplitFilename(logFile, dir, name) != 0 ||
      snprintf(rotated, sizeof rotated, "%s/%s_%ld_%s", dir, tobasLOG_ROTATE_TAG, (long)now, name) >=
          (int)sizeof rotated) {
    tobasLogError("Serious error ocurred rotating log file: %s - rotated log file: %s!", logFile, "");
    TOBAS_LEAVE("tobasLogFileRotate", 1);
    return tobasSTAT_FAILURE;
  }
  if (rotatedLogFile) strcpy(rotatedLogFile, rotated);
  if (rename(logFile, rotated) != 0) {
    tobasLogError("Serious error ocurred rotating log file: %s - rotated log file: %s!", logFile, rotated);
    TOBAS_LEAVE("tobasLogFileRotate", 1);
    return tobasSTAT_FAILURE;
  }
  tobasPrepLog(logFile, atomic_load(&_logLevel), rotateAt, atomic_load(&_logHistory));
  tobasLogInfo(tmpLogLevel, "%s: %ld - SYSTEM-ID: %s", tobasLOG_ROTATE_TAG, (long)now,
               systemId ? systemId : "");
  TOBAS_LEAVE("tobasLogFileRotate", 0);
  return tobasSTAT_SUCCESS;
}

int tobasCleanUpRotLogFiles(int tmpLogLevel) {
  TOBAS_ENTER("tobasCleanUpRotLogFiles");
  int history = atomic_load(&_logHistory);
  if (history == -1) {
    TOBAS_LEAVE("tobasCleanUpRotLogFiles", 0);
    return tobasSTAT_SUCCESS;
  }
  tobasBIG_BUF logFile, dirName, name;
  _currentLogFile(logFile);
  tobasSplitFilename(logFile, dirName, name);
  DIR* dir = opendir(dirName);
  if (dir == NULL) {
    tobasLogError("Error opening Log Files Directory: %s", dirName);
    TOBAS_LEAVE("tobasCleanUpRotLogFiles", 1);
    return tobasSTAT_FAILURE;
  }
  time_t now = time(NULL);
  const size_t prefix = strlen(tobasLOG_ROTATE_TAG) + 1; /* the word and its '_' */
  for (struct dirent* entry = readdir(dir); entry != NULL; entry = readdir(dir)) {
    if (strstr(entry->d_name, tobasLOG_ROTATE_TAG) == NULL || strlen(entry->d_name) <= prefix) continue;
    char path[2 * tobasBIG_BUF_SIZE + 8];
    if (snprintf(path, sizeof path, "%s/%s", dirName, entry->d_name) >= (int)sizeof path) continue;
    long rotatedAt = strtol(entry->d_name + prefix, NULL, 10);
    if (((long)now - rotatedAt) / 86400 >= history) {
      tobasLogInfo(tmpLogLevel, "Removing rotated log file: %s", path);
      remove(path);
    }
  }
  closedir(dir);
  TOBAS_LEAVE("tobasCleanUpRotLogFiles", 0);
  return tobasSTAT_SUCCESS;
}
