#ifndef EXAMPLES_DEMO_H
#define EXAMPLES_DEMO_H

#include <string>
#include <vector>

namespace demo {

// One section of the demo: a title and a function that runs it in the work
// folder and returns 0 on success.
struct Section {
  int order;
  const char* title;
  int (*run)(const std::string& workDir);
};

// Sections register themselves at load time (see DEMO_SECTION) and run in
// `order`.
std::vector<Section>& sections();
bool registerSection(Section s);

}  // namespace demo

#define DEMO_SECTION(order, title, fn) \
  static const bool demo_registered_##fn = ::demo::registerSection({order, title, fn})

#endif
