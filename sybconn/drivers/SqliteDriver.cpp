#include "sybconn/drivers/SqliteDriver.h"

#include <sqlite3.h>

#include <atomic>
#include <cmath>
#include <string>
#include <vector>

#include "sybconn/SybUtils.h"
#include "sybconn/drivers/SqliteDialect.h"

namespace sybconn {
namespace {

std::atomic<int> g_busyTimeoutMs{5000};

// Severity given to SQLite's errors: Sybase's user-error level, or the level of
// a resource problem for busy / locked / full / I/O errors.
int severityOf(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
      return 17;
    default:
      return 16;
  }
}

class SqliteDriver;

class SqliteCursor : public Cursor {
 public:
  SqliteCursor(SqliteDriver* owner, sqlite3_stmt* stmt, bool succeeded, long count)
      : owner_(owner), stmt_(stmt), succeeded_(succeeded), rowCount_(count) {
    if (stmt_) {
      columns_ = sqlite3_column_count(stmt_);
      names_.reserve(static_cast<size_t>(columns_));
      for (int i = 0; i < columns_; ++i) {
        const char* n = sqlite3_column_name(stmt_, i);
        names_.emplace_back(n ? n : "");
      }
    }
  }
  ~SqliteCursor() override { finalize(); }

  // Called by execute() once the first step is known to have produced a row.
  void setPendingRow() { pending_ = true; }
  void markDone() {
    done_ = true;
    finalize();
  }

  bool succeeded() const override { return succeeded_; }
  bool hasRows() const override { return columns_ > 0; }
  int columnCount() const override { return columns_; }
  std::string columnName(int col) const override {
    return col >= 1 && col <= columns_ ? names_[static_cast<size_t>(col - 1)] : std::string();
  }

  bool next() override;
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
  timeval getDate(int col) const override {
    timeval tv{0, 0};
    if (!valid(col)) return tv;
    switch (sqlite3_column_type(stmt_, col - 1)) {
      case SQLITE_INTEGER:
        tv.tv_sec = static_cast<time_t>(sqlite3_column_int64(stmt_, col - 1));
        break;
      case SQLITE_FLOAT: {
        const double d = sqlite3_column_double(stmt_, col - 1);
        if (std::isfinite(d) && std::fabs(d) < 1e15) {
          double whole = std::floor(d);
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
  void release() override {
    if (stmt_ && !done_) {
      // Read and discard what is left so the count is the command's total.
      if (pending_) {
        pending_ = false;
        ++rowCount_;
      }
      while (sqlite3_step(stmt_) == SQLITE_ROW) ++rowCount_;
    }
    done_ = true;
    positioned_ = false;
    finalize();
  }
  long rowCount() const override { return rowCount_; }

  // The owning driver is going away or runs another batch.
  void detach() {
    release();
    owner_ = nullptr;
  }

 private:
  bool valid(int col) const { return positioned_ && stmt_ && col >= 1 && col <= columns_; }
  void finalize();

  SqliteDriver* owner_;
  sqlite3_stmt* stmt_;
  bool succeeded_;
  long rowCount_;
  int columns_ = 0;
  std::vector<std::string> names_;
  bool pending_ = false;
  bool positioned_ = false;
  bool done_ = false;
};

class SqliteDriver : public Driver {
 public:
  ~SqliteDriver() override { disconnect(); }

  bool connect(const std::string& target, const std::string&, const std::string&) override {
    disconnect();
    path_ = target;
    const int rc = sqlite3_open_v2(path_.c_str(), &db_,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI, nullptr);
    if (rc != SQLITE_OK) {
      SybaseStatus st;
      st.dbLibSeverity = 9;
      st.dberr = rc;
      st.dberrstr =
          "Unable to open database '" + path_ + "': " + (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
      st.srvname = "sqlite:" + path_;
      if (db_) sqlite3_close_v2(db_);
      db_ = nullptr;
      reportError(st);
      return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, g_busyTimeoutMs.load());
    // WAL lets readers and one writer work at once from several connections.
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    const size_t slash = path_.find_last_of('/');
    dir_ = slash == std::string::npos ? std::string(".") : path_.substr(0, slash == 0 ? 1 : slash);
    const std::string leaf = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    const size_t dot = leaf.rfind('.');
    stem_ = dot == std::string::npos ? leaf : leaf.substr(0, dot);
    attached_.clear();
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
    if (!db_) {
      auto c = std::make_shared<SqliteCursor>(this, nullptr, false, -1);
      return c;
    }
    // Most statements need no rewrite; they run from the caller's text.
    DialectResult r;
    const std::string* text = &sql;
    if (mayNeedRewrite(sql)) {
      r = rewriteSybaseToSqlite(sql, stem_);
      text = &r.sql;
    }
    for (const auto& dbName : r.databases) {
      if (!attach(dbName)) return finish(std::make_shared<SqliteCursor>(this, nullptr, false, -1));
    }
    const char* p = text->c_str();
    const char* end = p + text->size();
    sqlite3_stmt* stmt = nullptr;
    long count = -1;
    bool any = false;
    while (p < end) {
      const char* tail = nullptr;
      int rc = sqlite3_prepare_v2(db_, p, static_cast<int>(end - p), &stmt, &tail);
      if (rc != SQLITE_OK) {
        report(rc);
        return finish(std::make_shared<SqliteCursor>(this, nullptr, false, -1));
      }
      p = tail;
      if (!stmt) continue;  // white space or a comment only
      any = true;
      const bool last = onlyBlanksFollow(p, end);
      const sqlite3_int64 before = sqlite3_total_changes64(db_);
      rc = sqlite3_step(stmt);
      if (rc == SQLITE_ROW && last) {
        // The batch's result: streamed by the cursor, first row already read.
        auto c = std::make_shared<SqliteCursor>(this, stmt, true, 0);
        c->setPendingRow();
        return finish(c);
      }
      long rows = 0;
      while (rc == SQLITE_ROW) {
        ++rows;
        rc = sqlite3_step(stmt);
      }
      if (rc != SQLITE_DONE) {
        report(rc);
        sqlite3_finalize(stmt);
        return finish(std::make_shared<SqliteCursor>(this, nullptr, false, -1));
      }
      if (sqlite3_column_count(stmt) > 0) {
        count = rows;
      } else {
        count = sqlite3_total_changes64(db_) != before ? static_cast<long>(sqlite3_changes64(db_)) : 0L;
      }
      if (last) {
        auto c = std::make_shared<SqliteCursor>(this, stmt, true, count);
        c->markDone();
        return finish(c);
      }
      sqlite3_finalize(stmt);
      stmt = nullptr;
    }
    (void)any;
    return finish(std::make_shared<SqliteCursor>(this, nullptr, true, count < 0 ? 0 : count));
  }

  long rowCount() const override { return current_ ? current_->rowCount() : -1; }

  void cursorGone(SqliteCursor*) {}

 private:
  static bool onlyBlanksFollow(const char* p, const char* end) {
    // A tail of white space, semicolons and comments holds no further statement.
    while (p < end) {
      if (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == ';' || *p == '\f' || *p == '\v') {
        ++p;
      } else if (p + 1 < end && p[0] == '-' && p[1] == '-') {
        while (p < end && *p != '\n') ++p;
      } else if (p + 1 < end && p[0] == '/' && p[1] == '*') {
        const char* q = p + 2;
        while (q + 1 < end && !(q[0] == '*' && q[1] == '/')) ++q;
        p = q + 2 > end ? end : q + 2;
      } else {
        return false;
      }
    }
    return true;
  }

  std::shared_ptr<Cursor> finish(std::shared_ptr<SqliteCursor> c) {
    current_ = c;
    return c;
  }

  void releaseCurrent() {
    if (current_) current_->detach();
    current_.reset();
  }

  bool attach(const std::string& name) {
    std::string lower;
    for (char ch : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (lower == "main" || lower == "temp") return true;
    for (const auto& a : attached_)
      if (a == name) return true;
    std::string file = dir_ + "/" + name + ".db";
    std::string sql = "ATTACH DATABASE '";
    for (char ch : file) {
      sql += ch;
      if (ch == '\'') sql += '\'';
    }
    sql += "' AS \"" + name + "\"";
    // The sibling file works in WAL mode like the main one, so that a reader
    // left open on one connection does not lock writers of the others out.
    if (!exec(sql)) return false;
    if (!exec("PRAGMA \"" + name + "\".journal_mode=WAL")) {
      exec("DETACH DATABASE \"" + name + "\"");
      return false;
    }
    attached_.push_back(name);
    return true;
  }

  bool exec(const std::string& sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
    sqlite3_free(err);
    if (rc != SQLITE_OK) {
      report(rc);
      return false;
    }
    return true;
  }

  void report(int rc) {
    SybaseStatus st;
    st.msgno = rc != 0 ? rc : 1;
    st.srvSeverity = severityOf(rc);
    st.msgtext = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    st.srvname = "sqlite:" + path_;
    st.line = 1;
    reportError(st);
  }

  sqlite3* db_ = nullptr;
  std::string path_;
  std::string dir_;
  std::string stem_;
  std::vector<std::string> attached_;
  std::shared_ptr<SqliteCursor> current_;
};

bool SqliteCursor::next() {
  if (done_ || !stmt_) {
    positioned_ = false;
    return false;
  }
  if (pending_) {
    pending_ = false;
    positioned_ = true;
    ++rowCount_;
    return true;
  }
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) {
    positioned_ = true;
    ++rowCount_;
    return true;
  }
  positioned_ = false;
  if (rc != SQLITE_DONE) {
    SybaseStatus st;
    st.msgno = rc;
    st.srvSeverity = severityOf(rc);
    st.msgtext = sqlite3_errmsg(sqlite3_db_handle(stmt_));
    st.srvname = "sqlite";
    reportError(st);
    succeeded_ = false;
  }
  done_ = true;
  finalize();
  return false;
}

void SqliteCursor::finalize() {
  if (stmt_) sqlite3_finalize(stmt_);
  stmt_ = nullptr;
}

}  // namespace

std::unique_ptr<Driver> makeSqliteDriver() { return std::make_unique<SqliteDriver>(); }

void setSqliteBusyTimeoutMs(int ms) { g_busyTimeoutMs.store(ms < 0 ? 0 : ms); }
int sqliteBusyTimeoutMs() { return g_busyTimeoutMs.load(); }

}  // namespace sybconn
