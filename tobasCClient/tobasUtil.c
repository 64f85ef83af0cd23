/* String, time, file and host helpers of the archive client library. */
#define _GNU_SOURCE
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

int tobasCopyStr(char* dst, size_t size, const char* src) {
  if (size == 0) return TOBAS_TRUNCATED;
  size_t len = strlen(src);
  if (len >= size) {
    memcpy(dst, src, size - 1);
    dst[size - 1] = '\0';
    return TOBAS_TRUNCATED;
  }
  memcpy(dst, src, len + 1);
  return 0;
}

int tobasAppendf(char* buf, size_t size, const char* format, ...) {
  size_t used = strnlen(buf, size);
  if (used >= size) return TOBAS_TRUNCATED;
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(buf + used, size - used, format, ap);
  va_end(ap);
  return n < 0 || (size_t)n >= size - used ? TOBAS_TRUNCATED : 0;
}

int tobasWriteAll(int fd, const char* buf, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, buf, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    buf += n;
    len -= (size_t)n;
  }
  return 0;
}

double tobasNow(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int tobasSplitFilename(const char* complPath, char* path, char* filename) {
  tobasTraceEnter("tobasSplitFilename");
  const char* slash = strrchr(complPath, '/');
  size_t dirLen = slash == NULL        ? 0
                  : slash == complPath ? 1
                                       : (size_t)(slash - complPath); /* "/" keeps its slash */
  if (dirLen >= tobasBIG_BUF_SIZE) return tobasTraceLeave("tobasSplitFilename", tobasSTAT_FAILURE);
  memcpy(path, slash == NULL ? "." : complPath, slash == NULL ? 1 : dirLen);
  path[slash == NULL ? 1 : dirLen] = '\0';
  int fits = tobasCopyStr(filename, tobasBIG_BUF_SIZE, slash == NULL ? complPath : slash + 1) == 0;
  return tobasTraceLeave("tobasSplitFilename", fits ? tobasSTAT_SUCCESS : tobasSTAT_FAILURE);
}

/* No traces here: every log line calls this function. */
int tobasGenIsoTime(int precision, char* isoTime) {
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov"};
  struct timeval tv;
  gettimeofday(&tv, NULL);
  time_t secs = tv.tv_sec;
  struct tm tmv;
  char asc[64];
  gmtime_r(&secs, &tmv);
  if (asctime_r(&tmv, asc) == NULL) {
    isoTime[0] = '\0';
    return tobasSTAT_FAILURE;
  }
  /* "Www Mmm dd hh:mm:ss yyyy\n" split on blanks */
  char* pieces[5] = {"", "", "", "", ""};
  char* save = NULL;
  int n = 0;
  for (char* tok = strtok_r(asc, " ", &save); tok != NULL && n < 5; tok = strtok_r(NULL, " ", &save))
    pieces[n++] = tok;
  const char* month = "12";
  static const char* const numbers[] = {"01", "02", "03", "04", "05", "06", "07", "08", "09", "10", "11"};
  for (int i = 0; i < 11; ++i) {
    if (strstr(pieces[1], months[i]) != NULL) {
      month = numbers[i];
      break;
    }
  }
  int day = atoi(pieces[2]);
  char dayStr[16];
  snprintf(dayStr, sizeof dayStr, day < 10 ? "0%d" : "%d", day);
  char* year = pieces[4];
  char* nl = strchr(year, '\n');
  if (nl) *nl = '\0';
  snprintf(isoTime, tobasSMALL_BUF_SIZE, "%s-%s-%sT%s", year, month, dayStr, pieces[3]);
  if (precision != 0) {
    if (precision < 0) precision = 0;
    if (precision > 9) precision = 9;
    char fmt[16], frac[32];
    snprintf(fmt, sizeof fmt, "%%.%df", precision);
    snprintf(frac, sizeof frac, fmt, (double)tv.tv_usec / 1e6);
    tobasAppendf(isoTime, tobasSMALL_BUF_SIZE, "%s", frac + 1); /* drop the leading "0" */
  }
  return tobasSTAT_SUCCESS;
}

int tobasTrimString(char* str, const char* trimChars) {
  tobasTraceEnter("tobasTrimString");
  size_t len = strlen(str);
  while (len > 0 && strchr(trimChars, str[len - 1]) != NULL) str[--len] = '\0';
  size_t start = 0;
  while (start < len && strchr(trimChars, str[start]) != NULL) ++start;
  if (start > 0) memmove(str, str + start, len - start + 1);
  return tobasTraceLeave("tobasTrimString", tobasSTAT_SUCCESS);
}

int tobasToUpper(char* str) {
  tobasTraceEnter("tobasToUpper");
  for (; *str; ++str) *str = (char)toupper((unsigned char)*str);
  return tobasTraceLeave("tobasToUpper", tobasSTAT_SUCCESS);
}

char* tobasStrRStr(const char* str, const char* subStr) {
  tobasTraceEnter("tobasStrRStr");
  const char* last = *subStr == '\0' ? str + strlen(str) : NULL;
  for (const char* p = *subStr ? strstr(str, subStr) : NULL; p != NULL; p = strstr(p + 1, subStr)) last = p;
  tobasTraceLeave("tobasStrRStr", last != NULL ? tobasSTAT_SUCCESS : tobasSTAT_FAILURE);
  return (char*)last;
}

int tobasLoadFile(const char* filename, char** buf, size_t* size) {
  tobasTraceEnter("tobasLoadFile");
  *buf = NULL;
  if (size) *size = 0;
  tobasLogInfo(LEV4, "Opening/loading file: %s ...", filename);
  int fd = open(filename, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return tobasTraceLeave("tobasLoadFile", tobasERR_FILE);
  }
  size_t cap = 64 * 1024, len = 0;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) cap = (size_t)st.st_size + 1;
  char* data = malloc(cap);
  int stat = tobasSTAT_SUCCESS;
  while (data != NULL) {
    if (len + 1 >= cap) {
      char* bigger = realloc(data, cap * 2);
      if (bigger == NULL) {
        free(data);
        data = NULL;
        break;
      }
      data = bigger;
      cap *= 2;
    }
    ssize_t n = read(fd, data + len, cap - len - 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      stat = tobasERR_FILE;
      break;
    }
    if (n == 0) break;
    len += (size_t)n;
  }
  close(fd);
  if (data == NULL) stat = tobasERR_ALLOC_MEM;
  if (stat != tobasSTAT_SUCCESS) {
    free(data);
    return tobasTraceLeave("tobasLoadFile", stat);
  }
  data[len] = '\0';
  *buf = data;
  if (size) *size = len;
  tobasLogInfo(LEV4, "Opened/loaded file: %s", filename);
  return tobasTraceLeave("tobasLoadFile", tobasSTAT_SUCCESS);
}

int tobasSaveInFile(const char* filename, const char* buf, size_t size) {
  tobasTraceEnter("tobasSaveInFile");
  int fd = open(filename, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  int stat = tobasSTAT_SUCCESS;
  if (fd == -1) {
    stat = tobasERR_FILE;
  } else {
    if (tobasWriteAll(fd, buf, size) != 0) stat = tobasERR_FILE;
    if (close(fd) != 0) stat = tobasERR_FILE;
  }
  return tobasTraceLeave("tobasSaveInFile", stat);
}

int tobasIsDir(const char* path) {
  tobasTraceEnter("tobasIsDir");
  struct stat st;
  int dir = path != NULL && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
  tobasTraceLeave("tobasIsDir", tobasSTAT_SUCCESS);
  return dir;
}

int tobasGetHostName(char* hostName) {
  tobasTraceEnter("tobasGetHostName");
  const char* name = getenv("HOSTNAME");
  if (name == NULL) name = getenv("HOST");
  hostName[0] = '\0';
  int fits = name != NULL && tobasCopyStr(hostName, tobasMED_BUF_SIZE, name) == 0;
  return tobasTraceLeave("tobasGetHostName", fits ? tobasSTAT_SUCCESS : tobasSTAT_FAILURE);
}

/* A fixed text, with the function's traces. */
static const char* traced(const char* fn, const char* text) {
  tobasTraceEnter(fn);
  tobasTraceLeave(fn, tobasSTAT_SUCCESS);
  return text;
}

const char* tobasVersion(void) { return traced("tobasVersion", "v3.1.1"); }

const char* tobasVersionDate(void) { return traced("tobasVersionDate", "2007-07-12T10:30:00"); }

const char* tobasLicense(void) {
  return traced(
      "tobasLicense",
      "TOB/AS C-API - archive server client library.\n"
      "\n"
      "Redistribution and use in source and binary forms, with or without modification, are\n"
      "permitted provided that the following conditions are met:\n"
      "\n"
      "1. Redistributions of source code must retain the above copyright notice, this list of\n"
      "   conditions and the following disclaimer.\n"
      "2. Redistributions in binary form must reproduce the above copyright notice, this list of\n"
      "   conditions and the following disclaimer in the documentation and/or other materials\n"
      "   provided with the distribution.\n"
      "3. The name of the author may not be used to endorse or promote products derived from this\n"
      "   software without specific prior written permission.\n"
      "\n"
      "THIS SOFTWARE IS PROVIDED ``AS IS'' AND ANY EXPRESS OR IMPLIED WARRANTIES, INCLUDING, BUT NOT\n"
      "LIMITED TO, THE IMPLIED WARRANTIES OF MERCHANTABILITY AND FITNESS FOR A PARTICULAR PURPOSE ARE\n"
      "DISCLAIMED. IN NO EVENT SHALL THE AUTHOR BE LIABLE FOR ANY DIRECT, INDIRECT, INCIDENTAL,\n"
      "SPECIAL, EXEMPLARY, OR CONSEQUENTIAL DAMAGES ARISING IN ANY WAY OUT OF THE USE OF THIS\n"
      "SOFTWARE, EVEN IF ADVISED OF THE POSSIBILITY OF SUCH DAMAGE.\n");
}

const char* tobasManPage(void) {
  return traced(
      "tobasManPage",
      "NAME\n"
      "  tobasCClient - send a command to an archive server\n"
      "\n"
      "SYNOPSIS\n"
      "  tobasCClient -host <Host> -port <Port> -cmd <Command> [options] [-par <Parameter> [-val <Val>]] "
      "...\n"
      "  tobasCClient -servers <Host:Port>,... -cmd <Command> [options] [-par <Parameter> [-val <Val>]] "
      "...\n"
      "  tobasCClient -version | -license | -help\n"
      "\n"
      "DESCRIPTION\n"
      "  Sends one command to an archive server over its HTTP command protocol and reports the\n"
      "  status the server returns. Parameters are given as -par <Parameter> -val <Val> pairs\n"
      "  (-val may be left out for a parameter without a value), at most 16. The parameters a\n"
      "  command knows are listed below; with any other parameter, and for INIT, the command is\n"
      "  sent in the generic form: the command name followed by &<Parameter>=\"<Val>\" for each pair.\n"
      "\n"
      "COMMANDS\n"
      "  ARCHIVE      archive a file. filename: a local file, sent in the request body, or a\n"
      "               file:, http: or ftp: URL that the server fetches; mime_type; no_versioning (0/1).\n"
      "               Further parameters are passed on with the request.\n"
      "  CLONE        copy files to another disk: file_id, file_version, disk_id, target_disk_id\n"
      "  EXIT         make the server terminate\n"
      "  INIT         make the server initialise itself again\n"
      "  LABEL        print a disk label: slot_id\n"
      "  ONLINE       bring the server online\n"
      "  OFFLINE      bring the server offline: force (0/1)\n"
      "  REGISTER     register the files found under a path: path\n"
      "  REMDISK      remove a disk: disk_id, execute (0/1, default 0: only report)\n"
      "  REMFILE      remove a file: disk_id, file_id, file_version, execute (0/1)\n"
      "  RESTORE      restore a file: filename, file_id, file_version\n"
      "  RETRIEVE     fetch a file: file_id (or internal), file_version, processing,\n"
      "               processing_pars, host_id. Written to -target, a file or a folder (the\n"
      "               server names the file), by default into the working folder; the path\n"
      "               written is printed on success. -continue, -retry and -checksum make it\n"
      "               go on from a partial file, try again and check what arrived.\n"
      "  STATUS       report the state of the server\n"
      "  SUBSCRIBE    subscribe to new data: url, priority, start_date, filter_plug_in, plug_in_pars\n"
      "  UNSUBSCRIBE  cancel a subscription: url\n"
      "\n"
      "OPTIONS\n"
      "  -host <Host>          server host (an IP address or a name)\n"
      "  -port <Port>          server port\n"
      "  -servers <List>       comma-separated <Host>:<Port> list; when a server does not answer,\n"
      "                        the next one is tried, starting one further on each command\n"
      "  -cmd <Command>        the command (upper or lower case)\n"
      "  -auth <Access Code>   access code sent in an Authorization header\n"
      "  -par <Parameter> [-val <Val>]  a parameter of the command and its value\n"
      "  -target <File|Dir>    where RETRIEVE writes the file\n"
      "  -timeOut <Secs>       reply time-out in seconds (default: none)\n"
      "  -noWait               ask the server to reply before the command has completed\n"
      "  -continue             RETRIEVE: go on from the end of <final name>.part when there is\n"
      "                        one, and keep what arrived there when the retrieval fails\n"
      "  -retry <N>            RETRIEVE and STATUS: up to N more attempts (0-1000) after a\n"
      "                        connection error, a time-out, a reply cut short or a reply 408,\n"
      "                        429, 500, 502, 503 or 504. Before retry k the tool waits what the\n"
      "                        server asks for (Retry-After) plus a random share of\n"
      "                        min(2^(k-1) s, 10 min)\n"
      "  -retry-max-time <Secs>  with -retry: start no retry later than this after the command\n"
      "                        began (0: no limit)\n"
      "  -checksum <Method>:<Value>  RETRIEVE: the expected checksum of the file: md5 or sha256\n"
      "                        and hex digits, or crc32 and a decimal number or 0x and hex\n"
      "                        digits. A mismatch fails the retrieval and leaves no file\n"
      "  -status               print the status returned by the server\n"
      "  -d                    print the status document returned by the server\n"
      "  -v <Level>            echo the client's log lines of level 0-5 on standard output\n"
      "  -version              print the version of the client library\n"
      "  -license              print the licence notice\n"
      "  -help                 print this page\n"
      "  Each option may also be written with two dashes (--retry).\n"
      "\n"
      "EXIT STATUS\n"
      "  0 when the server reports success, 1 when the command fails (the reason on standard\n"
      "  error), 2 for a wrong command line. Long transfers show their progress on standard error\n"
      "  when it is a terminal.\n"
      "\n"
      "ENVIRONMENT\n"
      "  TOBAS_LOG_FILE, TOBAS_LOG_LEVEL, TOBAS_VERBOSE_LEVEL: the client's log file and levels.\n"
      "  PWD: the working folder into which RETRIEVE writes by default.\n"
      "\n"
      "EXAMPLES\n"
      "  tobasCClient -host 127.0.0.1 -port 7777 -cmd STATUS -status\n"
      "  tobasCClient -servers arc1:7777,arc2:7777 -cmd ARCHIVE -par filename -val /data/x.fits\n"
      "  tobasCClient -host 127.0.0.1 -port 7777 -cmd RETRIEVE -par file_id -val X.2026-11-22 -target "
      "/tmp\n"
      "  tobasCClient -host 127.0.0.1 -port 7777 -cmd RETRIEVE -par file_id -val X.2026-11-22 -continue\n"
      "    -retry 5 -retry-max-time 3600 -checksum crc32:0x1c291ca3\n");
}
