#include <sybconn/ArcSysUtils.h>

namespace ArcSys {

void split(const std::string& text, const std::string& delimiter, std::vector<std::string>& out) {
  if (delimiter.empty()) {
    out.push_back(text);
    return;
  }
  size_t start = 0;
  for (;;) {
    const size_t pos = text.find(delimiter, start);
    if (pos == std::string::npos) {
      out.push_back(text.substr(start));
      return;
    }
    out.push_back(text.substr(start, pos - start));
    start = pos + delimiter.size();
  }
}

}  // namespace ArcSys
