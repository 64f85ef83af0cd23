// A whole retrieval error status file, arbitrary bytes. Its non-blank lines
// (blank: only blanks, after one trailing "\r" is dropped) must map one to
// one, in order, onto the entries read, up to the first malformed line, which
// must be the one reported; every entry's key and text come from its line.
#include <dataAccess/velmora/VelmoraSupport.h>

#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file(reinterpret_cast<const char*>(data), size);
  std::vector<velmora::ErrorEntry> entries;
  std::string malformed = "unset";
  const bool wellFormed = velmora::parseErrorFile(file, entries, malformed);
  size_t next = 0;  // entry the next non-blank line must give
  bool stopped = false;
  for (size_t from = 0; from <= file.size() && !stopped;) {
    size_t end = file.find('\n', from);
    if (end == std::string::npos) end = file.size();
    std::string line = file.substr(from, end - from);
    from = end + 1;
    std::string trimmed = line;
    if (!trimmed.empty() && trimmed.back() == '\r') trimmed.pop_back();
    if (trimmed.find_first_not_of(' ') == std::string::npos) continue;
    if (next == entries.size()) {
      // No entry left for this line: reading must have stopped here.
      std::string key, text;
      if (wellFormed || malformed != line ||
          velmora::parseErrorLine(line, key, text) != velmora::ErrorLine::Malformed)
        __builtin_trap();
      stopped = true;
      break;
    }
    const velmora::ErrorEntry& e = entries[next++];
    const size_t keyAt = line.find(e.key);
    if (e.key.empty() || e.key.find(' ') != std::string::npos || e.text.empty() || e.text[0] == ' ' ||
        keyAt == std::string::npos || line.find(e.text, keyAt + e.key.size()) == std::string::npos)
      __builtin_trap();
  }
  if (next != entries.size() || wellFormed == stopped || (wellFormed && malformed != "unset"))
    __builtin_trap();
  return 0;
}
