// Helpers shared by the fuzz targets' checks.
#pragma once

#include <cstddef>
#include <cstring>

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

}  // namespace fuzzutil
