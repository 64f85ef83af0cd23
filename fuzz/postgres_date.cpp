// The PostgreSQL driver's reader of the server's date texts, on arbitrary
// text: a refused text leaves the value untouched; an accepted one has
// microseconds in [0, 1e6).
#include <cstdint>
#include <string>

#include "fuzz/FuzzUtil.h"

#include "sybconn/drivers/PostgresDriver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzutil::useUtc();
  timeval tv{12345, 678};
  if (!sybconn::parsePostgresDate(std::string(reinterpret_cast<const char*>(data), size), tv)) {
    if (tv.tv_sec != 12345 || tv.tv_usec != 678) __builtin_trap();
    return 0;
  }
  if (tv.tv_usec < 0 || tv.tv_usec >= 1000000) __builtin_trap();
  return 0;
}
