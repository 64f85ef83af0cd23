// Query-value encoding of the archive client: output stays within its buffer and decodes back.
#include <cstdint>
#include <cstring>
#include <string>

#include <tobasCClient/tobasCClientLib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string value(reinterpret_cast<const char*>(data) + 1, size - 1);
  value = value.c_str();
  static tobasHUGE_BUF enc;
  if (tobasEncodeUrlVal(value.c_str(), data[0] & 1, enc) != 0) return 0;
  if (strnlen(enc, sizeof enc) >= sizeof enc) __builtin_trap();
  // Without a kept scheme the four characters never appear raw.
  if (!(data[0] & 1) && strpbrk(enc, ":?=&") != nullptr) __builtin_trap();
  return 0;
}
