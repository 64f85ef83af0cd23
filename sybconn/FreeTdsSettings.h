#ifndef SYBCONN_FREETDSSETTINGS_H
#define SYBCONN_FREETDSSETTINGS_H

#include <string>

namespace sybconn {
// Process-wide settings of the FreeTDS DB-Library driver (servers other than
// "sqlite:<path>"); they apply to logins made after the call.
// Thread safety: every setting may be set and read from any thread at once.
struct FreeTdsSettings {
  // Seconds a login may take before it fails (default 15). Also bounds a
  // server that accepts the connection and never answers.
  static void setLoginTimeout(int seconds);
  static int loginTimeout();
  // Seconds a command may wait for the server before it fails; 0 waits for
  // ever (default 0).
  static void setQueryTimeout(int seconds);
  static int queryTimeout();
  // TDS protocol version: "5.0", "7.0" ... "7.4", or "" / "auto" to let
  // FreeTDS choose (freetds.conf, TDSVER, else its own default).
  static void setTdsVersion(const std::string& version);
  static std::string tdsVersion();
};
}  // namespace sybconn

#endif
