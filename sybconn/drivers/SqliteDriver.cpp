#include "sybconn/drivers/SqliteDriver.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>
#include <vector>

#include "sybconn/SybUtils.h"
#include "sybconn/drivers/Dialect.h"

namespace sybconn {
namespace {

constexpr int kDefaultBusyTimeoutMs = 5000;
std::atomic<int> g_busyTimeoutMs{kDefaultBusyTimeoutMs};

// Sybase's severity levels, given to SQLite's errors by their kind.
const int kClientErrorSeverity = 9;  // the database file cannot be opened
const int kUserErrorSeverity = 16;   // a fault in the statement
const int kResourceSeverity = 17;    // busy, locked, full, out of memory, I/O
const int kIntegritySeverity = 23;   // the database file is damaged

int severityOf(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
      return kResourceSeverity;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return kIntegritySeverity;
    default:
      return kUserErrorSeverity;
  }
}

// Every error of a statement (prepare, step, pragma, attach) reaches the error
// handler this one way: as a message of the server, numbered by SQLite's
// (extended) result code.
void reportStatementError(sqlite3* db, int rc, const std::string& server) {
  SybaseStatus st;
  st.msgno = rc;
  st.srvSeverity = severityOf(rc);
  st.msgtext = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
  st.srvname = server;
  reportError(st);
}

// The rows and outcome of the batch's last statement. A select's rows are
// stepped one at a time from its statement, which is finalized once they are
// exhausted or discarded.
class SqliteCursor : public Cursor {
 public:
  // A batch without rows to stream: failed, or its last command's count.
  SqliteCursor(bool succeeded, long count) : succeeded_(succeeded), rowCount_(count) {}
  // The last statement of a batch, already stepped once: `rowPending` when
  // that step gave a row (streamed from here), else it is finished and
  // `count` is its affected-row count.
  SqliteCursor(sqlite3_stmt* stmt, bool rowPending, long count, std::shared_ptr<const std::string> server)
      : stmt_(stmt), server_(std::move(server)), succeeded_(true), rowCount_(count), pending_(rowPending) {
    columns_ = sqlite3_column_count(stmt_);
    names_.reserve(static_cast<size_t>(columns_));
    for (int i = 0; i != columns_; ++i) {
      const char* n = sqlite3_column_name(stmt_, i);
      names_.emplace_back(n ? n : "");
    }
    if (!pending_) finalize();
  }
  ~SqliteCursor() override { finalize(); }

  bool succeeded() const override { return succeeded_; }
  bool hasRows() const override { return columns_ > 0; }
  int columnCount() const override { return columns_; }
  std::string columnName(int col) const override {
    return col >= 1 && col <= columns_ ? names_[static_cast<size_t>(col - 1)] : std::string();
  }

  bool next() override {
    positioned_ = false;
    if (!stmt_) return false;
    if (pending_) {
      pending_ = false;
    } else if (!step()) {
      return false;
    }
    positioned_ = true;
    ++rowCount_;
    return true;
  }

  bool isNull(int col) const override {
    return !valid(col) || sqlite3_column_type(stmt_, col - 1) == SQLITE_NULL;
  }
  std::string getString(int col) const override {
    if (!valid(col)) return std::string();
    const unsigned char* t = sqlite3_column_text(stmt_, col - 1);
    if (!t) return std::string();
    return std::string(reinterpret_cast<const char*>(t),
                       static_cast<size_t>(sqlite3_column_bytes(stmt_, col - 1)));
  }
  long getLong(int col) const override {
    return valid(col) ? static_cast<long>(sqlite3_column_int64(stmt_, col - 1)) : 0L;
  }
  double getDouble(int col) const override {
    return valid(col) ? sqlite3_column_double(stmt_, col - 1) : 0.0;
  }
  timeval getDate(int col) const override;

  // Reads and discards what is left, so the count is the command's total.
  void release() override {
    positioned_ = false;
    if (!stmt_) return;
    if (pending_) {
      pending_ = false;
      ++rowCount_;
    }
    while (step()) ++rowCount_;
  }
  long rowCount() const override { return rowCount_; }

 private:
  bool valid(int col) const { return positioned_ && stmt_ && col >= 1 && col <= columns_; }

  // Steps to the next row. At the end, or when the step fails (reported, and
  // the result fails with it), the statement is finalized and false returned.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) {
      reportStatementError(sqlite3_db_handle(stmt_), rc, *server_);
      succeeded_ = false;
    }
    finalize();
    return false;
  }
  void finalize() {
    if (stmt_) sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }

  sqlite3_stmt* stmt_ = nullptr;  // null once the rows are exhausted or discarded
  std::shared_ptr<const std::string> server_;
  bool succeeded_;
  long rowCount_;
  int columns_ = 0;
  std::vector<std::string> names_;
  bool pending_ = false;  // the first row has been stepped to but not handed out
  bool positioned_ = false;
};

timeval SqliteCursor::getDate(int col) const {
  timeval tv{0, 0};
  if (!valid(col)) return tv;
  switch (sqlite3_column_type(stmt_, col - 1)) {
    case SQLITE_INTEGER:
      tv.tv_sec = static_cast<time_t>(sqlite3_column_int64(stmt_, col - 1));
      break;
    case SQLITE_FLOAT: {
      const double d = sqlite3_column_double(stmt_, col - 1);
      if (std::isfinite(d) && std::fabs(d) < 1e15) {
        const double whole = std::floor(d);
        tv.tv_sec = static_cast<time_t>(whole);
        tv.tv_usec = static_cast<suseconds_t>(std::lround((d - whole) * 1e6));
        if (tv.tv_usec >= 1000000) {
          tv.tv_sec += 1;
          tv.tv_usec -= 1000000;
        }
      }
      break;
    }
    case SQLITE_TEXT:
      SybUtils::parseDate(getString(col), tv);
      break;
    default:
      break;
  }
  return tv;
}

// `text` between quotes `q`, a quote inside it doubled: a literal ('),
// or a name (").
std::string quoted(const std::string& text, char q) {
  std::string s(1, q);
  for (char ch : text) {
    s += ch;
    if (ch == q) s += q;
  }
  return s += q;
}

// True when only white space, semicolons and comments follow: no further
// statement.
bool onlyBlanksFollow(const char* p, const char* end) {
  while (p < end) {
    if (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == ';' || *p == '\f' || *p == '\v') {
      ++p;
    } else if (p + 1 < end && p[0] == '-' && p[1] == '-') {
      while (p < end && *p != '\n') ++p;
    } else if (p + 1 < end && p[0] == '/' && p[1] == '*') {
      const char* q = p + 2;
      while (q + 1 < end && !(q[0] == '*' && q[1] == '/')) ++q;
      p = std::min(q + 2, end);  // an unclosed comment runs to the end
    } else {
      return false;
    }
  }
  return true;
}

class SqliteDriver : public Driver {
 public:
  ~SqliteDriver() override { disconnect(); }

  bool connect(const std::string& target, const std::string&, const std::string&) override {
    disconnect();
    server_ = std::make_shared<const std::string>("sqlite:" + target);
    // A login serves one thread at a time (the pool hands it out whole, and
    // release detaches its result sets), so SQLite's own per-call mutex would
    // only cost time on every column read.
    const int rc = sqlite3_open_v2(
        target.c_str(), &db_,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
      reportOpenError(target, rc);
      return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, g_busyTimeoutMs.load());
    // WAL lets readers and one writer work at once from several connections.
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    locateSiblings(target);
    return true;
  }

  bool isConnected() const override { return db_ != nullptr; }

  void disconnect() override {
    releaseCurrent();
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
  }

  std::shared_ptr<Cursor> execute(const std::string& sql) override {
    releaseCurrent();
    if (!db_) return failed();
    // Most statements need no rewrite; they run from the caller's text.
    if (!mayNeedRewrite(sql)) return current_ = runBatch(sql);
    const DialectResult r = rewriteSybase(sql, DialectTarget::Sqlite, home_);
    for (const auto& dbName : r.databases)
      if (!attach(dbName)) return current_ = failed();
    return current_ = runBatch(r.sql);
  }

  // Every level is a savepoint, the outermost one too: SQLite opens its
  // transaction with the first one and commits it with its release.
  std::shared_ptr<Cursor> transaction(TxVerb verb, const std::string& name, bool) override {
    const std::string id = quoted(name, '"');
    return execute(verb == TxVerb::Begin    ? "SAVEPOINT " + id
                   : verb == TxVerb::Commit ? "RELEASE " + id
                                            : "ROLLBACK TO " + id + "; RELEASE " + id);
  }

  // One prepared statement, bound and stepped once a row, inside the level
  // the caller opened: no statement text and no parse per row.
  long insertRows(const std::string& table, const std::vector<std::string>& columns, RowSource& rows,
                  long& failedRow) override {
    releaseCurrent();
    failedRow = -1;
    if (!db_) return -1;
    const size_t columnCount = columns.size();
    std::string sql = "insert into " + table + " (" + joinColumns(columns) + ") values (";
    for (size_t i = 0; i < columnCount; ++i) sql += i == 0 ? "?" : ",?";
    sql += ')';
    if (mayNeedRewrite(sql)) {
      DialectResult r = rewriteSybase(sql, DialectTarget::Sqlite, home_);
      for (const auto& dbName : r.databases)
        if (!attach(dbName)) return -1;
      sql = std::move(r.sql);
    }
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr);
    if (rc != SQLITE_OK) {
      report(rc);
      return -1;
    }
    long n = 0;
    for (const SqlValue* v; (v = rows.next()) != nullptr; ++n) {
      for (size_t c = 0; c < columnCount; ++c) {
        const int col = static_cast<int>(c) + 1;
        switch (v[c].kind) {
          case SqlValue::Kind::Null:
            sqlite3_bind_null(stmt, col);
            break;
          case SqlValue::Kind::Integer:
            sqlite3_bind_int64(stmt, col, v[c].integer);
            break;
          case SqlValue::Kind::Text:
            sqlite3_bind_text(stmt, col, v[c].text.data(), static_cast<int>(v[c].text.size()), SQLITE_STATIC);
            break;
        }
      }
      rc = sqlite3_step(stmt);
      if (rc != SQLITE_DONE) {
        report(rc);
        failedRow = n;
        sqlite3_finalize(stmt);
        return -1;
      }
      sqlite3_reset(stmt);
    }
    sqlite3_finalize(stmt);
    return n;
  }

  long rowCount() const override { return current_ ? current_->rowCount() : -1; }
  void detachResults() override { releaseCurrent(); }

 private:
  static std::shared_ptr<SqliteCursor> failed() { return std::make_shared<SqliteCursor>(false, -1); }

  // Runs the statements of a batch in turn and stops at the first that fails.
  // The result is the last statement's: its rows are left to the cursor.
  std::shared_ptr<SqliteCursor> runBatch(const std::string& text) {
    const char* p = text.c_str();
    const char* const end = p + text.size();
    while (p < end) {
      sqlite3_stmt* stmt = nullptr;
      const char* tail = nullptr;
      const int rc = sqlite3_prepare_v2(db_, p, static_cast<int>(end - p), &stmt, &tail);
      if (rc != SQLITE_OK) {
        report(rc);
        return failed();
      }
      p = tail;
      if (!stmt) continue;  // white space or a comment only
      if (onlyBlanksFollow(p, end)) return runLast(stmt);
      if (!runToEnd(stmt)) return failed();
    }
    return std::make_shared<SqliteCursor>(true, 0);
  }

  // Steps a statement that is not the batch's last through all its rows and
  // finalizes it; false (reported) when a step fails.
  bool runToEnd(sqlite3_stmt* stmt) {
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    }
    if (rc != SQLITE_DONE) report(rc);
    sqlite3_finalize(stmt);
    return rc == SQLITE_DONE;
  }

  // The batch's last statement: the cursor streams a select's rows from the
  // first one, and holds a write's affected-row count.
  std::shared_ptr<SqliteCursor> runLast(sqlite3_stmt* stmt) {
    const sqlite3_int64 changesBefore = sqlite3_total_changes64(db_);
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) return std::make_shared<SqliteCursor>(stmt, true, 0, server_);
    if (rc != SQLITE_DONE) {
      report(rc);
      sqlite3_finalize(stmt);
      return failed();
    }
    // A select without rows counts 0; a statement that changed nothing keeps
    // the count of an earlier one in sqlite3_changes, so it is checked first.
    long count = 0;
    if (sqlite3_column_count(stmt) == 0 && sqlite3_total_changes64(db_) != changesBefore)
      count = static_cast<long>(sqlite3_changes64(db_));
    return std::make_shared<SqliteCursor>(stmt, false, count, server_);
  }

  void releaseCurrent() {
    if (current_) current_->release();
    current_.reset();
  }

  // "X..table" names the table of the file X.db in the main file's folder;
  // the main file's own name (without extension) is its home database.
  void locateSiblings(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    dir_ = slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);
    const std::string leaf = slash == std::string::npos ? path : path.substr(slash + 1);
    home_ = leaf.substr(0, leaf.rfind('.'));
    attached_.clear();
  }

  // Attaches the sibling file of database `name` under that name, once.
  bool attach(const std::string& name) {
    std::string lower;
    for (char ch : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (lower == "main" || lower == "temp") return true;
    for (const auto& a : attached_)
      if (a == name) return true;
    const std::string id = quoted(name, '"');
    if (!exec("ATTACH DATABASE " + quoted(dir_ + "/" + name + ".db", '\'') + " AS " + id)) return false;
    // The sibling file works in WAL mode like the main one, so that a reader
    // left open on one connection does not lock writers of the others out.
    if (!exec("PRAGMA " + id + ".journal_mode=WAL")) {
      exec("DETACH DATABASE " + id);
      return false;
    }
    attached_.push_back(name);
    return true;
  }

  bool exec(const std::string& sql) {
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) report(rc);
    return rc == SQLITE_OK;
  }

  void report(int rc) { reportStatementError(db_, rc, *server_); }

  // A file that cannot be opened is an error of the client side: no login.
  void reportOpenError(const std::string& path, int rc) {
    SybaseStatus st;
    st.dbLibSeverity = kClientErrorSeverity;
    st.dberr = rc;
    st.dberrstr =
        "Unable to open database '" + path + "': " + (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    st.srvname = *server_;
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
    reportError(st);
  }

  sqlite3* db_ = nullptr;
  std::shared_ptr<const std::string> server_;
  std::string dir_;
  std::string home_;
  std::vector<std::string> attached_;
  std::shared_ptr<SqliteCursor> current_;
};

}  // namespace

std::unique_ptr<Driver> makeSqliteDriver() { return std::make_unique<SqliteDriver>(); }

void setSqliteBusyTimeoutMs(int ms) { g_busyTimeoutMs.store(ms < 0 ? kDefaultBusyTimeoutMs : ms); }
int sqliteBusyTimeoutMs() { return g_busyTimeoutMs.load(); }

}  // namespace sybconn
