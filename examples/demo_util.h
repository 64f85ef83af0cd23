#ifndef EXAMPLES_DEMO_UTIL_H
#define EXAMPLES_DEMO_UTIL_H

#include <fstream>
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
inline std::string server(const std::string& workDir, const std::string& file) {
  const char* env = std::getenv("DA_DEMO_SERVER");
  return env && *env ? std::string(env) : "sqlite:" + workDir + "/" + file;
}

}  // namespace demo

#endif
