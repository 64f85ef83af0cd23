// The PostgreSQL driver's reader of a COPY error's context, on arbitrary text
// and row counts: the row it names is -1 or one of the rows sent.
#include <cstdint>
#include <cstring>
#include <string>

#include "sybconn/drivers/PostgresDriver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first byte picks how many rows were sent, the rest is the context.
  long sent = 0;
  if (size > 0) {
    sent = data[0] * 1000L + data[0];
    ++data;
    --size;
  }
  const std::string context(reinterpret_cast<const char*>(data), size);
  const long row = sybconn::copyFailedRow(context.c_str(), sent);
  if (row < -1 || row >= sent) __builtin_trap();
  return 0;
}
