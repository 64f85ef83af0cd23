// The select-list map on arbitrary text: positions run from 1 to the number of
// commas plus one, a name holds no comma and no blank, and a name already in
// the map keeps its position.
#include <dataAccess/db/SelectList.h>

#include <cstdint>
#include <map>
#include <string>

#include "fuzz/FuzzUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string list(reinterpret_cast<const char*>(data), size);
  std::map<std::string, int> fields = {{"kept", 0}};
  dataAccess::mapSelectList(list, fields);
  const int names = static_cast<int>(fuzzutil::countByte(list.data(), size, ',')) + 1;
  if (fields.at("kept") != 0 || fields.size() > static_cast<size_t>(names) + 1) __builtin_trap();
  for (const auto& [name, position] : fields) {
    if (name == "kept") continue;
    if (position < 1 || position > names || name.find_first_of(", ") != std::string::npos) __builtin_trap();
  }
  return 0;
}
