/* The retry policy of retrievals and STATUS: which failures are worth another attempt, and how long
 * to wait before it. Waits grow by doubling, each drawn at random below its cap on top of the
 * server's Retry-After, so that clients that a busy server turned away together do not all come
 * back in the same moment. */
#define _GNU_SOURCE
#include <ctype.h>
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "tobasInternal.h"

#define LONGEST_RETRY_AFTER_SECS 86400 /* a longer Retry-After is taken as a day */

static pthread_mutex_t policyMutex = PTHREAD_MUTEX_INITIALIZER;
static int policy[4] = {1, 0, 0, 0}; /* maxAttempts, firstDelayMs, maxDelayMs, deadlineMs */

int tobasSetRetryPolicy(int maxAttempts, int firstDelayMs, int maxDelayMs, int deadlineMs) {
  tobasTraceEnter("tobasSetRetryPolicy");
  if (maxAttempts < 1 || firstDelayMs < 0 || maxDelayMs < firstDelayMs || deadlineMs < 0) {
    tobasLogError("Illegal retry policy: %d attempts, waits of %d to %d ms, deadline %d ms", maxAttempts,
                  firstDelayMs, maxDelayMs, deadlineMs);
    return tobasTraceLeave("tobasSetRetryPolicy", tobasERR_INV_PARS);
  }
  pthread_mutex_lock(&policyMutex);
  policy[0] = maxAttempts;
  policy[1] = firstDelayMs;
  policy[2] = maxDelayMs;
  policy[3] = deadlineMs;
  pthread_mutex_unlock(&policyMutex);
  return tobasTraceLeave("tobasSetRetryPolicy", tobasSTAT_SUCCESS);
}

void tobasGetRetryPolicy(int* maxAttempts, int* firstDelayMs, int* maxDelayMs, int* deadlineMs) {
  int* out[4] = {maxAttempts, firstDelayMs, maxDelayMs, deadlineMs};
  pthread_mutex_lock(&policyMutex);
  for (int i = 0; i < 4; ++i)
    if (out[i] != NULL) *out[i] = policy[i];
  pthread_mutex_unlock(&policyMutex);
}

void tobasRetryBegin(tobasRetry* r) {
  tobasGetRetryPolicy(&r->maxAttempts, &r->firstDelayMs, &r->maxDelayMs, &r->deadlineMs);
  r->attempts = 1;
  r->start = tobasNow();
}

/* A reply that says the server may answer later, or a transfer that failed on the way. */
static int retryable(int stat, int httpStatus) {
  switch (httpStatus) {
    case 408:
    case 429:
    case 500:
    case 502:
    case 503:
    case 504:
      return 1;
    case 0:
    case tobasSRV_OK:
    case tobasSRV_PARTIAL:
      break;
    default:
      return 0;
  }
  /* tobasSTAT_FAILURE: every server of a list failed. */
  return stat == tobasERR_CON || stat == tobasERR_COM || stat == tobasERR_TIMEOUT || stat == tobasERR_WR_HD ||
         stat == tobasERR_RD_DATA || stat == tobasSTAT_FAILURE;
}

long _tobasRetryAfterMs(const char* value) {
  char* end;
  const long secs = strtol(value, &end, 10);
  if (!isdigit((unsigned char)value[0]) || (*end != '\0' && !isspace((unsigned char)*end))) return 0;
  return 1000L * (secs < LONGEST_RETRY_AFTER_SECS ? secs : LONGEST_RETRY_AFTER_SECS);
}

/* The reply's Retry-After in ms, 0 without one. */
static long retryAfterMs(tobasHTTP_HDR hdr) {
  tobasMED_BUF value;
  return hdr != NULL && tobasGetHttpHdrEntry(hdr, "retry-after", "", value) == 0 ? _tobasRetryAfterMs(value)
                                                                                 : 0;
}

static void sleepMs(long ms) {
  struct timespec left = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

int tobasRetryAgain(tobasRetry* r, int stat, int httpStatus, tobasHTTP_HDR hdr, int* conn) {
  if (r->attempts >= r->maxAttempts || !retryable(stat, httpStatus)) return 0;
  long cap = r->firstDelayMs;
  for (int k = 1; k < r->attempts && cap < r->maxDelayMs; ++k) cap *= 2;
  if (cap > r->maxDelayMs) cap = r->maxDelayMs;
  const long wait = retryAfterMs(httpStatus != 0 ? hdr : NULL) + (long)arc4random_uniform((uint32_t)cap + 1);
  const double elapsedMs = (tobasNow() - r->start) * 1e3;
  if (r->deadlineMs > 0 && elapsedMs + (double)wait > r->deadlineMs) {
    tobasLogError("No retry after attempt %d: the next would start after the deadline of %d ms", r->attempts,
                  r->deadlineMs);
    return 0;
  }
  tobasLogWarning("Attempt %d of %d failed (status %d, reply %d); next attempt in %ld ms", r->attempts,
                  r->maxAttempts, stat, httpStatus, wait);
  if (*conn > 0) close(*conn);
  *conn = 0;
  sleepMs(wait);
  ++r->attempts;
  return 1;
}
