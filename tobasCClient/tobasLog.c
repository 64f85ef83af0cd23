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
#include <sys/param.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

/* The marker line reads "LOG-ROTATE: <time> - ...": the time starts this far into it. */
#define MARKER_TIME_OFFSET (sizeof tobasLOG_ROTATE_TAG + 1)
#define MARKER_HEAD 256 /* bytes at the top of the log searched for the marker */

static pthread_mutex_t logMutex = PTHREAD_MUTEX_INITIALIZER; /* guards curLogFile */
static tobasBIG_BUF curLogFile = "";
static atomic_int curLogLevel = LEV0;
static atomic_int curVerboseLevel = -1; /* nothing echoed until asked for */
#define SETTING_OFF (-1)                /* rotation or clean-up disabled */
static atomic_int curLogRotate = SETTING_OFF;
static atomic_int curLogHistory = SETTING_OFF;
static pthread_once_t logCondsOnce = PTHREAD_ONCE_INIT;

static void readLogEnv(void) {
  const char* file = getenv("TOBAS_LOG_FILE");
  if (file != NULL && strlen(file) < sizeof curLogFile) {
    pthread_mutex_lock(&logMutex);
    strcpy(curLogFile, file);
    pthread_mutex_unlock(&logMutex);
  }
  const char* level = getenv("TOBAS_LOG_LEVEL");
  if (level != NULL && *level) atomic_store(&curLogLevel, atoi(level));
  const char* verbose = getenv("TOBAS_VERBOSE_LEVEL");
  if (verbose != NULL && *verbose) atomic_store(&curVerboseLevel, atoi(verbose));
}

void tobasInitLogConds(void) { pthread_once(&logCondsOnce, readLogEnv); }

int tobasDebugOn(void) {
  tobasInitLogConds();
  return atomic_load(&curLogLevel) > 4 || atomic_load(&curVerboseLevel) > 4;
}

static void currentLogFile(char* out) {
  pthread_mutex_lock(&logMutex);
  strcpy(out, curLogFile);
  pthread_mutex_unlock(&logMutex);
}

void tobasGetLogSettings(char* logFile, int* logLevel, int* verboseLevel, int* logRotate, int* logHistory) {
  tobasInitLogConds();
  if (logFile) currentLogFile(logFile);
  if (logLevel) *logLevel = atomic_load(&curLogLevel);
  if (verboseLevel) *verboseLevel = atomic_load(&curVerboseLevel);
  if (logRotate) *logRotate = atomic_load(&curLogRotate);
  if (logHistory) *logHistory = atomic_load(&curLogHistory);
}

void tobasLog_v(const char* type, int level, const char* format, va_list args) {
  tobasInitLogConds();
  int toFile = level <= atomic_load(&curLogLevel);
  int toStdout = level <= atomic_load(&curVerboseLevel);
  tobasBIG_BUF file = "";
  if (toFile) currentLogFile(file);
  toFile = toFile && file[0] != '\0';
  if (!toFile && !toStdout) return; /* nothing is formatted for a line that goes nowhere */

  char stamp[tobasSMALL_BUF_SIZE];
  tobasGenIsoTime(3, stamp);
  char* msg = malloc(tobasHUGE_BUF_SIZE);
  if (msg == NULL) return;
  vsnprintf(msg, tobasHUGE_BUF_SIZE, format, args);
  char head[tobasSMALL_BUF_SIZE + 32], tail[48];
  snprintf(head, sizeof head, "%s [%s] ", stamp, type);
  snprintf(tail, sizeof tail, " [%lu]\n", (unsigned long)pthread_self());

  if (toFile) {
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
  if (!tobasDebugOn()) return;
  va_list ap;
  va_start(ap, format);
  tobasLog_v(tobasLOG_DEBUG, LEV5, format, ap);
  va_end(ap);
}

int tobasPrepLog(const char* logFile, int logLevel, int logRotate, int logHistory) {
  tobasInitLogConds();
  if (logFile == NULL) logFile = "";
  if (strlen(logFile) >= sizeof curLogFile) return tobasERR_OPEN_LOG_FILE;
  pthread_mutex_lock(&logMutex);
  strcpy(curLogFile, logFile);
  pthread_mutex_unlock(&logMutex);
  atomic_store(&curLogLevel, logLevel);
  atomic_store(&curLogRotate, logRotate);
  atomic_store(&curLogHistory, logHistory);
  if (logFile[0] == '\0') return tobasSTAT_SUCCESS;
  int fd = open(logFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return tobasERR_OPEN_LOG_FILE;
  close(fd);
  return tobasSTAT_SUCCESS;
}

void tobasSetVerboseLevel(int level) {
  tobasInitLogConds();
  atomic_store(&curVerboseLevel, level);
}

long _tobasRotationTime(const char* text, size_t len) {
  char head[MARKER_HEAD + 1];
  size_t n = MIN(len, (size_t)MARKER_HEAD);
  memcpy(head, text, n);
  head[n] = '\0';
  /* The head may hold NUL bytes: search it piece by piece. */
  for (size_t off = 0; off < n; off += strlen(head + off) + 1) {
    char* tag = strstr(head + off, tobasLOG_ROTATE_TAG);
    if (tag != NULL) {
      size_t avail = strlen(tag);
      return avail > MARKER_TIME_OFFSET ? strtol(tag + MARKER_TIME_OFFSET, NULL, 10) : 0;
    }
  }
  return 0;
}

/* Time of the last rotation, from the marker line at the top of the log; 0 without one. */
static long lastRotation(const char* logFile) {
  char head[MARKER_HEAD];
  int fd = open(logFile, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t n = read(fd, head, sizeof head);
  close(fd);
  return n > 0 ? _tobasRotationTime(head, (size_t)n) : 0;
}

int tobasLogFileRotate(int tmpLogLevel, const char* systemId, char* rotatedLogFile) {
  tobasTraceEnter("tobasLogFileRotate");
  int rotateAt = atomic_load(&curLogRotate);
  if (rotatedLogFile) rotatedLogFile[0] = '\0';
  if (rotateAt == SETTING_OFF) {
    return tobasTraceLeave("tobasLogFileRotate", tobasSTAT_SUCCESS);
  }
  tobasBIG_BUF logFile;
  currentLogFile(logFile);
  time_t now = time(NULL);
  struct tm local;
  tzset();
  localtime_r(&now, &local);
  long timeOfDay = local.tm_hour * 3600L + local.tm_min * 60L + local.tm_sec;
  long last = lastRotation(logFile);
  if (!((long)now - last > 86400 && timeOfDay >= rotateAt)) {
    return tobasTraceLeave("tobasLogFileRotate", tobasSTAT_SUCCESS);
  }
  tobasLogInfo(tmpLogLevel, "Rotating log file ...");
  tobasBIG_BUF dir, name, rotated;
  if (tobasSplitFilename(logFile, dir, name) != 0 ||
      snprintf(rotated, sizeof rotated, "%s/%s_%ld_%s", dir, tobasLOG_ROTATE_TAG, (long)now, name) >=
          (int)sizeof rotated) {
    tobasLogError("Serious error ocurred rotating log file: %s - rotated log file: %s!", logFile, "");
    return tobasTraceLeave("tobasLogFileRotate", tobasSTAT_FAILURE);
  }
  if (rotatedLogFile) strcpy(rotatedLogFile, rotated);
  if (rename(logFile, rotated) != 0) {
    tobasLogError("Serious error ocurred rotating log file: %s - rotated log file: %s!", logFile, rotated);
    return tobasTraceLeave("tobasLogFileRotate", tobasSTAT_FAILURE);
  }
  tobasPrepLog(logFile, atomic_load(&curLogLevel), rotateAt, atomic_load(&curLogHistory));
  tobasLogInfo(tmpLogLevel, "%s: %ld - SYSTEM-ID: %s", tobasLOG_ROTATE_TAG, (long)now,
               systemId ? systemId : "");
  return tobasTraceLeave("tobasLogFileRotate", tobasSTAT_SUCCESS);
}

int tobasCleanUpRotLogFiles(int tmpLogLevel) {
  tobasTraceEnter("tobasCleanUpRotLogFiles");
  int history = atomic_load(&curLogHistory);
  if (history == SETTING_OFF) {
    return tobasTraceLeave("tobasCleanUpRotLogFiles", tobasSTAT_SUCCESS);
  }
  tobasBIG_BUF logFile, dirName, name;
  currentLogFile(logFile);
  tobasSplitFilename(logFile, dirName, name);
  DIR* dir = opendir(dirName);
  if (dir == NULL) {
    tobasLogError("Error opening Log Files Directory: %s", dirName);
    return tobasTraceLeave("tobasCleanUpRotLogFiles", tobasSTAT_FAILURE);
  }
  time_t now = time(NULL);
  const size_t prefix = strlen(tobasLOG_ROTATE_TAG) + 1; /* the word and its '_' */
  for (struct dirent* entry = readdir(dir); entry != NULL; entry = readdir(dir)) {
    if (strstr(entry->d_name, tobasLOG_ROTATE_TAG) == NULL || strlen(entry->d_name) <= prefix) continue;
    char path[sizeof dirName + sizeof entry->d_name]; /* room for any folder and name */
    snprintf(path, sizeof path, "%s/%s", dirName, entry->d_name);
    long rotatedAt = strtol(entry->d_name + prefix, NULL, 10);
    if (((long)now - rotatedAt) / 86400 >= history) {
      tobasLogInfo(tmpLogLevel, "Removing rotated log file: %s", path);
      remove(path);
    }
  }
  closedir(dir);
  return tobasTraceLeave("tobasCleanUpRotLogFiles", tobasSTAT_SUCCESS);
}
