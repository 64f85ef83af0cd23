/* Checksums of retrieved files: CRC-32 from ISA-L, MD5 and SHA-256 from OpenSSL's libcrypto. A
 * retrieval hands the pieces of the body over as they are written; a thread of the sum hashes them
 * while the next ones are read from the network, so that the check costs the transfer little as
 * long as the hash keeps pace with the network. libcrypto's SHA-256 runs on the processor's SHA
 * instructions, some 8% faster than nettle's: over a fast link hashing competes with the transfer
 * for the processor, and that shows. */
#define _GNU_SOURCE
#include <ctype.h>
#include <isa-l/crc.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tobasInternal.h"

/* CRC-32 keeps pace with the network in the receiving thread, on bytes still in the cache (ISA-L
 * folds it with carry-less multiplies); handing its pieces to a thread costs more than it saves.
 * MD5 and SHA-256 are slower than a fast link and get a thread of their own. */
static const struct {
  const char* name;
  const EVP_MD* (*md)(void); /* NULL: CRC-32 (gzip's, as zlib computes it) */
  size_t size;               /* of the digest */
} kMethods[] = {{"crc32", NULL, 4}, {"md5", EVP_md5, 16}, {"sha256", EVP_sha256, 32}};
#define METHODS (sizeof kMethods / sizeof kMethods[0])
#define MAX_DIGEST 32

struct tobasSum {
  int method;
  unsigned char want[MAX_DIGEST];
  uint32_t crc;
  EVP_MD_CTX* md; /* NULL for CRC-32 */
  /* The hashing thread and the pieces given to it, oldest first (at head). */
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  pthread_t thread;
  int started, stop;
  const unsigned char* piece[TOBAS_SUM_QUEUE];
  size_t pieceLen[TOBAS_SUM_QUEUE];
  int head, queued; /* queued 0: the thread is idle */
};

static int methodIndex(const char* name) {
  for (size_t i = 0; name != NULL && i < METHODS; ++i)
    if (strcasecmp(name, kMethods[i].name) == 0) return (int)i;
  return -1;
}

int tobasChecksumMethodKnown(const char* name) { return methodIndex(name) >= 0; }

static void update(tobasSum* s, const unsigned char* p, size_t n) {
  if (s->md == NULL)
    s->crc = crc32_gzip_refl(s->crc, p, n);
  else
    EVP_DigestUpdate(s->md, p, n);
}

/* 0 when the sum starts anew (the method unavailable, as MD5 is to a FIPS-only libcrypto: -1). */
static int begin(tobasSum* s) {
  s->crc = 0;
  return s->md == NULL || EVP_DigestInit_ex(s->md, kMethods[s->method].md(), NULL) == 1 ? 0 : -1;
}

/* Hex digits (any case, nothing between them) of exactly `size` bytes into out. */
static int parseHex(const char* text, unsigned char* out, size_t size) {
  size_t got = 0;
  return OPENSSL_hexstr2buf_ex(out, size, &got, text, '\0') == 1 && got == size ? 0 : -1;
}

/* The n bytes of d in lower-case hex, as the checksum tools print them. */
static void formatHex(char* out, const unsigned char* d, size_t n) {
  for (size_t i = 0; i < n; ++i) snprintf(out + 2 * i, 3, "%02x", d[i]);
}

/* A CRC-32 as a decimal number, signed (as some tools print it) or not, or as "0x" and hex. */
static int parseCrc(const char* text, unsigned char* out) {
  uint32_t v;
  /* Out of range, strtoull and strtoll return their largest values, which the bounds refuse too. */
  char* end;
  if (strncasecmp(text, "0x", 2) == 0) {
    const unsigned long long n = strtoull(text + 2, &end, 16);
    if (!isxdigit((unsigned char)text[2]) || *end != '\0' || n > UINT32_MAX) return -1;
    v = (uint32_t)n;
  } else {
    const long long n = strtoll(text, &end, 10);
    if (!isdigit((unsigned char)text[text[0] == '-']) || *end != '\0' || n < INT32_MIN ||
        n > (long long)UINT32_MAX)
      return -1;
    v = (uint32_t)n;
  }
  for (int i = 0; i < 4; ++i) out[i] = (unsigned char)(v >> (24 - 8 * i));
  return 0;
}

int tobasSumNew(const char* method, const char* value, tobasSum** sum) {
  *sum = NULL;
  if (method == NULL || method[0] == '\0') return tobasSTAT_SUCCESS;
  const int i = methodIndex(method);
  if (i < 0) {
    tobasLogError("Unknown checksum method: %s", method);
    return tobasERR_INV_PARS;
  }
  /* A new sum starts as this one: idle, no thread, its mutex and condition set up as statics are. */
  static const tobasSum blank = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};
  tobasSum* s = malloc(sizeof *s);
  if (s == NULL) return tobasERR_ALLOC_MEM;
  *s = blank;
  s->method = i;
  const char* name = kMethods[i].name;
  const int bad = value == NULL || (kMethods[i].md == NULL ? parseCrc(value, s->want)
                                                           : parseHex(value, s->want, kMethods[i].size));
  int stat = tobasSTAT_SUCCESS;
  if (bad) {
    tobasLogError("Malformed %s checksum: %s", name, value != NULL ? value : "(none)");
    stat = tobasERR_INV_PARS;
  } else if (kMethods[i].md != NULL && (s->md = EVP_MD_CTX_new()) == NULL) {
    stat = tobasERR_ALLOC_MEM;
  } else if (begin(s) != 0) {
    tobasLogError("Checksum method %s is not available", name);
    stat = tobasERR_INV_PARS;
  }
  if (stat != 0) {
    tobasSumFree(s);
    return stat;
  }
  *sum = s;
  return tobasSTAT_SUCCESS;
}

static void* hashing(void* arg) {
  tobasSum* s = arg;
  pthread_mutex_lock(&s->mutex);
  for (;;) {
    while (s->queued == 0 && !s->stop) pthread_cond_wait(&s->changed, &s->mutex);
    if (s->queued == 0) break;
    const unsigned char* p = s->piece[s->head];
    const size_t n = s->pieceLen[s->head];
    pthread_mutex_unlock(&s->mutex);
    update(s, p, n);
    pthread_mutex_lock(&s->mutex);
    s->head = (s->head + 1) % TOBAS_SUM_QUEUE;
    --s->queued;
    pthread_cond_broadcast(&s->changed);
  }
  pthread_mutex_unlock(&s->mutex);
  return NULL;
}

/* Until at most `most` pieces wait for the thread or are being hashed; called with the mutex held. */
static void awaitQueued(tobasSum* s, int most) {
  while (s->queued > most) pthread_cond_wait(&s->changed, &s->mutex);
}

void tobasSumWait(tobasSum* s) {
  pthread_mutex_lock(&s->mutex);
  awaitQueued(s, 0);
  pthread_mutex_unlock(&s->mutex);
}

void tobasSumFeed(tobasSum* s, const void* p, size_t n) {
  pthread_mutex_lock(&s->mutex);
  awaitQueued(s, TOBAS_SUM_QUEUE - 1);
  if (!s->started) s->started = pthread_create(&s->thread, NULL, hashing, s) == 0 ? 1 : -1;
  const int here = s->started < 0; /* no thread to be had: hash here */
  if (!here) {
    const int at = (s->head + s->queued++) % TOBAS_SUM_QUEUE;
    s->piece[at] = p;
    s->pieceLen[at] = n;
    pthread_cond_broadcast(&s->changed);
  }
  pthread_mutex_unlock(&s->mutex);
  if (here) update(s, p, n);
}

int tobasSumHere(const tobasSum* s) { return s->md == NULL; }

void tobasSumUpdate(tobasSum* s, const void* p, size_t n) { update(s, p, n); }

void tobasSumRestart(tobasSum* s) { begin(s); }

int tobasSumCheck(tobasSum* s) {
  unsigned char got[MAX_DIGEST];
  const size_t size = kMethods[s->method].size;
  if (s->md == NULL)
    for (size_t i = 0; i < size; ++i) got[i] = (unsigned char)(s->crc >> (24 - 8 * i));
  else
    EVP_DigestFinal_ex(s->md, got, NULL);
  if (memcmp(got, s->want, size) == 0) return tobasSTAT_SUCCESS;
  char want[2 * MAX_DIGEST + 1], have[2 * MAX_DIGEST + 1];
  formatHex(want, s->want, size);
  formatHex(have, got, size);
  tobasLogError("Checksum mismatch of the retrieved file: expected %s, got %s", want, have);
  return tobasERR_CHECKSUM;
}

void tobasSumFree(tobasSum* s) {
  if (s == NULL) return;
  pthread_mutex_lock(&s->mutex);
  awaitQueued(s, 0);
  s->stop = 1;
  pthread_cond_broadcast(&s->changed);
  pthread_mutex_unlock(&s->mutex);
  if (s->started > 0) pthread_join(s->thread, NULL);
  EVP_MD_CTX_free(s->md);
  free(s);
}
