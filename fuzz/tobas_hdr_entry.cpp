// Header-field lookup of the archive client over arbitrary rows (not necessarily
// NUL-terminated) and arbitrary field and sub-field names.
#include <cstdint>
#include <cstring>
#include <string>

#include <tobasCClient/tobasCClientLib.h>

namespace {
tobasHTTP_HDR rows;
size_t dirty = 0;  // bytes of the rows the previous input wrote
}  // namespace

// Input: field name, NUL, sub-field name, NUL, then the raw bytes of the rows.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  const char* end = p + size;
  const char* z1 = static_cast<const char*>(memchr(p, '\0', size));
  if (z1 == nullptr) return 0;
  const char* z2 = static_cast<const char*>(memchr(z1 + 1, '\0', static_cast<size_t>(end - z1 - 1)));
  if (z2 == nullptr) return 0;
  std::string field(p, z1), sub(z1 + 1, z2);
  memset(rows, 0, dirty);
  dirty = static_cast<size_t>(end - z2 - 1);
  if (dirty > sizeof rows) dirty = sizeof rows;
  memcpy(rows, z2 + 1, dirty);
  tobasMED_BUF value;
  if (tobasGetHttpHdrEntry(rows, field.c_str(), sub.c_str(), value) == 0 &&
      strnlen(value, sizeof value) >= sizeof value)
    __builtin_trap();
  return 0;
}
