// The parameters file's reader on arbitrary bytes: every line kept has four or
// five non-empty fields without white space, the first not a comment, each
// taken from the input in order; a line over the bound stops the read with its number;
// the alias look-up returns one of the kept lines.
#include <dataAccess/db/ParametersFile.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/FuzzUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::istringstream in(text);
  std::vector<dataAccess::ParameterLine> lines;
  const long tooLong = dataAccess::readParameterLines(in, lines);
  const long lineCount = fuzzutil::countByte(text.data(), size, '\n') + 1;
  if (tooLong < 0 || tooLong > lineCount || (tooLong > 0 && size <= dataAccess::kMaxParameterLine) ||
      static_cast<long>(lines.size()) > lineCount)
    __builtin_trap();
  size_t at = 0;  // fields come from the input in order: each is found after the one before
  for (const auto& line : lines) {
    if (line.count < 4 || line.count > 5 || line.field[0][0] == '#') __builtin_trap();
    for (int i = 0; i < line.count; ++i) {
      const std::string& f = line.field[i];
      if (f.empty() || f.size() > dataAccess::kMaxParameterLine ||
          (at = text.find(f, at)) == std::string::npos)
        __builtin_trap();
      at += f.size();
      for (char c : f)
        if (std::isspace(static_cast<unsigned char>(c))) __builtin_trap();
    }
  }
  for (const char* alias : {"A", ""}) {
    const dataAccess::ParameterLine* found = dataAccess::findParameterLine(lines, alias);
    if (found && (found < lines.data() || found >= lines.data() + lines.size() ||
                  (found->count == 5 && found->field[4] != alias)))
      __builtin_trap();
  }
  return 0;
}
