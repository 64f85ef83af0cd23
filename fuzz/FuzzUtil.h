// Helpers shared by the fuzz targets' checks.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace fuzzutil {

// How often `c` occurs in the `size` bytes at `data`. memchr, not an element
// loop: the loop would be instrumented for coverage and cost more than the
// code under test.
inline long countByte(const char* data, std::size_t size, char c) {
  long n = 0;
  for (const char *p = data, *end = data + size;
       (p = static_cast<const char*>(std::memchr(p, c, static_cast<std::size_t>(end - p)))) != nullptr; ++p)
    ++n;
  return n;
}

// Makes local time UTC, once: no hour that local time skips or repeats, so a
// date text and its instant map one to one.
inline void useUtc() {
  static const bool utc = [] {
    setenv("TZ", "UTC", 1);
    tzset();
    return true;
  }();
  (void)utc;
}

}  // namespace fuzzutil
