#ifndef SYBCONN_DRIVERS_SQLITEDRIVER_H
#define SYBCONN_DRIVERS_SQLITEDRIVER_H

#include <memory>

#include <sybconn/Driver.h>
#include <sybconn/SqliteSettings.h>

namespace sybconn {

// The embedded SQLite driver, selected by server names "sqlite:<path>".
// Statements pass through rewriteSybase first. The database file is
// created if missing and opened in WAL mode with a busy time-out, so several
// connections, from several threads, can share it.
std::unique_ptr<Driver> makeSqliteDriver();

}  // namespace sybconn

#endif
