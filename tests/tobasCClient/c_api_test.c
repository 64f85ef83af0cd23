/* Compiled as C: the public header and a few calls of the library. Exit code 0 = pass. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tobasCClient/tobasCClientLib.h>

#define CHECK(cond) failures += !(cond) && fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond)

int main(void) {
  int failures = 0;
  char dir[] = "/tmp/tobas-c-XXXXXX", logFile[tobasBIG_BUF_SIZE];
  if (mkdtemp(dir) == NULL) return 1;
  snprintf(logFile, sizeof logFile, "%s/c.log", dir);
  CHECK(tobasPrepLog(logFile, LEV5, -1, -1) == 0);
  CHECK(_getTimeOut() == 100000.0f); /* never set */
  tobasSTATUS st;
  tobasInitStatus(&st);
  /* An IPv6 literal has no IPv4 address: the lookup fails without asking any resolver. */
  CHECK(tobasStatus("::1", 80, 1.0f, &st) == tobasERR_HOST);
  CHECK(strcmp(st.status, "FAILURE") == 0);
  tobasFreeStatus(&st);
  char* loaded = NULL;
  CHECK(tobasLoadFile(logFile, &loaded, NULL) == 0 &&
        strstr(loaded, "[DEBUG] Entering tobasStatus()") != NULL);
  free(loaded);
  remove(logFile);
  remove(dir);
  return failures == 0 ? 0 : 1;
}
