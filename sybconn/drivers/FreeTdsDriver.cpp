#include "sybconn/drivers/FreeTdsDriver.h"

namespace sybconn {

namespace {
// Placeholder until the DB-Library driver lands: every login fails cleanly.
class UnavailableDriver : public Driver {
 public:
  bool connect(const std::string& target, const std::string&, const std::string&) override {
    SybaseStatus st;
    st.dbLibSeverity = 9;
    st.dberr = 20009;
    st.dberrstr = "No driver available for server '" + target + "' (FreeTDS driver not built)";
    reportError(st);
    return false;
  }
  bool isConnected() const override { return false; }
  void disconnect() override {}
  std::shared_ptr<Cursor> execute(const std::string&) override { return nullptr; }
  long rowCount() const override { return -1; }
};
}  // namespace

std::unique_ptr<Driver> makeFreeTdsDriver() { return std::make_unique<UnavailableDriver>(); }

}  // namespace sybconn
