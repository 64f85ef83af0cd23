#ifndef SYBCONN_SYBASECONNECTION_H
#define SYBCONN_SYBASECONNECTION_H

#include <memory>
#include <string>
#include <vector>

#include <sybconn/SqlRows.h>
#include <sybconn/SybaseResultSet.h>
#include <sybconn/SybaseStatus.h>

namespace sybconn {
class Driver;
enum class TxVerb;
}  // namespace sybconn

// One database login. The server name selects the backend:
//   "sqlite:/path/to/file.db"  embedded SQLite (file created if missing);
//                              "X..table" in a statement refers to the sibling
//                              file X.db, attached as X on first use
//   "postgresql://[user[:password]@]host[:port][/db][?param=value...]" (or
//   "postgres://...")          PostgreSQL over libpq; the URI's own user,
//                              password and database win over the ones given
//   "host:port" or a name from freetds.conf / interfaces   FreeTDS DB-Library
// Errors never throw: they reach the process-wide error handler as a
// SybaseStatus and show in isConnected() / commandSucceeded().
// Thread safety: a SybaseConnection is used by one thread at a time; different objects may be used on
// different threads at once, and the error handler runs on the thread whose login or statement failed.
class SybaseConnection {
 public:
  using ErrorHandler = void (*)(const SybaseStatus&);

  SybaseConnection();
  ~SybaseConnection();
  SybaseConnection(const SybaseConnection&) = delete;
  SybaseConnection& operator=(const SybaseConnection&) = delete;

  // Logs in. Returns 0 on success, -1 on failure (reported through the handler).
  // A connection that is already logged in is logged out first.
  int connect(const std::string& server, const std::string& user, const std::string& password);
  bool isConnected() const;
  void disconnect();

  // Sends one SQL batch. The previous batch's result set is released first.
  // Without a login the result is an empty result set (commandSucceeded() 0).
  SybaseResultSet execute(const std::string& sql);

  // Nested named transactions. beginTransaction opens a level called `name`;
  // commitTransaction and rollbackTransaction end the innermost level, which
  // must be called `name` (else nothing is sent and the handler is told).
  // The outermost level is the server's transaction, inner ones savepoints
  // within it (nested transactions on Sybase). A level counts as open or
  // ended only when the server took the step. Levels still open are
  // forgotten at disconnect.
  SybaseResultSet beginTransaction(const std::string& name);
  SybaseResultSet commitTransaction(const std::string& name);
  SybaseResultSet rollbackTransaction(const std::string& name);
  // The number of levels open.
  size_t transactionLevels() const { return levels_.size(); }

  // Inserts every row of `rows` into `table` under `columns`, all or none:
  // inside a transaction level of its own (nested in any level open), rolled
  // back when a row fails. Returns the number of rows written, or -1 with the
  // server's message reported through the handler; `failedRow` is then the
  // index of the refused row, or -1 when no single row is to blame. After a
  // failure the login stays usable and the levels open before stay open.
  long insertRows(const std::string& table, const std::vector<std::string>& columns, sybconn::RowSource& rows,
                  long& failedRow);

  // The affected-row count of the connection's current command (DB-Library's
  // dbcount): rows changed by a write, rows read by a select; -1 if unknown.
  long rowCount() const;

  // Reads off the pending results of the last batch and detaches its result
  // set: from then on that result set reads as ended and never touches this
  // login. Called before the login passes to another holder.
  void releaseResults();

  const std::string& server() const { return server_; }

  // Installs the process-wide handler for server messages and client errors;
  // returns the previous one. Null restores the library's own handler.
  static ErrorHandler setErrorHandler(ErrorHandler handler);
  static ErrorHandler errorHandler();
  // The library's own handler: logs messages of severity above 0 at ERROR.
  static void defaultErrorHandler(const SybaseStatus& status);

 private:
  // Reports and returns false when no login is open.
  bool loggedIn() const;
  SybaseResultSet transaction(sybconn::TxVerb verb, const std::string& name);

  std::unique_ptr<sybconn::Driver> driver_;
  std::string server_;
  std::vector<std::string> levels_;  // names of the open transaction levels, outermost first
};

#endif
