// Server-list parsing of the archive client: identifier and server string from arbitrary bytes.
#include <cstdint>
#include <cstring>
#include <string>

#include <tobasCClient/tobasCClientLib.h>

// Input: list identifier, NUL, server string.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  const char* z = static_cast<const char*>(memchr(p, '\0', size));
  std::string id = z ? std::string(p, z) : std::string();
  std::string servers = z ? std::string(z + 1, p + size) : std::string(p, size);
  servers = servers.c_str();  // up to an inner NUL
  if (tobasParseSrvListId(id.c_str(), servers.c_str()) == 0) {
    int found = 0;
    tobasSRV_INFO* info = nullptr;
    _tobasGetSrvInfoObj(id.c_str(), &found, &info);
    if (info == nullptr || info->numberOfSrvs > tobasMAX_SRVS) __builtin_trap();
    int idx = -1, port = 0;
    tobasMED_BUF host;
    for (int i = 0; i < info->numberOfSrvs; ++i) _tobasGetNextSrv(&idx, info, host, &port);
  }
  return 0;
}
