// Runs the TDS test server on a database file until standard input closes:
//   tds_test_server <database file> [user password]
// Prints "127.0.0.1:<port>" on its first line of output. Without a user every
// login is let in. Used to run the demo through the FreeTDS driver.
#include <cstdio>
#include <string>

#include "tests/support/TdsServer.h"

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: %s <database file> [user password]\n", argv[0]);
    return 2;
  }
  tdstest::TdsServer server(argv[1], argc == 4 ? argv[2] : "", argc == 4 ? argv[3] : "");
  if (server.start() == 0) {
    std::fprintf(stderr, "tds_test_server: cannot listen on 127.0.0.1\n");
    return 1;
  }
  std::printf("%s\n", server.address().c_str());
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return 0;
}
