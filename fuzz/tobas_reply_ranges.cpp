// The parts of a reply that retries and resumed retrievals act on: a Content-Range is taken only
// as an ordered range within its total, a Retry-After only as a wait of at most a day.
#include <cstdint>
#include <string>

#include <tobasCClient/tobasInternal.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  long from = -1, last = -1, total = -1;
  if (_tobasParseContentRange(value.c_str(), &from, &last, &total) == 0 &&
      !(0 <= from && from <= last && last < total))
    __builtin_trap();
  const long wait = _tobasRetryAfterMs(value.c_str());
  if (wait < 0 || wait > 86400L * 1000) __builtin_trap();
  return 0;
}
