/*
 * tobasCClient - sends one command to an archive server and reports its status.
 *
 *   tobasCClient -host <Host> -port <Port> -cmd <Command> [-par <Parameter> [-val <Val>]] ...
 *   tobasCClient -servers <Host:Port>,... -cmd <Command> ...
 *
 * Commands with a function of their own in the library (STATUS, ARCHIVE, RETRIEVE, CLONE ...) go
 * through it; parameters it does not know, and the commands without one, go through the generic
 * command sender. A retrieval can go on from a partial file, be retried and have its checksum
 * checked (-continue, -retry, -checksum); STATUS can be retried too. Exit status: 0 when the
 * server reports success, 1 when the command fails (the status text on standard error), 2 for a
 * wrong command line. `tobasCClient -help` prints the manual page.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
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
#define KEEP_GOING (-1)         /* the command line is complete: run the command */
#define WRONG_PARAMETER INT_MIN /* a command refused its parameters (reported) */

#define MAX_PORT 65535
#define MAX_VERBOSE_LEVEL 5
#define NO_TIMEOUT (-1.0f)     /* the library's "wait as long as it takes" */
#define MAX_TIMEOUT_SECS 1e8f  /* the library's longest reply time-out */
#define PROGRESS_PERIOD_SECS 1 /* between two progress lines */
#define BYTES_PER_MIB 1048576.0
#define MAX_RETRIES 1000
#define MS_PER_SEC 1000
#define MAX_RETRY_SECS (INT_MAX / MS_PER_SEC) /* the deadline goes to the library in ms, an int */
#define FIRST_RETRY_WAIT_MS 1000              /* then twice as long before each further retry */
#define MAX_RETRY_WAIT_MS 600000              /* 10 minutes */

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
  int verbose;          /* -1: not given */
  int retries;          /* -1: not given */
  int retrySecs;        /* -1: not given */
  const char* checksum; /* <Method>:<Value> */
  tobasSMALL_BUF checksumMethod;
  tobasRETRIEVE_OPTS retrieve;
  tobasPAR_ARRAY pars;
} Options;

/* Every wrong command line or parameter is reported this way. */
static void complain(const char* fmt, va_list ap) {
  fprintf(stderr, "%s: ", TOOL);
  vfprintf(stderr, fmt, ap);
  fprintf(stderr, "\n%s: try '%s -help'\n", TOOL, TOOL);
}

__attribute__((format(printf, 1, 2))) static int usage(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  complain(fmt, ap);
  va_end(ap);
  return EXIT_USAGE;
}

__attribute__((format(printf, 1, 2))) static int refuse(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  complain(fmt, ap);
  va_end(ap);
  return WRONG_PARAMETER;
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
  if (errno != 0 || end == text || *end != '\0' || !(v == v) || v > MAX_TIMEOUT_SECS) return -1;
  *out = v;
  return 0;
}

/* ------------------------------------------------------------------ command line */

/* Options are spelt with one dash (-host); two (--host) are taken as well. */
static const char* optionName(const char* arg) {
  return strncmp(arg, "--", 2) == 0 && arg[2] != '\0' && arg[2] != '-' ? arg + 1 : arg;
}

static void printManPage(void) { fputs(tobasManPage(), stdout); }
static void printVersion(void) { printf("%s %s (%s)\n", TOOL, tobasVersion(), tobasVersionDate()); }
static void printLicense(void) { fputs(tobasLicense(), stdout); }

/* Options that print something and end the tool. */
static const struct {
  const char* name;
  void (*print)(void);
} kInfoOptions[] = {
    {"-help", printManPage}, {"-h", printManPage}, {"-version", printVersion}, {"-license", printLicense}};

typedef enum { OPT_TEXT, OPT_INT, OPT_SECONDS, OPT_SET, OPT_CLEAR } OptionKind;

typedef struct {
  const char* name;
  OptionKind kind;
  size_t field;        /* offset of the field in Options */
  const char* invalid; /* what a refused value is called */
  long lo, hi;         /* OPT_INT: the values taken */
} OptionDef;

static const OptionDef kOptions[] = {
    {"-host", OPT_TEXT, offsetof(Options, host), NULL, 0, 0},
    {"-port", OPT_INT, offsetof(Options, port), "invalid port", 1, MAX_PORT},
    {"-servers", OPT_TEXT, offsetof(Options, servers), NULL, 0, 0},
    {"-cmd", OPT_TEXT, offsetof(Options, cmd), NULL, 0, 0},
    {"-auth", OPT_TEXT, offsetof(Options, auth), NULL, 0, 0},
    {"-target", OPT_TEXT, offsetof(Options, target), NULL, 0, 0},
    {"-v", OPT_INT, offsetof(Options, verbose), "invalid verbose level", 0, MAX_VERBOSE_LEVEL},
    {"-timeOut", OPT_SECONDS, offsetof(Options, timeOut), "invalid time-out", 0, 0},
    {"-d", OPT_SET, offsetof(Options, printDoc), NULL, 0, 0},
    {"-status", OPT_SET, offsetof(Options, printStatus), NULL, 0, 0},
    {"-noWait", OPT_CLEAR, offsetof(Options, wait), NULL, 0, 0},
    {"-continue", OPT_SET, offsetof(Options, retrieve.resume), NULL, 0, 0},
    {"-retry", OPT_INT, offsetof(Options, retries), "invalid retry count", 0, MAX_RETRIES},
    {"-retry-max-time", OPT_INT, offsetof(Options, retrySecs), "invalid retry time in seconds", 0,
     MAX_RETRY_SECS},
    {"-checksum", OPT_TEXT, offsetof(Options, checksum), NULL, 0, 0},
};

/* Sets the option `opt` from argv[*i] (and the value after it, *i then moved on to it). */
static int setOption(Options* o, const OptionDef* opt, int argc, char** argv, int* i) {
  void* field = (char*)o + opt->field;
  if (opt->kind == OPT_SET || opt->kind == OPT_CLEAR) {
    *(int*)field = opt->kind == OPT_SET;
    return KEEP_GOING;
  }
  if (*i + 1 >= argc) return usage("%s needs a value", argv[*i]);
  const char* value = argv[++*i];
  switch (opt->kind) {
    case OPT_INT:
      if (parseInt(value, opt->lo, opt->hi, field) != 0)
        return usage("%s (%ld-%ld): %s", opt->invalid, opt->lo, opt->hi, value);
      break;
    case OPT_SECONDS:
      if (parseSeconds(value, field) != 0) return usage("%s: %s", opt->invalid, value);
      break;
    default:
      *(const char**)field = value;
      break;
  }
  return KEEP_GOING;
}

/* -par <Parameter> [-val <Val>] at argv[*i]. */
static int addPar(Options* o, int argc, char** argv, int* i) {
  if (*i + 1 >= argc) return usage("%s needs a value", argv[*i]);
  const char* name = argv[++*i];
  const char* val = "";
  if (*i + 2 < argc && strcmp(optionName(argv[*i + 1]), "-val") == 0) {
    val = argv[*i + 2];
    *i += 2;
  }
  if (o->pars.idx >= tobasMAX_PARS) return usage("more than %d parameters (at %s)", tobasMAX_PARS, name);
  if (tobasAddParAndVal(&o->pars, name, val) != 0)
    return usage("parameter or value too long: %.40s...", name);
  return KEEP_GOING;
}

static int checkServer(const Options* o) {
  if (o->cmd == NULL) return usage("no command given (-cmd)");
  if (o->servers == NULL && (o->host == NULL || o->port < 0))
    return usage("no server given: -host <Host> -port <Port>, or -servers <Host:Port>,...");
  if (o->servers != NULL && o->host != NULL) return usage("-host and -servers exclude each other");
  if (o->host != NULL && strlen(o->host) >= tobasMED_BUF_SIZE)
    return usage("host name too long: %.40s...", o->host);
  return KEEP_GOING;
}

/* Reads the command line into `o`. Returns KEEP_GOING, or the exit status: EXIT_SUCCESS after an
 * option that only prints, EXIT_USAGE for a wrong line (reported). */
static int parseArgs(int argc, char** argv, Options* o) {
  memset(o, 0, sizeof *o);
  o->port = -1;
  o->timeOut = NO_TIMEOUT;
  o->wait = 1;
  o->verbose = -1;
  o->retries = -1;
  o->retrySecs = -1;
  tobasResetParArray(&o->pars);
  if (argc < 2) return usage("no command given");
  for (int i = 1; i < argc; ++i) {
    const char* a = optionName(argv[i]);
    for (size_t k = 0; k < sizeof kInfoOptions / sizeof kInfoOptions[0]; ++k) {
      if (strcmp(a, kInfoOptions[k].name) != 0) continue;
      kInfoOptions[k].print();
      return EXIT_SUCCESS;
    }
    const OptionDef* opt = NULL;
    for (size_t k = 0; k < sizeof kOptions / sizeof kOptions[0] && opt == NULL; ++k)
      if (strcmp(a, kOptions[k].name) == 0) opt = &kOptions[k];
    int rc;
    if (opt != NULL)
      rc = setOption(o, opt, argc, argv, &i);
    else if (strcmp(a, "-par") == 0)
      rc = addPar(o, argc, argv, &i);
    else if (strcmp(a, "-val") == 0)
      rc = usage("%s must follow -par <Parameter>", a);
    else
      rc = usage("unknown option: %s", argv[i]);
    if (rc != KEEP_GOING) return rc;
  }
  return checkServer(o);
}

/* ------------------------------------------------------------------ parameters */

static const char* par(const Options* o, const char* name) { return tobasGetParVal(&o->pars, name); }

static int given(const char* value) { return value != NULL && *value != '\0'; }

/* The whole number a parameter holds (checked before the command runs), or `dflt`. */
static int intPar(const Options* o, const char* name, int dflt) {
  const char* v = par(o, name);
  int n = dflt;
  if (given(v)) parseInt(v, INT_MIN, INT_MAX, &n);
  return n;
}

typedef struct {
  const char* name;
  const char* required; /* what its value is, when the command cannot go without it */
  int isInt;
} Param;

#define TEXT_PAR(name) \
  { name, NULL, 0 }
#define INT_PAR(name) \
  { name, NULL, 1 }
#define NEEDED_PAR(name, what) \
  { name, what, 0 }
#define END_OF_PARAMS \
  { NULL, NULL, 0 }

/* 1 when every given parameter is one of `known`. */
static int onlyKnown(const Options* o, const Param* known) {
  for (int i = 0; i < o->pars.idx; ++i) {
    const Param* k = known;
    while (k->name != NULL && strcmp(o->pars.parArray[i], k->name) != 0) ++k;
    if (k->name == NULL) return 0;
  }
  return 1;
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
  int running;
  pthread_t thread;
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
    until.tv_sec += PROGRESS_PERIOD_SECS;
    pthread_cond_timedwait(&p->cond, &p->mutex, &until);
    if (p->done) break;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double secs = (double)(now.tv_sec - t0.tv_sec) + (double)(now.tv_nsec - t0.tv_nsec) / 1e9;
    long long moved = movedBytes() - start;
    if (moved < 0 || secs <= 0) continue;
    const double mib = (double)moved / BYTES_PER_MIB;
    fprintf(stderr, "\r%s: %.1f MiB in %.0f s (%.1f MiB/s)   ", TOOL, mib, secs, mib / secs);
    shown = 1;
  }
  pthread_mutex_unlock(&p->mutex);
  if (shown) fputc('\n', stderr);
  return NULL;
}

static void startProgress(Progress* p, int code) {
  pthread_mutex_init(&p->mutex, NULL);
  pthread_cond_init(&p->cond, NULL);
  p->done = 0;
  p->running = (code == tobasCMD_ARCHIVE || code == tobasCMD_RETRIEVE) && isatty(STDERR_FILENO) &&
               pthread_create(&p->thread, NULL, progressLoop, p) == 0;
}

static void stopProgress(Progress* p) {
  if (p->running) {
    pthread_mutex_lock(&p->mutex);
    p->done = 1;
    pthread_cond_signal(&p->cond);
    pthread_mutex_unlock(&p->mutex);
    pthread_join(p->thread, NULL);
  }
  pthread_cond_destroy(&p->cond);
  pthread_mutex_destroy(&p->mutex);
}

/* ------------------------------------------------------------------ commands */

/* One run of a command: what it was given, and where its outcome lands. */
typedef struct {
  const Options* o;
  tobasSTATUS* st;
  char* finalTarget; /* tobasBIG_BUF: the file a retrieval wrote */
} Call;

/* The server and time-out arguments that every command function begins with. */
#define SERVER(c) (c)->o->host, (c)->o->port, (c)->o->timeOut

static int runStatus(const Call* c) { return tobasStatus(SERVER(c), c->st); }

static int runExit(const Call* c) { return tobasExit(SERVER(c), c->o->wait, c->st); }

static int runOnline(const Call* c) { return tobasOnline(SERVER(c), c->o->wait, c->st); }

static int runOffline(const Call* c) {
  return tobasOffline(SERVER(c), intPar(c->o, "force", 0), c->o->wait, c->st);
}

static int runClone(const Call* c) {
  return tobasClone(SERVER(c), par(c->o, "file_id"), intPar(c->o, "file_version", -1), par(c->o, "disk_id"),
                    par(c->o, "target_disk_id"), c->o->wait, c->st);
}

static int runLabel(const Call* c) { return tobasLabel(SERVER(c), par(c->o, "slot_id"), c->st); }

static int runRegister(const Call* c) {
  return tobasRegister(SERVER(c), par(c->o, "path"), c->o->wait, c->st);
}

static int runRemDisk(const Call* c) {
  return tobasRemDisk(SERVER(c), par(c->o, "disk_id"), intPar(c->o, "execute", 0), c->st);
}

static int runRemFile(const Call* c) {
  return tobasRemFile(SERVER(c), par(c->o, "disk_id"), par(c->o, "file_id"), intPar(c->o, "file_version", -1),
                      intPar(c->o, "execute", 0), c->st);
}

static int runRestore(const Call* c) {
  return tobasRestore(SERVER(c), par(c->o, "filename"), par(c->o, "file_id"),
                      intPar(c->o, "file_version", -1), c->st);
}

static int runSubscribe(const Call* c) {
  return tobasSubscribe(SERVER(c), par(c->o, "url"), intPar(c->o, "priority", 1), par(c->o, "start_date"),
                        par(c->o, "filter_plug_in"), par(c->o, "plug_in_pars"), c->st);
}

static int runUnsubscribe(const Call* c) { return tobasUnsubscribe(SERVER(c), par(c->o, "url"), c->st); }

static int runRetrieve(const Call* c) {
  if (!given(par(c->o, "file_id")) && !given(par(c->o, "internal")))
    return refuse("RETRIEVE needs -par file_id -val <File Id>");
  const Options* o = c->o;
  const char* target = o->target ? o->target : "";
  /* Without -continue, -retry and -checksum the plain call, whose request is the plain retrieval's. */
  if (!o->retrieve.resume && o->checksum == NULL && o->retries < 0)
    return tobasGenRetrieve2File(SERVER(c), tobasCMD_RETRIEVE, &o->pars, target, c->finalTarget, c->st);
  return tobasGenRetrieve2FileOpts(SERVER(c), tobasCMD_RETRIEVE, &o->pars, target, c->finalTarget,
                                   &o->retrieve, c->st);
}

static const Param kArchivePars[] = {NEEDED_PAR("filename", "File or URL"), TEXT_PAR("mime_type"),
                                     INT_PAR("no_versioning"), END_OF_PARAMS};

static int addIntPar(tobasPAR_ARRAY* pars, const char* name, int value) {
  char text[3 * sizeof(int) + 2];
  snprintf(text, sizeof text, "%d", value);
  return tobasAddParAndVal(pars, name, text);
}

static int isArchivePar(const char* name) {
  for (const Param* k = kArchivePars; k->name != NULL; ++k)
    if (strcmp(name, k->name) == 0) return 1;
  return 0;
}

/* A time-out as tobasArchive sends it: whole seconds, rounded, or -1 for none. */
static int wholeSeconds(float secs) { return secs == NO_TIMEOUT ? -1 : (int)(secs + 0.5f); }

static int runArchive(const Call* c) {
  const char* file = par(c->o, "filename");
  const char* mime = par(c->o, "mime_type");
  const int noVersioning = intPar(c->o, "no_versioning", 0);
  if (onlyKnown(c->o, kArchivePars))
    return tobasArchive(SERVER(c), file, mime ? mime : "", noVersioning, c->o->wait, c->st);
  /* Further parameters travel with the archive request, after the ones tobasArchive sends. */
  tobasPAR_ARRAY all;
  tobasResetParArray(&all);
  int rc = addIntPar(&all, "no_versioning", noVersioning) | addIntPar(&all, "wait", c->o->wait) |
           addIntPar(&all, "time_out", wholeSeconds(c->o->timeOut));
  for (int i = 0; i < c->o->pars.idx && rc == 0; ++i)
    if (!isArchivePar(c->o->pars.parArray[i]))
      rc = tobasAddParAndVal(&all, c->o->pars.parArray[i], c->o->pars.valArray[i]);
  if (rc != 0) return refuse("ARCHIVE: more than %d parameters with the 3 it adds", tobasMAX_PARS);
  return tobasGenSendData(c->o->host, c->o->port, tobasCMD_ARCHIVE, c->o->timeOut, file, mime ? mime : "",
                          &all, c->st);
}

static const Param kNoPars[] = {END_OF_PARAMS};
static const Param kClonePars[] = {TEXT_PAR("file_id"), INT_PAR("file_version"), TEXT_PAR("disk_id"),
                                   TEXT_PAR("target_disk_id"), END_OF_PARAMS};
static const Param kOfflinePars[] = {INT_PAR("force"), END_OF_PARAMS};
static const Param kLabelPars[] = {NEEDED_PAR("slot_id", "Slot"), END_OF_PARAMS};
static const Param kRegisterPars[] = {NEEDED_PAR("path", "Path"), END_OF_PARAMS};
static const Param kRemDiskPars[] = {NEEDED_PAR("disk_id", "Disk"), INT_PAR("execute"), END_OF_PARAMS};
static const Param kRemFilePars[] = {NEEDED_PAR("disk_id", "Disk"), NEEDED_PAR("file_id", "File Id"),
                                     INT_PAR("file_version"), INT_PAR("execute"), END_OF_PARAMS};
static const Param kRestorePars[] = {NEEDED_PAR("filename", "URI"), TEXT_PAR("file_id"),
                                     INT_PAR("file_version"), END_OF_PARAMS};
static const Param kRetrievePars[] = {
    TEXT_PAR("file_id"),    TEXT_PAR("internal"),        INT_PAR("file_version"),
    TEXT_PAR("processing"), TEXT_PAR("processing_pars"), TEXT_PAR("host_id"),
    END_OF_PARAMS};
static const Param kSubscribePars[] = {NEEDED_PAR("url", "URL"), INT_PAR("priority"),
                                       TEXT_PAR("start_date"),   TEXT_PAR("filter_plug_in"),
                                       TEXT_PAR("plug_in_pars"), END_OF_PARAMS};
static const Param kUrlPars[] = {NEEDED_PAR("url", "URL"), END_OF_PARAMS};

/* The commands that have a function of their own. With a parameter it does not know, a command
 * goes through the generic sender, unless it takes other parameters along. */
static const struct {
  int code;
  const Param* params;
  int takesOthers;
  int (*run)(const Call* c);
} kCommands[] = {
    {tobasCMD_STATUS, kNoPars, 0, runStatus},
    {tobasCMD_EXIT, kNoPars, 0, runExit},
    {tobasCMD_ONLINE, kNoPars, 0, runOnline},
    {tobasCMD_OFFLINE, kOfflinePars, 0, runOffline},
    {tobasCMD_CLONE, kClonePars, 0, runClone},
    {tobasCMD_LABEL, kLabelPars, 0, runLabel},
    {tobasCMD_REGISTER, kRegisterPars, 0, runRegister},
    {tobasCMD_REMDISK, kRemDiskPars, 0, runRemDisk},
    {tobasCMD_REMFILE, kRemFilePars, 0, runRemFile},
    {tobasCMD_RESTORE, kRestorePars, 0, runRestore},
    {tobasCMD_SUBSCRIBE, kSubscribePars, 0, runSubscribe},
    {tobasCMD_UNSUBSCRIBE, kUrlPars, 0, runUnsubscribe},
    {tobasCMD_ARCHIVE, kArchivePars, 1, runArchive},
    {tobasCMD_RETRIEVE, kRetrievePars, 1, runRetrieve},
};

/* Runs the command; returns the library's result, or WRONG_PARAMETER (reported). */
static int runCommand(const Call* c, int code) {
  size_t k = 0;
  const size_t count = sizeof kCommands / sizeof kCommands[0];
  while (k < count && kCommands[k].code != code) ++k;
  if (k == count || (!kCommands[k].takesOthers && !onlyKnown(c->o, kCommands[k].params)))
    return tobasGenSendCmd(SERVER(c), code, &c->o->pars, c->st);
  for (const Param* p = kCommands[k].params; p->name != NULL; ++p) {
    const char* v = par(c->o, p->name);
    int n;
    if (p->required != NULL && !given(v))
      return refuse("%s needs -par %s -val <%s>", c->o->cmd, p->name, p->required);
    if (p->isInt && given(v) && parseInt(v, INT_MIN, INT_MAX, &n) != 0)
      return refuse("parameter %s: not a number: %s", p->name, v);
  }
  return kCommands[k].run(c);
}

/* ------------------------------------------------------------------ main */

/* -checksum <Method>:<Value> into the retrieval's options. */
static int setChecksum(Options* o) {
  if (o->checksum == NULL) return KEEP_GOING;
  const char* colon = strchr(o->checksum, ':');
  if (colon != NULL)
    snprintf(o->checksumMethod, sizeof o->checksumMethod, "%.*s", (int)(colon - o->checksum), o->checksum);
  if (colon == NULL || colon[1] == '\0' || !tobasChecksumMethodKnown(o->checksumMethod))
    return usage("invalid checksum: %s (<Method>:<Value>, the method one of crc32, md5, sha256)",
                 o->checksum);
  o->retrieve.checksumMethod = o->checksumMethod;
  o->retrieve.checksum = colon + 1;
  return KEEP_GOING;
}

/* The command's code, its name in upper case into `name` (tobasSMALL_BUF), and the settings it
 * runs with. Returns KEEP_GOING or EXIT_USAGE (reported). */
static int prepare(Options* o, char* name, int* code) {
  if (strlen(o->cmd) >= tobasSMALL_BUF_SIZE) return usage("unknown command: %.40s...", o->cmd);
  strcpy(name, o->cmd);
  tobasToUpper(name);
  if (tobasCmd2No(name, code) != 0) return usage("unknown command: %s", o->cmd);
  o->cmd = name;
  /* The options that only some commands take. */
  const int retrieving = *code == tobasCMD_RETRIEVE, retriable = retrieving || *code == tobasCMD_STATUS;
  const struct {
    int given, taken;
    const char* otherwise;
  } limited[] = {
      {o->target != NULL, retrieving, "-target only goes with RETRIEVE"},
      {o->retrieve.resume, retrieving, "-continue only goes with RETRIEVE"},
      {o->checksum != NULL, retrieving, "-checksum only goes with RETRIEVE"},
      {o->retries >= 0, retriable, "-retry only goes with RETRIEVE and STATUS"},
      {o->retrySecs >= 0, o->retries >= 0, "-retry-max-time needs -retry"},
  };
  for (size_t k = 0; k < sizeof limited / sizeof limited[0]; ++k)
    if (limited[k].given && !limited[k].taken) return usage("%s", limited[k].otherwise);
  const int rc = setChecksum(o);
  if (rc != KEEP_GOING) return rc;
  if (o->servers != NULL) {
    if (tobasParseSrvList(o->servers) != 0) return usage("invalid server list: %s", o->servers);
    o->host = ""; /* the default list: fail-over across its servers */
    o->port = 0;
  }
  if (o->verbose >= 0) tobasSetVerboseLevel(o->verbose);
  if (o->auth != NULL) tobasSetAuthorization(o->auth);
  if (o->retries >= 0)
    tobasSetRetryPolicy(o->retries + 1, FIRST_RETRY_WAIT_MS, MAX_RETRY_WAIT_MS,
                        (o->retrySecs > 0 ? o->retrySecs : 0) * MS_PER_SEC);
  return KEEP_GOING;
}

/* Prints the outcome; returns the exit status. */
static int report(const Options* o, int code, int rc, const tobasSTATUS* st, const char* finalTarget) {
  if (o->printStatus) tobasDumpStatStdout(st);
  if (o->printDoc && st->replyData[0] != NULL) printf("%s\n", st->replyData[0]);
  /* A retrieval reports "OK" on success. */
  const int ok = rc == 0 && (tobasSuccess(st) || strcmp(st->status, "OK") == 0);
  if (ok) {
    if (code == tobasCMD_RETRIEVE) printf("%s\n", finalTarget);
    return EXIT_SUCCESS;
  }
  char codeText[tobasHUGE_BUF_SIZE];
  const char* why = st->message[0] ? st->message : (tobasStat2Str(rc, codeText) == 0 ? codeText : "failed");
  fprintf(stderr, "%s: %s failed: %s (status %s, code %d)\n", TOOL, o->cmd, why,
          st->status[0] ? st->status : "-", rc != 0 ? rc : (int)st->errorCode);
  return EXIT_FAILED;
}

int main(int argc, char** argv) {
  Options o;
  int rc = parseArgs(argc, argv, &o);
  if (rc != KEEP_GOING) return rc;
  char name[tobasSMALL_BUF_SIZE];
  int code = 0;
  rc = prepare(&o, name, &code);
  if (rc != KEEP_GOING) return rc;

  tobasSTATUS st;
  tobasInitStatus(&st);
  tobasBIG_BUF finalTarget = "";
  const Call call = {&o, &st, finalTarget};
  Progress progress;
  startProgress(&progress, code);
  rc = runCommand(&call, code);
  stopProgress(&progress);
  rc = rc == WRONG_PARAMETER ? EXIT_USAGE : report(&o, code, rc, &st, finalTarget);
  tobasFreeStatus(&st);
  return rc;
}
