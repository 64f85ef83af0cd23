#ifndef SYBCONN_DRIVER_H
#define SYBCONN_DRIVER_H

#include <sys/time.h>

#include <memory>
#include <string>
#include <vector>

#include <sybconn/SqlRows.h>
#include <sybconn/SybaseStatus.h>

// The seam between the connection library's public classes and its backends.
// A driver owns one login; a cursor is the result of one executed batch.
// SybaseConnection picks the driver from the server name given to connect():
//   "sqlite:<path>"  the embedded SQLite driver (sybconn/drivers/SqliteDriver)
//   "postgresql://..." or "postgres://..."
//                    the PostgreSQL driver over libpq (sybconn/drivers/PostgresDriver)
//   anything else    the FreeTDS DB-Library driver (sybconn/drivers/FreeTdsDriver)
namespace sybconn {

// The rows and outcome of one batch. Positioned before the first row; rows are
// streamed from the backend, never copied in full. After release() (or after
// the owning driver executes another batch, detaches its results or
// disconnects) next() is false and the column readers return empty values;
// every call stays safe.
class Cursor {
 public:
  virtual ~Cursor() = default;
  // True when the last command of the batch succeeded.
  virtual bool succeeded() const = 0;
  // True when the batch's last command returned rows (a select).
  virtual bool hasRows() const = 0;
  virtual bool next() = 0;
  virtual int columnCount() const = 0;
  // Columns are counted from 1. Out-of-range columns read as NULL / empty.
  virtual std::string columnName(int col) const = 0;
  virtual bool isNull(int col) const = 0;
  virtual std::string getString(int col) const = 0;
  virtual long getLong(int col) const = 0;
  virtual double getDouble(int col) const = 0;
  virtual timeval getDate(int col) const = 0;
  // Discards the rows not read yet, so the login can take the next command.
  // Idempotent.
  virtual void release() = 0;
  // The affected-row count of the command: for a write the rows changed, for
  // a select the rows read so far (all of them after release()); -1 if unknown.
  virtual long rowCount() const = 0;
};

// A step of the nested named transactions (SybaseConnection::beginTransaction
// and the like).
enum class TxVerb { Begin, Commit, Rollback };

class Driver {
 public:
  virtual ~Driver() = default;
  // Logs in; `target` is the server name with any driver prefix removed (a
  // PostgreSQL URI is passed whole: its scheme is libpq's).
  // Failures are reported through reportError() and return false.
  virtual bool connect(const std::string& target, const std::string& user, const std::string& password) = 0;
  virtual bool isConnected() const = 0;
  virtual void disconnect() = 0;
  // Sends one batch. The cursor of the previous batch is released first.
  // Never null: a failed batch gives a cursor whose succeeded() is false.
  virtual std::shared_ptr<Cursor> execute(const std::string& sql) = 0;
  // Opens a transaction level called `name` (Begin), or commits or rolls back
  // the innermost open level, which is called `name`. `outermost` is true
  // when the level is the first one open: the server's own transaction;
  // levels inside it are savepoints or the server's nested transactions.
  // SybaseConnection keeps the levels and checks the names; a driver maps the
  // step onto its server's statements. Never null, like execute().
  virtual std::shared_ptr<Cursor> transaction(TxVerb verb, const std::string& name, bool outermost) = 0;
  // Inserts every row of `rows` into `table` (a name as the library writes
  // it, "db..table" included) under `columns`, as fast as the backend allows: SQLite reuses one
  // prepared statement, PostgreSQL sends COPY, FreeTDS sends many inserts a
  // round trip. SybaseConnection calls it inside a transaction level it
  // opened and rolls that level back on failure, so a driver need not undo
  // rows it wrote. Returns the number of rows written, or -1 after reporting
  // the server's message through reportError(); `failedRow` is then the index
  // of the row the server refused, or -1 when no row is to blame (a lost
  // login, a missing table). The login stays usable either way.
  virtual long insertRows(const std::string& table, const std::vector<std::string>& columns, RowSource& rows,
                          long& failedRow) = 0;
  // Affected-row count of the current (last executed) command, -1 if none.
  virtual long rowCount() const = 0;
  // Reads off the pending results of the last batch and cuts its cursor loose:
  // from then on the cursor reads as ended and never touches this login, so
  // the login can pass to another thread while the cursor is still held.
  virtual void detachResults() = 0;
};

// Hands a status record to the process-wide error handler currently installed.
void reportError(const SybaseStatus& status);

// Builds the driver that serves `server` and sets `target` to the name the
// driver connects to. Returns null (after reporting an error) when no driver
// serves the name.
std::unique_ptr<Driver> makeDriver(const std::string& server, std::string& target);

}  // namespace sybconn

#endif
