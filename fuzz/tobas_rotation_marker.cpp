// The rotation marker at the top of the archive client's log, arbitrary bytes: a time is only read
// from a marker within the first 256 bytes.
#include <cstdint>
#include <cstring>

#include <tobasCClient/tobasInternal.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const long t = _tobasRotationTime(reinterpret_cast<const char*>(data), size);
  if (t != 0 &&
      memmem(data, size < 256 ? size : 256, tobasLOG_ROTATE_TAG, strlen(tobasLOG_ROTATE_TAG)) == nullptr)
    __builtin_trap();
  return 0;
}
