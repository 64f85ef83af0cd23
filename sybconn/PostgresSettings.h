#ifndef SYBCONN_POSTGRESSETTINGS_H
#define SYBCONN_POSTGRESSETTINGS_H

#include <string>

namespace sybconn {
// True for the server names that select the PostgreSQL driver.
bool isPostgresUri(const std::string& server);

// `uri` logging in to `database` when it names no database of its own (no
// path after the host part): "postgresql://h:5432?x=y" with "my db" gives
// "postgresql://h:5432/my%20db?x=y". Any other server name, or an empty
// `database`, comes back unchanged.
std::string postgresUriWithDatabase(const std::string& uri, const std::string& database);

// `server` as it may be shown in a log or a message: a PostgreSQL URI loses
// the password of its user part and any password parameter. Other server
// names come back unchanged.
std::string serverForDisplay(const std::string& server);

// Process-wide settings of the PostgreSQL driver (servers "postgresql://..."
// and "postgres://..."); they apply to logins and commands started after the
// call.
// Thread safety: every setting may be set and read from any thread at once.
struct PostgresSettings {
  // Seconds a login may take before it fails (default 15), however the
  // server behaves: silent, or not accepting at all.
  static void setLoginTimeout(int seconds);
  static int loginTimeout();
  // Seconds each wait for the server during a command may take before the
  // command is cancelled and fails; 0 waits for ever (default 0).
  static void setQueryTimeout(int seconds);
  static int queryTimeout();
};
}  // namespace sybconn

#endif
