#include <stcrypt/stcrypt.h>

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <daLog/Log.h>

namespace {

constexpr size_t kKeyBytes = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr size_t kNonceBytes = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t kTagBytes = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr int kB64 = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
// Associated data binds a text to this use, so a text sealed for something
// else under the same key is not accepted here.
const unsigned char kContext[] = "dbrc-password-v1";

// Bytes of a key or of a clear password: wiped when they go out of scope,
// whichever way the function leaves, so no copy stays on the stack.
template <size_t N>
struct Wiped {
  unsigned char bytes[N];
  ~Wiped() { sodium_memzero(bytes, N); }
};

std::string keyFilePath() {
  const char* env = std::getenv("STCRYPT_KEY_FILE");
  if (env && *env) return env;
  const char* home = std::getenv("HOME");
  if (home && *home) return std::string(home) + "/.dbrc.key";
  return std::string();
}

bool sodiumReady() {
  static const bool ok = sodium_init() >= 0;
  return ok;
}

// Reads the key; logs and returns false when it cannot be used.
bool loadKey(const std::string& path, unsigned char key[kKeyBytes]) {
  if (path.empty()) {
    DA_LOG_ERROR("stcrypt: no key file: neither STCRYPT_KEY_FILE nor HOME is set");
    return false;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    DA_LOG_ERROR("stcrypt: cannot open key file %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    DA_LOG_ERROR("stcrypt: key file %s is not a regular file", path.c_str());
    ::close(fd);
    return false;
  }
  if (st.st_mode & (S_IRWXG | S_IRWXO)) {
    DA_LOG_ERROR(
        "stcrypt: key file %s is accessible by group or others (mode %o); refusing it, use chmod 600",
        path.c_str(), static_cast<unsigned>(st.st_mode & 0777));
    ::close(fd);
    return false;
  }
  // One byte more than a key, so that a longer file shows. A full buffer ends
  // the loop by itself: a read of no bytes returns 0.
  Wiped<kKeyBytes + 1> buf;
  size_t got = 0;
  for (;;) {
    const ssize_t n = ::read(fd, buf.bytes + got, sizeof buf.bytes - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  const bool whole = got == kKeyBytes;
  if (whole) std::memcpy(key, buf.bytes, kKeyBytes);
  if (!whole)
    DA_LOG_ERROR("stcrypt: key file %s must hold exactly %d bytes", path.c_str(),
                 static_cast<int>(kKeyBytes));
  return whole;
}

}  // namespace

extern "C" int stdecrypt(const char* in, char* out) {
  if (!out) return -1;
  out[0] = '\0';
  if (!in || !sodiumReady()) return -1;
  const std::string path = keyFilePath();
  const size_t inLen = strnlen(in, STCRYPT_BUF_SIZE);
  if (inLen == STCRYPT_BUF_SIZE) {
    DA_LOG_ERROR("stcrypt: enciphered password longer than %d characters (key file %s)", STCRYPT_BUF_SIZE - 1,
                 path.c_str());
    return -1;
  }
  unsigned char raw[STCRYPT_BUF_SIZE];
  size_t rawLen = 0;
  if (sodium_base642bin(raw, sizeof raw, in, inLen, nullptr, &rawLen, nullptr, kB64) != 0 ||
      rawLen < kNonceBytes + kTagBytes) {
    DA_LOG_ERROR("stcrypt: malformed enciphered password (not produced with key file %s)", path.c_str());
    return -1;
  }
  Wiped<kKeyBytes> key;
  if (!loadKey(path, key.bytes)) return -1;
  Wiped<STCRYPT_BUF_SIZE> clear;
  unsigned long long clearLen = 0;
  const int rc = crypto_aead_xchacha20poly1305_ietf_decrypt(clear.bytes, &clearLen, nullptr,
                                                            raw + kNonceBytes, rawLen - kNonceBytes, kContext,
                                                            sizeof kContext - 1, raw, key.bytes);
  if (rc != 0 || clearLen >= STCRYPT_BUF_SIZE || std::memchr(clear.bytes, '\0', clearLen)) {
    DA_LOG_ERROR("stcrypt: cannot decipher password: wrong key or tampered text (key file %s)", path.c_str());
    return -1;
  }
  std::memcpy(out, clear.bytes, clearLen);
  out[clearLen] = '\0';
  return 0;
}

extern "C" int stencrypt(const char* in, char* out) {
  if (!out) return -1;
  out[0] = '\0';
  if (!in || !sodiumReady()) return -1;
  const std::string path = keyFilePath();
  const size_t len = strnlen(in, STCRYPT_MAX_PASSWORD + 1);
  if (len > STCRYPT_MAX_PASSWORD) {
    DA_LOG_ERROR("stcrypt: password longer than %d bytes (key file %s)", STCRYPT_MAX_PASSWORD, path.c_str());
    return -1;
  }
  Wiped<kKeyBytes> key;
  if (!loadKey(path, key.bytes)) return -1;
  unsigned char raw[kNonceBytes + STCRYPT_MAX_PASSWORD + kTagBytes];
  randombytes_buf(raw, kNonceBytes);
  unsigned long long sealedLen = 0;
  crypto_aead_xchacha20poly1305_ietf_encrypt(raw + kNonceBytes, &sealedLen,
                                             reinterpret_cast<const unsigned char*>(in), len, kContext,
                                             sizeof kContext - 1, nullptr, raw, key.bytes);
  const size_t rawLen = kNonceBytes + static_cast<size_t>(sealedLen);
  static_assert(sodium_base64_ENCODED_LEN(kNonceBytes + STCRYPT_MAX_PASSWORD + kTagBytes,
                                          sodium_base64_VARIANT_URLSAFE_NO_PADDING) <= STCRYPT_BUF_SIZE,
                "the longest password must fit the buffer");
  sodium_bin2base64(out, STCRYPT_BUF_SIZE, raw, rawLen, kB64);
  return 0;
}

extern "C" int stcreatekey(const char* path) {
  if (!path || !*path || !sodiumReady()) return -1;
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    DA_LOG_ERROR("stcrypt: cannot create key file %s: %s", path, std::strerror(errno));
    return -1;
  }
  Wiped<kKeyBytes> key;
  crypto_aead_xchacha20poly1305_ietf_keygen(key.bytes);
  size_t done = 0;
  while (done < kKeyBytes) {
    const ssize_t n = ::write(fd, key.bytes + done, kKeyBytes - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const bool ok = done == kKeyBytes && ::fsync(fd) == 0;
  ::close(fd);
  if (!ok) {
    DA_LOG_ERROR("stcrypt: cannot write key file %s", path);
    ::unlink(path);
    return -1;
  }
  return 0;
}

extern "C" int stkeyfile(char* out, unsigned long size) {
  const std::string path = keyFilePath();
  if (!out || path.empty() || path.size() + 1 > size) return -1;
  std::memcpy(out, path.c_str(), path.size() + 1);
  return 0;
}
