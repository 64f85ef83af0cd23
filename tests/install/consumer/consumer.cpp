// A program outside the project that links the installed libraries.
#include <cstdio>
#include <string>

#include <dataAccess/common/Version.h>
#include <sybconn/SybaseConnection.h>

extern "C" const char* tobasLibraryVersion(void);

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : ".";
  SybaseConnection conn;
  if (conn.connect("sqlite:" + dir + "/consumer.db", "user", "pw") != 0) return 1;
  SybaseResultSet rs = conn.execute("select 40 + 2");
  if (!rs.commandSucceeded() || !rs.next() || rs.getLongValue(1) != 42) return 2;
  std::printf("DataAccess %s, %s: ok\n", dataAccess::version(), tobasLibraryVersion());
  return 0;
}
