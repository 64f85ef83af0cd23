#ifndef SYBCONN_DRIVERS_FREETDSDRIVER_H
#define SYBCONN_DRIVERS_FREETDSDRIVER_H

#include <memory>
#include <string>

#include <sybconn/Driver.h>

namespace sybconn {
// The driver for Sybase ASE and Microsoft SQL Server over FreeTDS's DB-Library.
std::unique_ptr<Driver> makeFreeTdsDriver();

// Process-wide settings of the DB-Library driver; they apply to logins made
// after the call.
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
