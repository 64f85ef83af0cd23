/* Checksums of retrieved files: CRC-32 from ISA-L, MD5 and SHA-256 from nettle. A retrieval hands
 * each piece of the body over as it is written; a thread of the sum hashes it while the next piece
 * is read from the network, so that the check costs the transfer little as long as the hash keeps
 * pace with the network. */
#define _GNU_SOURCE
#include <ctype.h>
#include <isa-l/crc.h>
#include <nettle/base16.h>
#include <nettle/md5.h>
#include <nettle/nettle-meta.h>
#include <nettle/sha2.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "tobasInternal.h"

/* CRC-32 (gzip's, as zlib computes it) in the shape of nettle's hashes, so that one table serves
 * every method. ISA-L folds it with carry-less multiplies, several times faster than zlib's tables:
 * fast enough to go unnoticed beside the copy from the socket. */
static void crcInit(void* ctx) { *(uint32_t*)ctx = 0; }
static void crcUpdate(void* ctx, size_t n, const uint8_t* p) {
  *(uint32_t*)ctx = crc32_gzip_refl(*(uint32_t*)ctx, p, n);
}
static void crcDigest(void* ctx, size_t size, uint8_t* d) {
  for (size_t i = 0; i < size; ++i) d[i] = (uint8_t)(*(uint32_t*)ctx >> (24 - 8 * i));
}
static const struct nettle_hash crc32Hash = {"crc32", sizeof(uint32_t), 4, 1, crcInit, crcUpdate, crcDigest};

/* CRC-32 keeps pace with the network in the receiving thread, on bytes still in the cache; handing
 * its pieces to a thread costs more than it saves. MD5 and SHA-256 are slower than a fast link and
 * get a thread of their own. */
static const struct {
  const struct nettle_hash* hash;
  int here; /* hashed in the receiving thread */
} kMethods[] = {{&crc32Hash, 1}, {&nettle_md5, 0}, {&nettle_sha256, 0}};
#define METHODS (sizeof kMethods / sizeof kMethods[0])
#define MAX_DIGEST SHA256_DIGEST_SIZE

struct tobasSum {
  const struct nettle_hash* hash;
  int here;
  unsigned char want[MAX_DIGEST];
  union {
    uint32_t crc;
    struct md5_ctx md5;
    struct sha256_ctx sha;
  } ctx;
  /* The hashing thread and the one piece it is given at a time. */
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  pthread_t thread;
  int started, stop;
  const unsigned char* piece; /* NULL: the thread is idle */
  size_t pieceLen;
};

static int methodIndex(const char* name) {
  for (size_t i = 0; name != NULL && i < METHODS; ++i)
    if (strcasecmp(name, kMethods[i].hash->name) == 0) return (int)i;
  return -1;
}

int tobasChecksumMethodKnown(const char* name) { return methodIndex(name) >= 0; }

static void update(tobasSum* s, const unsigned char* p, size_t n) { s->hash->update(&s->ctx, n, p); }

/* Hex digits (any case) of exactly `size` bytes into out. */
static int parseHex(const char* text, unsigned char* out, size_t size) {
  struct base16_decode_ctx ctx;
  size_t got = size;
  base16_decode_init(&ctx);
  /* The decoder passes over blanks: the count of bytes tells them. */
  const int ok = strlen(text) == 2 * size && base16_decode_update(&ctx, &got, out, 2 * size, text);
  return ok && got == size ? 0 : -1;
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
  const struct nettle_hash* hash = s->hash = kMethods[i].hash;
  s->here = kMethods[i].here;
  const int bad = value == NULL || (hash == &crc32Hash ? parseCrc(value, s->want)
                                                       : parseHex(value, s->want, hash->digest_size));
  if (bad) {
    tobasLogError("Malformed %s checksum: %s", hash->name, value != NULL ? value : "(none)");
    free(s);
    return tobasERR_INV_PARS;
  }
  hash->init(&s->ctx);
  *sum = s;
  return tobasSTAT_SUCCESS;
}

static void* hashing(void* arg) {
  tobasSum* s = arg;
  pthread_mutex_lock(&s->mutex);
  for (;;) {
    while (s->piece == NULL && !s->stop) pthread_cond_wait(&s->changed, &s->mutex);
    if (s->piece == NULL) break;
    const unsigned char* p = s->piece;
    const size_t n = s->pieceLen;
    pthread_mutex_unlock(&s->mutex);
    update(s, p, n);
    pthread_mutex_lock(&s->mutex);
    s->piece = NULL;
    pthread_cond_broadcast(&s->changed);
  }
  pthread_mutex_unlock(&s->mutex);
  return NULL;
}

/* Until the thread has hashed the piece it was given; called with the mutex held. */
static void awaitIdle(tobasSum* s) {
  while (s->piece != NULL) pthread_cond_wait(&s->changed, &s->mutex);
}

void tobasSumWait(tobasSum* s) {
  pthread_mutex_lock(&s->mutex);
  awaitIdle(s);
  pthread_mutex_unlock(&s->mutex);
}

void tobasSumFeed(tobasSum* s, const void* p, size_t n) {
  pthread_mutex_lock(&s->mutex);
  awaitIdle(s);
  if (!s->started) s->started = pthread_create(&s->thread, NULL, hashing, s) == 0 ? 1 : -1;
  const int here = s->started < 0; /* no thread to be had: hash here */
  if (!here) {
    s->piece = p;
    s->pieceLen = n;
    pthread_cond_broadcast(&s->changed);
  }
  pthread_mutex_unlock(&s->mutex);
  if (here) update(s, p, n);
}

int tobasSumHere(const tobasSum* s) { return s->here; }

void tobasSumUpdate(tobasSum* s, const void* p, size_t n) { update(s, p, n); }

void tobasSumRestart(tobasSum* s) { s->hash->init(&s->ctx); }

int tobasSumCheck(tobasSum* s) {
  unsigned char got[MAX_DIGEST];
  const size_t size = s->hash->digest_size;
  s->hash->digest(&s->ctx, size, got);
  if (memcmp(got, s->want, size) == 0) return tobasSTAT_SUCCESS;
  char want[BASE16_ENCODE_LENGTH(MAX_DIGEST)], have[BASE16_ENCODE_LENGTH(MAX_DIGEST)];
  base16_encode_update(want, size, s->want);
  base16_encode_update(have, size, got);
  tobasLogError("Checksum mismatch of the retrieved file: expected %.*s, got %.*s", (int)(2 * size), want,
                (int)(2 * size), have);
  return tobasERR_CHECKSUM;
}

void tobasSumFree(tobasSum* s) {
  if (s == NULL) return;
  pthread_mutex_lock(&s->mutex);
  awaitIdle(s);
  s->stop = 1;
  pthread_cond_broadcast(&s->changed);
  pthread_mutex_unlock(&s->mutex);
  if (s->started > 0) pthread_join(s->thread, NULL);
  free(s);
}
