#include "tests/support/Backend.h"

#include <cstdlib>
#include <stdexcept>

#include <sybconn/FreeTdsSettings.h>

namespace testsupport {

Backend& Backend::current() {
  static Backend backend([] {
    const std::string name = std::getenv("DA_TEST_BACKEND") ? std::getenv("DA_TEST_BACKEND") : "";
    if (name.empty() || name == "sqlite") return std::string();
    if (name != "tds50" && name != "tds74") throw std::invalid_argument("unknown DA_TEST_BACKEND " + name);
    const std::string version = name == "tds50" ? "5.0" : "7.4";
    sybconn::FreeTdsSettings::setTdsVersion(version);
    sybconn::FreeTdsSettings::setLoginTimeout(5);
    sybconn::FreeTdsSettings::setQueryTimeout(20);
    return version;
  }());
  return backend;
}

std::string Backend::server(const std::string& dbFile) {
  if (!isTds()) return "sqlite:" + dbFile;
  auto& s = servers_[dbFile];
  if (!s) {
    s = std::make_unique<tdstest::TdsServer>(dbFile, "", "");
    if (s->start() == 0) throw std::runtime_error("cannot start the TDS test server");
  }
  return s->address();
}

}  // namespace testsupport
