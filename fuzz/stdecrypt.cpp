// Fuzz target: stdecrypt on arbitrary input never crashes, never reads past
// its 256-byte input buffer and always leaves a terminated output.
#include <ace/Log_Msg.h>
#include <stcrypt/stcrypt.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);  // every refusal logs an ERROR line
    char path[] = "/tmp/stdecrypt-fuzz-XXXXXX";
    const int fd = mkstemp(path);
    if (fd >= 0) {
      close(fd);
      unlink(path);
      stcreatekey(path);
      setenv("STCRYPT_KEY_FILE", path, 1);
    }
    return true;
  }();
  (void)ready;
  // Exactly 256 bytes, as callers hand it over; not necessarily terminated.
  char in[STCRYPT_BUF_SIZE];
  std::memset(in, 'A', sizeof in);
  std::memcpy(in, data, size < sizeof in ? size : sizeof in);
  char out[STCRYPT_BUF_SIZE];
  const int rc = stdecrypt(in, out);
  if (rc == 0 && std::strlen(out) >= sizeof out) std::abort();
  if (rc != 0 && out[0] != '\0') std::abort();
  return 0;
}
