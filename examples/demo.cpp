// The demo that `make demo` runs: shows the library working on the embedded
// SQLite default, one section a subsystem. Usage: dataAccessDemo <work folder>
#include <cstdio>
#include <string>

#include "examples/demo.h"

int main(int argc, char** argv) {
  const std::string work = argc > 1 ? argv[1] : "demo-work";
  int failures = 0;
  for (const auto& section : demo::sections()) {
    std::printf("\n== %s\n", section.title);
    if (section.run(work) != 0) {
      std::printf("   !! section failed\n");
      ++failures;
    }
  }
  std::printf("\n%s\n", failures ? "demo finished with failures" : "demo finished: all sections ran");
  return failures ? 1 : 0;
}
