#ifndef SYBCONN_SQLITESETTINGS_H
#define SYBCONN_SQLITESETTINGS_H

namespace sybconn {

// Process-wide setting of the embedded SQLite driver (servers "sqlite:<path>"):
// how long a statement waits for a lock held by another connection before it
// fails with a "database is locked" error (default 5000 ms; 0 fails at once,
// a negative value restores the default). Applies to connections opened
// afterwards.
// Thread safety: both functions may be called from any thread at once.
void setSqliteBusyTimeoutMs(int ms);
int sqliteBusyTimeoutMs();

}  // namespace sybconn

#endif
