/*
 * tobasCClient - sends one command to an archive server and reports its status.
 *
 *   tobasCClient -host <Host> -port <Port> -cmd <Command> [-par <Parameter> [-val <Val>]] ...
 *   tobasCClient -servers <Host:Port>,... -cmd <Command> ...
 *
 * Commands with a function of their own in the library (STATUS, ARCHIVE, RETRIEVE, CLONE ...) go
 * through it; parameters it does not know, and the commands without one, go through the generic
 * command sender. Exit status: 0 when the server reports success, 1 when the command fails (the
 * status text on standard error), 2 for a wrong command line. `tobasCClient -help` prints the
 * manual page.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <tobasCClient/tobasCClientLib.h>

#define TOOL "tobasCClient"
#define EXIT_FAILED 1
#define EXIT_USAGE 2

typedef struct {
  const char* host;
  int port;
  const char* servers;
  const char* cmd;
  const char* auth;
  const char* target;
  float timeOut;
  int wait;
  int printDoc;
  int printStatus;
  int verbose; /* -1: not given */
  tobasPAR_ARRAY pars;
} Options;

static int usage(const char* fmt, const char* arg) {
  fprintf(stderr, "%s: ", TOOL);
  fprintf(stderr, fmt, arg);
  fprintf(stderr, "\n%s: try '%s -help'\n", TOOL, TOOL);
  return EXIT_USAGE;
}

/* A whole decimal int in [lo, hi]. */
static int parseInt(const char* text, long lo, long hi, int* out) {
  char* end = NULL;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return -1;
  *out = (int)v;
  return 0;
}

static int parseSeconds(const char* text, float* out) {
  char* end = NULL;
  errno = 0;
  float v = strtof(text, &end);
  if (errno != 0 || end == text || *end != '\0' || !(v == v) || v > 1e8f) return -1;
  *out = v;
  return 0;
}

/* Reads the command line into `o`; returns -1 when the caller should exit 0 (help, version,
 * licence printed), EXIT_USAGE on a wrong line, 0 to go on. */
static int parseArgs(int argc, char** argv, Options* o) {
  memset(o, 0, sizeof *o);
  o->port = -1;
  o->timeOut = -1.0f;
  o->wait = 1;
  o->verbose = -1;
  tobasResetParArray(&o->pars);
  if (argc < 2) return usage("%sno command given", "");
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    const char* next = i + 1 < argc ? argv[i + 1] : NULL;
#define NEED_VALUE()                                       \
  do {                                                     \
    if (next == NULL) return usage("%s needs a value", a); \
    ++i;                                                   \
  } while (0)
    if (strcmp(a, "-help") == 0 || strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
      fputs(tobasManPage(), stdout);
      return -1;
    } else if (strcmp(a, "-version") == 0) {
      printf("%s %s (%s)\n", TOOL, tobasVersion(), tobasVersionDate());
      return -1;
    } else if (strcmp(a, "-license") == 0) {
      fputs(tobasLicense(), stdout);
      return -1;
    } else if (strcmp(a, "-host") == 0) {
      NEED_VALUE();
      if (strlen(next) >= tobasMED_BUF_SIZE) return usage("host name too long: %.40s...", next);
      o->host = next;
    } else if (strcmp(a, "-port") == 0) {
      NEED_VALUE();
      if (parseInt(next, 1, 65535, &o->port) != 0) return usage("invalid port: %s", next);
    } else if (strcmp(a, "-servers") == 0) {
      NEED_VALUE();
      o->servers = next;
    } else if (strcmp(a, "-cmd") == 0) {
      NEED_VALUE();
      o->cmd = next;
    } else if (strcmp(a, "-auth") == 0) {
      NEED_VALUE();
      o->auth = next;
    } else if (strcmp(a, "-target") == 0) {
      NEED_VALUE();
      o->target = next;
    } else if (strcmp(a, "-v") == 0) {
      NEED_VALUE();
      if (parseInt(next, 0, 5, &o->verbose) != 0) return usage("invalid verbose level (0-5): %s", next);
    } else if (strcmp(a, "-timeOut") == 0) {
      NEED_VALUE();
      if (parseSeconds(next, &o->timeOut) != 0) return usage("invalid time-out: %s", next);
    } else if (strcmp(a, "-d") == 0) {
      o->printDoc = 1;
    } else if (strcmp(a, "-status") == 0) {
      o->printStatus = 1;
    } else if (strcmp(a, "-noWait") == 0) {
      o->wait = 0;
    } else if (strcmp(a, "-par") == 0) {
      NEED_VALUE();
      const char* par = next;
      const char* val = "";
      if (i + 2 < argc && strcmp(argv[i + 1], "-val") == 0) {
        val = argv[i + 2];
        i += 2;
      }
      if (o->pars.idx >= tobasMAX_PARS) return usage("more than 16 parameters (at %s)", par);
      if (tobasAddParAndVal(&o->pars, par, val) != 0)
        return usage("parameter or value too long: %.40s...", par);
    } else if (strcmp(a, "-val") == 0) {
      return usage("%s must follow -par <Parameter>", a);
    } else {
      return usage("unknown option: %s", a);
    }
#undef NEED_VALUE
  }
  if (o->cmd == NULL) return usage("%sno command given (-cmd)", "");
  if (o->servers == NULL && (o->host == NULL || o->port < 0))
    return usage("%sno server given: -host <Host> -port <Port>, or -servers <Host:Port>,...", "");
  if (o->servers != NULL && o->host != NULL) return usage("%s-host and -servers exclude each other", "");
  return 0;
}

/* ------------------------------------------------------------------ parameters */

static const char* par(const Options* o, const char* name) { return tobasGetParVal(&o->pars, name); }

static int intPar(const Options* o, const char* name, int dflt, int* out) {
  const char* v = par(o, name);
  if (v == NULL || *v == '\0') {
    *out = dflt;
    return 0;
  }
  if (parseInt(v, INT_MIN, INT_MAX, out) != 0) {
    fprintf(stderr, "%s: parameter %s: not a number: %s\n", TOOL, name, v);
    return -1;
  }
  return 0;
}

/* 1 when every given parameter is one of `known` (a NULL-terminated list). */
static int onlyKnown(const Options* o, const char* const* known) {
  for (int i = 0; i < o->pars.idx; ++i) {
    int found = 0;
    for (const char* const* k = known; *k != NULL && !found; ++k)
      found = strcmp(o->pars.parArray[i], *k) == 0;
    if (!found) return 0;
  }
  return 1;
}

static int require(const Options* o, const char* name, const char* what) {
  const char* v = par(o, name);
  if (v != NULL && *v != '\0') return 0;
  fprintf(stderr, "%s: %s needs -par %s -val <%s>\n", TOOL, o->cmd, name, what);
  return -1;
}

/* ------------------------------------------------------------------ progress */

/* While a transfer runs and standard error is a terminal, a line shows the bytes this process
 * has moved, once a second after the first second: what it read or wrote (from /proc/self/io),
 * or, when more, the size of the files it holds open for writing (a retrieval splices the body
 * into its file without reading it). */
typedef struct {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  int done;
} Progress;

static long long writtenFileBytes(void) {
  long long total = 0;
  DIR* dir = opendir("/proc/self/fdinfo");
  if (dir == NULL) return 0;
  struct dirent* e;
  while ((e = readdir(dir)) != NULL) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    const int fd = atoi(e->d_name);
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    FILE* f = fopen(path, "r");
    if (f == NULL) continue;
    char line[128];
    unsigned long long flags = 0;
    int writing = 0;
    while (fgets(line, sizeof line, f) != NULL)
      if (sscanf(line, "flags: %llo", &flags) == 1) writing = (flags & O_ACCMODE) == O_WRONLY;
    fclose(f);
    struct stat st;
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (writing && stat(path, &st) == 0 && S_ISREG(st.st_mode)) total += (long long)st.st_size;
  }
  closedir(dir);
  return total;
}

static long long movedBytes(void) {
  long long rchar = 0, wchar = 0, v;
  FILE* f = fopen("/proc/self/io", "r");
  if (f != NULL) {
    char key[32];
    while (fscanf(f, "%31s %lld", key, &v) == 2) {
      if (strcmp(key, "rchar:") == 0) rchar = v;
      if (strcmp(key, "wchar:") == 0) wchar = v;
    }
    fclose(f);
  }
  long long moved = rchar > wchar ? rchar : wchar;
  long long files = writtenFileBytes();
  return files > moved ? files : moved;
}

static void* progressLoop(void* arg) {
  Progress* p = arg;
  /* The files open for writing start from zero; the read and write counters do not. */
  const long long start = movedBytes() - writtenFileBytes();
  struct timespec t0, now, until;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  int shown = 0;
  pthread_mutex_lock(&p->mutex);
  while (!p->done) {
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 1;
    pthread_cond_timedwait(&p->cond, &p->mutex, &until);
    if (p->done) break;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double secs = (double)(now.tv_sec - t0.tv_sec) + (double)(now.tv_nsec - t0.tv_nsec) / 1e9;
    long long moved = movedBytes() - start;
    if (moved < 0 || secs <= 0) continue;
    fprintf(stderr, "\r%s: %.1f MiB in %.0f s (%.1f MiB/s)   ", TOOL, (double)moved / 1048576.0, secs,
            (double)moved / 1048576.0 / secs);
    shown = 1;
  }
  pthread_mutex_unlock(&p->mutex);
  if (shown) fputc('\n', stderr);
  return NULL;
}

/* ------------------------------------------------------------------ commands */

static const char* const kNone[] = {NULL};
static const char* const kArchive[] = {"filename", "mime_type", "no_versioning", NULL};
static const char* const kClone[] = {"file_id", "file_version", "disk_id", "target_disk_id", NULL};
static const char* const kOffline[] = {"force", NULL};
static const char* const kLabel[] = {"slot_id", NULL};
static const char* const kRegister[] = {"path", NULL};
static const char* const kRemDisk[] = {"disk_id", "execute", NULL};
static const char* const kRemFile[] = {"disk_id", "file_id", "file_version", "execute", NULL};
static const char* const kRestore[] = {"filename", "file_id", "file_version", NULL};
static const char* const kSubscribe[] = {"url",          "priority", "start_date", "filter_plug_in",
                                         "plug_in_pars", NULL};
static const char* const kUrl[] = {"url", NULL};

/* Runs the command; returns the library's result, or INT_MIN for a wrong parameter (reported). */
static int runCommand(const Options* o, const char* h, int p, int code, tobasSTATUS* st, char* finalTarget) {
  const float t = o->timeOut;
  const int w = o->wait;
  int v1 = 0, v2 = 0;
  switch (code) {
    case tobasCMD_STATUS:
      if (onlyKnown(o, kNone)) return tobasStatus(h, p, t, st);
      break;
    case tobasCMD_EXIT:
      if (onlyKnown(o, kNone)) return tobasExit(h, p, t, w, st);
      break;
    case tobasCMD_ONLINE:
      if (onlyKnown(o, kNone)) return tobasOnline(h, p, t, w, st);
      break;
    case tobasCMD_OFFLINE:
      if (onlyKnown(o, kOffline)) {
        if (intPar(o, "force", 0, &v1) != 0) return INT_MIN;
        return tobasOffline(h, p, t, v1, w, st);
      }
      break;
    case tobasCMD_CLONE:
      if (onlyKnown(o, kClone)) {
        if (intPar(o, "file_version", -1, &v1) != 0) return INT_MIN;
        return tobasClone(h, p, t, par(o, "file_id"), v1, par(o, "disk_id"), par(o, "target_disk_id"), w, st);
      }
      break;
    case tobasCMD_LABEL:
      if (onlyKnown(o, kLabel)) {
        if (require(o, "slot_id", "Slot") != 0) return INT_MIN;
        return tobasLabel(h, p, t, par(o, "slot_id"), st);
      }
      break;
    case tobasCMD_REGISTER:
      if (onlyKnown(o, kRegister)) {
        if (require(o, "path", "Path") != 0) return INT_MIN;
        return tobasRegister(h, p, t, par(o, "path"), w, st);
      }
      break;
    case tobasCMD_REMDISK:
      if (onlyKnown(o, kRemDisk)) {
        if (require(o, "disk_id", "Disk") != 0 || intPar(o, "execute", 0, &v1) != 0) return INT_MIN;
        return tobasRemDisk(h, p, t, par(o, "disk_id"), v1, st);
      }
      break;
    case tobasCMD_REMFILE:
      if (onlyKnown(o, kRemFile)) {
        if (require(o, "disk_id", "Disk") != 0 || require(o, "file_id", "File Id") != 0 ||
            intPar(o, "file_version", -1, &v1) != 0 || intPar(o, "execute", 0, &v2) != 0)
          return INT_MIN;
        return tobasRemFile(h, p, t, par(o, "disk_id"), par(o, "file_id"), v1, v2, st);
      }
      break;
    case tobasCMD_RESTORE:
      if (onlyKnown(o, kRestore)) {
        if (require(o, "filename", "URI") != 0 || intPar(o, "file_version", -1, &v1) != 0) return INT_MIN;
        return tobasRestore(h, p, t, par(o, "filename"), par(o, "file_id"), v1, st);
      }
      break;
    case tobasCMD_SUBSCRIBE:
      if (onlyKnown(o, kSubscribe)) {
        if (require(o, "url", "URL") != 0 || intPar(o, "priority", 1, &v1) != 0) return INT_MIN;
        return tobasSubscribe(h, p, t, par(o, "url"), v1, par(o, "start_date"), par(o, "filter_plug_in"),
                              par(o, "plug_in_pars"), st);
      }
      break;
    case tobasCMD_UNSUBSCRIBE:
      if (onlyKnown(o, kUrl)) {
        if (require(o, "url", "URL") != 0) return INT_MIN;
        return tobasUnsubscribe(h, p, t, par(o, "url"), st);
      }
      break;
    case tobasCMD_ARCHIVE: {
      if (require(o, "filename", "File or URL") != 0 || intPar(o, "no_versioning", 0, &v1) != 0)
        return INT_MIN;
      const char* mime = par(o, "mime_type");
      if (onlyKnown(o, kArchive))
        return tobasArchive(h, p, t, par(o, "filename"), mime ? mime : "", v1, w, st);
      /* Further parameters travel with the archive request, after the ones tobasArchive sends. */
      tobasPAR_ARRAY extra;
      tobasResetParArray(&extra);
      char num[32];
      snprintf(num, sizeof num, "%d", v1);
      tobasAddParAndVal(&extra, "no_versioning", num);
      snprintf(num, sizeof num, "%d", w);
      tobasAddParAndVal(&extra, "wait", num);
      snprintf(num, sizeof num, "%d", t == -1.0f ? -1 : (int)(t + 0.5f));
      tobasAddParAndVal(&extra, "time_out", num);
      for (int i = 0; i < o->pars.idx; ++i) {
        if (strcmp(o->pars.parArray[i], "filename") == 0 || strcmp(o->pars.parArray[i], "mime_type") == 0 ||
            strcmp(o->pars.parArray[i], "no_versioning") == 0)
          continue;
        if (tobasAddParAndVal(&extra, o->pars.parArray[i], o->pars.valArray[i]) != 0) {
          fprintf(stderr, "%s: ARCHIVE: too many parameters\n", TOOL);
          return INT_MIN;
        }
      }
      return tobasGenSendData(h, p, tobasCMD_ARCHIVE, t, par(o, "filename"), mime ? mime : "", &extra, st);
    }
    case tobasCMD_RETRIEVE:
      if (par(o, "file_id") == NULL && par(o, "internal") == NULL) {
        fprintf(stderr, "%s: RETRIEVE needs -par file_id -val <File Id>\n", TOOL);
        return INT_MIN;
      }
      return tobasGenRetrieve2File(h, p, t, code, &o->pars, o->target ? o->target : "", finalTarget, st);
    default:
      break;
  }
  return tobasGenSendCmd(h, p, t, code, &o->pars, st);
}

int main(int argc, char** argv) {
  Options o;
  int rc = parseArgs(argc, argv, &o);
  if (rc < 0) return 0;
  if (rc != 0) return rc;

  char cmd[tobasSMALL_BUF_SIZE];
  if (strlen(o.cmd) >= sizeof cmd) return usage("unknown command: %.40s...", o.cmd);
  strcpy(cmd, o.cmd);
  tobasToUpper(cmd);
  int code = 0;
  if (tobasCmd2No(cmd, &code) != 0) return usage("unknown command: %s", o.cmd);
  o.cmd = cmd;
  if (o.target != NULL && code != tobasCMD_RETRIEVE) return usage("-target only goes with RETRIEVE%s", "");

  if (o.verbose >= 0) tobasSetVerboseLevel(o.verbose);
  if (o.auth != NULL) tobasSetAuthorization(o.auth);
  const char* host = o.host;
  int port = o.port;
  if (o.servers != NULL) {
    if (tobasParseSrvList(o.servers) != 0) return usage("invalid server list: %s", o.servers);
    host = ""; /* the default list: fail-over across its servers */
    port = 0;
  }

  Progress progress = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0};
  pthread_t progressThread;
  int showProgress = (code == tobasCMD_ARCHIVE || code == tobasCMD_RETRIEVE) && isatty(STDERR_FILENO) &&
                     pthread_create(&progressThread, NULL, progressLoop, &progress) == 0;

  tobasSTATUS st;
  tobasInitStatus(&st);
  tobasBIG_BUF finalTarget = "";
  rc = runCommand(&o, host, port, code, &st, finalTarget);

  if (showProgress) {
    pthread_mutex_lock(&progress.mutex);
    progress.done = 1;
    pthread_cond_signal(&progress.cond);
    pthread_mutex_unlock(&progress.mutex);
    pthread_join(progressThread, NULL);
  }
  if (rc == INT_MIN) {
    tobasFreeStatus(&st);
    return EXIT_USAGE;
  }

  if (o.printStatus) tobasDumpStatStdout(&st);
  if (o.printDoc && st.replyData[0] != NULL) printf("%s\n", st.replyData[0]);
  const int ok = rc == 0 && (tobasSuccess(&st) || strcmp(st.status, "OK") == 0);
  if (ok && code == tobasCMD_RETRIEVE) printf("%s\n", finalTarget);
  if (!ok) {
    char codeText[tobasHUGE_BUF_SIZE];
    const char* why = st.message[0] ? st.message : (tobasStat2Str(rc, codeText) == 0 ? codeText : "failed");
    fprintf(stderr, "%s: %s failed: %s (status %s, code %d)\n", TOOL, cmd, why,
            st.status[0] ? st.status : "-", rc != 0 ? rc : (int)st.errorCode);
  }
  tobasFreeStatus(&st);
  return ok ? 0 : EXIT_FAILED;
}
