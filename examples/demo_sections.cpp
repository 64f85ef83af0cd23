#include <algorithm>

#include "examples/demo.h"

namespace demo {

std::vector<Section>& sections() {
  static std::vector<Section> all;
  return all;
}

bool registerSection(Section s) {
  auto& all = sections();
  all.push_back(s);
  std::stable_sort(all.begin(), all.end(),
                   [](const Section& a, const Section& b) { return a.order < b.order; });
  return true;
}

}  // namespace demo
