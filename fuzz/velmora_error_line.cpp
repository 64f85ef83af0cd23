// One line of a retrieval error status file, arbitrary bytes: an entry must
// be a non-empty key without blanks and a text that starts with no blank,
// both taken from the line.
#include <dataAccess/velmora/VelmoraSupport.h>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  std::string key, text;
  if (velmora::parseErrorLine(line, key, text) != velmora::ErrorLine::Entry) return 0;
  if (key.empty() || key.find(' ') != std::string::npos || text.empty() || text[0] == ' ' ||
      line.find(key) == std::string::npos || line.find(text) == std::string::npos)
    __builtin_trap();
  return 0;
}
