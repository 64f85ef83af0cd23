// The demo that `make demo` runs: shows the library working on the embedded
// SQLite default, one section a subsystem. Usage: dataAccessDemo <work folder>
// DA_DEMO_SERVER=<server> (a freetds.conf name or host:port) runs it on a
// Sybase or SQL Server database instead, whose tables already exist.
#include <ace/Log_Msg.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "examples/demo.h"

int main(int argc, char** argv) {
  const std::string work = argc > 1 ? argv[1] : "demo-work";
  // The library logs through ACE; the demo shows INFO and above unless
  // DA_DEMO_DEBUG is set, as a host program would choose.
  if (!std::getenv("DA_DEMO_DEBUG"))
    ACE_LOG_MSG->priority_mask(
        LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
        ACE_Log_Msg::PROCESS);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
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
