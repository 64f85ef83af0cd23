/* Compiled as C: the public header and a few calls of the library. Exit code 0 = pass. */
#include <stdio.h>
#include <string.h>

#include <tobasCClient/tobasCClientLib.h>

#define CHECK(cond) failures += !(cond) && fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond)

int main(void) {
  int failures = 0, level = -1;
  tobasGetLogSettings(NULL, &level, NULL, NULL, NULL);
  CHECK(level == 3);                 /* TOBAS_LOG_LEVEL, read on first use */
  CHECK(_getTimeOut() == 100000.0f); /* never set */
  tobasSTATUS st;
  tobasInitStatus(&st);
  /* An IPv6 literal has no IPv4 address: the lookup fails without asking any resolver. */
  CHECK(tobasStatus("::1", 80, 1.0f, &st) == tobasERR_HOST);
  CHECK(strcmp(st.status, "FAILURE") == 0);
  tobasFreeStatus(&st);
  return failures == 0 ? 0 : 1;
}
