// A redirection's location in the archive client: host and port are taken from the text, the host
// neither empty nor holding ':' or '/', the port a real one.
#include <cstdint>
#include <cstring>
#include <string>

#include <tobasCClient/tobasInternal.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string location(reinterpret_cast<const char*>(data), size);
  tobasMED_BUF host;
  int port = 0;
  if (_tobasParseLocation(location.c_str(), host, &port) != 0) return 0;
  const size_t n = strnlen(host, sizeof host);
  if (n == 0 || n == sizeof host || strpbrk(host, ":/") != nullptr || port < 1 || port > 65535 ||
      location.find("//" + std::string(host) + ":") == std::string::npos)
    __builtin_trap();
  return 0;
}
