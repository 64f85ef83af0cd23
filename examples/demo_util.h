#ifndef EXAMPLES_DEMO_UTIL_H
#define EXAMPLES_DEMO_UTIL_H

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>

namespace demo {

// The text of a schema file of examples/schema.
inline std::string schema(const std::string& name) {
  std::ifstream in(std::string(DA_SCHEMA_DIR) + "/" + name);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The database server the demo uses: $DA_DEMO_SERVER (a TDS server name such
// as 127.0.0.1:5000) or the embedded SQLite file `file` in the work folder.
inline const char* serverSetting() {
  const char* env = std::getenv("DA_DEMO_SERVER");
  return env && *env ? env : nullptr;
}
inline std::string server(const std::string& workDir, const std::string& file) {
  return serverSetting() ? std::string(serverSetting()) : "sqlite:" + workDir + "/" + file;
}

// Creates the demo's tables from the SQLite schemas on the embedded default.
// A database server already has them: its administrator loads the T-SQL
// schemas (examples/schema/*.sybase.sql) with isql, as for production.
template <class Conn>
bool createTables(Conn& conn, std::initializer_list<const char*> sqliteSchemas) {
  if (serverSetting()) {
    std::printf("   on %s: tables expected there (examples/schema/*.sybase.sql)\n", serverSetting());
    return true;
  }
  for (const char* name : sqliteSchemas)
    if (conn.execute(schema(name)).commandSucceeded() != 1) return false;
  return true;
}

}  // namespace demo

#endif
