// The file name of a reply's content disposition in the archive client: only a plain name, within
// its buffer, is ever accepted as the file to write.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <tobasCClient/tobasInternal.h>

namespace {
tobasHTTP_HDR rows = {"http/1.0 200 ok\r\n"};
}

// Input: the field's value.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  snprintf(rows[1], sizeof rows[1], "content-disposition: %s\r\n", value.c_str());
  tobasMED_BUF name;
  if (_tobasReplyFileName(rows, name) != 0) return 0;
  const size_t n = strnlen(name, sizeof name);
  if (n == 0 || n == sizeof name || strcmp(name, ".") == 0 || strcmp(name, "..") == 0 ||
      strpbrk(name, "/\"\r\n") != nullptr)
    __builtin_trap();
  return 0;
}
