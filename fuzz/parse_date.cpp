// The date parser of result rows on arbitrary text: a refused text leaves the
// value untouched; an accepted one has microseconds in [0, 1e6) and comes
// back, to the millisecond, through the date text that statements use.
#include <sybconn/SybUtils.h>

#include <cstdint>
#include <string>

#include "fuzz/FuzzUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzutil::useUtc();
  const std::string text(reinterpret_cast<const char*>(data), size);
  timeval tv{12345, 678};
  if (!SybUtils::parseDate(text, tv)) {
    if (tv.tv_sec != 12345 || tv.tv_usec != 678) __builtin_trap();
    return 0;
  }
  if (tv.tv_usec < 0 || tv.tv_usec >= 1000000) __builtin_trap();
  // 9999-12-31 23:59:60 is the first second of the year 10000, which has no
  // four-digit date text.
  if (tv.tv_sec >= 253402300800) return 0;
  timeval back{0, 0};
  if (!SybUtils::parseDate(SybUtils::convertFromUnixTimeval(tv), back) || back.tv_sec != tv.tv_sec ||
      back.tv_usec != tv.tv_usec / 1000 * 1000)
    __builtin_trap();
  return 0;
}
