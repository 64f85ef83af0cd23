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
// as 127.0.0.1:5000, or a PostgreSQL URI) or the embedded SQLite file `file`
// in the work folder.
inline const char* serverSetting() {
  const char* env = std::getenv("DA_DEMO_SERVER");
  return env && *env ? env : nullptr;
}
inline std::string server(const std::string& workDir, const std::string& file) {
  return serverSetting() ? std::string(serverSetting()) : "sqlite:" + workDir + "/" + file;
}
inline bool onPostgres() {
  const std::string s = serverSetting() ? serverSetting() : "";
  return s.rfind("postgresql://", 0) == 0 || s.rfind("postgres://", 0) == 0;
}

// Creates the demo's tables from the schemas `names` (examples/schema/
// NAME.sqlite.sql, or NAME.postgresql.sql on PostgreSQL); there, the tables of
// a `database` other than the login's go into the schema of that name, which
// `database..table` names. A Sybase or SQL Server already has them: its
// administrator loads the T-SQL schemas (examples/schema/*.sybase.sql) with
// isql, as for production.
template <class Conn>
bool createTables(Conn& conn, std::initializer_list<const char*> names, const char* database = nullptr) {
  if (serverSetting() && !onPostgres()) {
    std::printf("   on %s: tables expected there (examples/schema/*.sybase.sql)\n", serverSetting());
    return true;
  }
  std::string sql;
  if (onPostgres() && database)
    sql = std::string("create schema if not exists ") + database + "; set search_path to " + database + ";\n";
  for (const char* name : names)
    sql += schema(std::string(name) + (onPostgres() ? ".postgresql.sql" : ".sqlite.sql"));
  return conn.execute(sql).commandSucceeded() == 1;
}

}  // namespace demo

#endif
