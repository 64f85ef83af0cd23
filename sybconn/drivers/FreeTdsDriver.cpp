#include "sybconn/drivers/FreeTdsDriver.h"

// clang-format off
#include <sybfront.h>
#include <sybdb.h>
#include <syberror.h>
// clang-format on

#include <iconv.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cfloat>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "sybconn/SybUtils.h"

namespace sybconn {
namespace {

std::atomic<int> g_loginTimeout{15};
std::atomic<int> g_queryTimeout{0};
std::mutex g_versionMutex;
std::string g_tdsVersion;  // guarded by g_versionMutex
std::once_flag g_initOnce;
std::mutex g_timeoutMutex;  // serialises the calls that set DB-Library's process-wide time-outs

// The driver whose login is in progress on this thread: DB-Library reports
// login errors before the DBPROCESS exists.
thread_local class FreeTdsDriver* t_loggingIn = nullptr;

int errHandler(DBPROCESS* dbproc, int severity, int dberr, int oserr, char* dberrstr, char* oserrstr);
int msgHandler(DBPROCESS* dbproc, DBINT msgno, int msgstate, int severity, char* msgtext, char* srvname,
               char* procname, int line);

void initOnce() {
  std::call_once(g_initOnce, [] {
    // Each login converts between UTF-8 and the server's UTF-16 or ISO-8859-1
    // through iconv, whose modules glibc loads on first use and unloads when
    // their last user closes. Held open for the life of the process, they
    // load once: logins opened at once on several threads neither load and
    // unload them in turn nor race in the dynamic loader doing so.
    static iconv_t pinned[] = {iconv_open("UTF-16LE", "UTF-8"), iconv_open("ISO-8859-1", "UTF-8")};
    (void)pinned;
    dbinit();
    dberrhandle(errHandler);
    dbmsghandle(msgHandler);
  });
}

BYTE versionCode(const std::string& v) {
  if (v == "5.0") return DBVERSION_100;
  if (v == "7.0") return DBVERSION_70;
  if (v == "7.1") return DBVERSION_71;
  if (v == "7.2") return DBVERSION_72;
  if (v == "7.3") return DBVERSION_73;
  if (v == "7.4") return DBVERSION_74;
  return DBVERSION_UNKNOWN;
}

bool isTextType(int type) {
  return type == SYBCHAR || type == SYBVARCHAR || type == SYBTEXT || type == SYBNVARCHAR || type == SYBNTEXT;
}

// DB-Library's DATETIME counts the time of day in 1/300 s.
const long long kTicksPerSecond = 300;

bool isDateType(int type) { return type == SYBDATETIME || type == SYBDATETIME4 || type == SYBDATETIMN; }

// The steps of a transaction level on a SQL Server (TDS 7.x), which has no
// "commit NAME" or "rollback NAME": a name needs the TRAN keyword, and
// ROLLBACK TRAN takes only the outermost transaction's name or a savepoint's.
// The outermost level keeps its name; an inner level is a nested BEGIN TRAN
// (so @@trancount is the level) with a savepoint of its name, which its
// rollback returns to before its COMMIT TRAN closes the level.
std::vector<std::string> sqlServerSteps(TxVerb verb, const std::string& name, bool outermost) {
  if (outermost) {
    return {(verb == TxVerb::Begin    ? "BEGIN TRAN "
             : verb == TxVerb::Commit ? "COMMIT TRAN "
                                      : "ROLLBACK TRAN ") +
            name};
  }
  if (verb == TxVerb::Begin) return {"BEGIN TRAN", "SAVE TRAN " + name};
  if (verb == TxVerb::Commit) return {"COMMIT TRAN"};
  return {"ROLLBACK TRAN " + name, "COMMIT TRAN"};
}

class FreeTdsCursor;

class FreeTdsDriver : public Driver {
 public:
  ~FreeTdsDriver() override { disconnect(); }

  bool connect(const std::string& target, const std::string& user, const std::string& password) override;
  bool isConnected() const override { return dbproc_ != nullptr && !DBDEAD(dbproc_); }
  void disconnect() override;
  std::shared_ptr<Cursor> execute(const std::string& sql) override;
  std::shared_ptr<Cursor> transaction(TxVerb verb, const std::string& name, bool outermost) override;
  // Sends one batch as written.
  std::shared_ptr<Cursor> run(const std::string& sql);
  long insertRows(const std::string& table, const std::vector<std::string>& columns, RowSource& rows,
                  long& failedRow) override;
  long rowCount() const override { return lastCount_; }
  void detachResults() override;

  DBPROCESS* dbproc() const { return dbproc_; }
  void setCount(long c) { lastCount_ = c; }
  const std::string& server() const { return server_; }
  // The commands of the batch under way: one finished (a DONE that dbsqlexec
  // or dbresults read), refused by the server or not.
  void noteCommand(bool refused) {
    if (refused) noteRefusal();
    ++commandsRead_;
  }
  // A server error (severity over 10) came while the command after the
  // finished ones was being read: that command is refused.
  void noteRefusal() {
    if (firstRefused_ < 0) firstRefused_ = commandsRead_;
  }

 private:
  std::string server_;
  DBPROCESS* dbproc_ = nullptr;
  std::weak_ptr<FreeTdsCursor> cursor_;
  long lastCount_ = -1;
  long commandsRead_ = 0;   // commands of the last batch finished so far
  long firstRefused_ = -1;  // the first of them the server refused, -1 if none
  std::string batchText_;   // the text of insertRows' batches
};

class FreeTdsCursor : public Cursor {
 public:
  FreeTdsCursor(FreeTdsDriver* owner, bool ok) : owner_(owner), succeeded_(ok) {
    if (ok)
      readResults(true);
    else
      finish();
  }
  // A result set given up before its end still holds the login's pending
  // results: read them off now, so the next command can be sent and the
  // affected-row count is the server's.
  ~FreeTdsCursor() override {
    if (live()) release();
  }

  bool succeeded() const override { return succeeded_; }
  bool hasRows() const override { return !names_.empty(); }
  int columnCount() const override { return static_cast<int>(names_.size()); }
  std::string columnName(int col) const override {
    if (col < 1 || col > static_cast<int>(names_.size())) return std::string();
    return names_[static_cast<size_t>(col - 1)];
  }

  bool next() override {
    if (!live() || !inRows_) return false;
    DBPROCESS* p = owner_->dbproc();
    STATUS s = dbnextrow(p);
    // Compute rows and buffered rows are not used by this library: skipped.
    while (s != REG_ROW && s != NO_MORE_ROWS && s != FAIL) s = dbnextrow(p);
    if (s == REG_ROW) {
      ++read_;
      owner_->setCount(read_);
      return true;
    }
    if (s == NO_MORE_ROWS) {
      endRows();
      readResults(false);
    } else {
      succeeded_ = false;
      endRows();
      finish();
    }
    return false;
  }

  bool isNull(int col) const override { return !valid(col) || dbdata(owner_->dbproc(), col) == nullptr; }

  std::string getString(int col) const override {
    if (!valid(col)) return std::string();
    DBPROCESS* p = owner_->dbproc();
    BYTE* data = dbdata(p, col);
    if (!data) return std::string();
    int type = dbcoltype(p, col);
    DBINT len = dbdatlen(p, col);
    if (isTextType(type)) return std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(len));
    if (isDateType(type)) {
      DBDATETIME dt;
      if (dbconvert(p, type, data, len, SYBDATETIME, reinterpret_cast<BYTE*>(&dt), sizeof dt) <= 0) return {};
      DBDATEREC rec;
      if (dbdatecrack(p, &rec, &dt) != SUCCEED) return {};
      char buf[40];
      std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", rec.dateyear, rec.datemonth + 1,
                    rec.datedmonth, rec.datehour, rec.dateminute, rec.datesecond, rec.datemsecond);
      return buf;
    }
    if (type == SYBFLT8 || type == SYBREAL || type == SYBFLTN) {
      // The shortest text that reads back as the same value (0.81, not
      // 0.81000000000000005), as the server's own tools print it.
      const double v = getDouble(col);
      const bool single = type == SYBREAL || (type == SYBFLTN && dbdatlen(p, col) == 4);
      char buf[40];
      for (int digits = single ? FLT_DIG : DBL_DIG; digits <= DBL_DECIMAL_DIG; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, v);
        const double back = std::strtod(buf, nullptr);
        if (single ? static_cast<float>(back) == static_cast<float>(v) : back == v) break;
      }
      return buf;
    }
    char buf[256];
    DBINT n = dbconvert(p, type, data, len, SYBCHAR, reinterpret_cast<BYTE*>(buf), sizeof buf - 1);
    if (n < 0) return std::string();
    return std::string(buf, static_cast<size_t>(n));
  }

  long getLong(int col) const override {
    if (!valid(col)) return 0;
    DBPROCESS* p = owner_->dbproc();
    BYTE* data = dbdata(p, col);
    if (!data) return 0;
    int type = dbcoltype(p, col);
    if (isTextType(type)) return std::strtol(getString(col).c_str(), nullptr, 10);
    if (isDateType(type)) return static_cast<long>(getDate(col).tv_sec);
    DBBIGINT v = 0;
    if (dbconvert(p, type, data, dbdatlen(p, col), SYBINT8, reinterpret_cast<BYTE*>(&v), sizeof v) <= 0)
      return 0;
    return static_cast<long>(v);
  }

  double getDouble(int col) const override {
    if (!valid(col)) return 0.0;
    DBPROCESS* p = owner_->dbproc();
    BYTE* data = dbdata(p, col);
    if (!data) return 0.0;
    int type = dbcoltype(p, col);
    if (isTextType(type)) return std::strtod(getString(col).c_str(), nullptr);
    DBFLT8 v = 0;
    // A number converts to exactly the eight bytes of a DBFLT8, or fails.
    const DBINT size = sizeof v;
    if (dbconvert(p, type, data, dbdatlen(p, col), SYBFLT8, reinterpret_cast<BYTE*>(&v), size) != size)
      return 0;
    return v;
  }

  timeval getDate(int col) const override {
    timeval tv{0, 0};
    if (!valid(col)) return tv;
    DBPROCESS* p = owner_->dbproc();
    BYTE* data = dbdata(p, col);
    if (!data) return tv;
    int type = dbcoltype(p, col);
    if (!isDateType(type)) {
      SybUtils::parseDate(getString(col), tv);
      return tv;
    }
    DBDATETIME dt;
    // Anything but a whole DBDATETIME (-1 on failure) leaves the zero time.
    const DBINT full = sizeof dt;
    if (dbconvert(p, type, data, dbdatlen(p, col), SYBDATETIME, reinterpret_cast<BYTE*>(&dt), full) != full)
      return tv;
    // Days since 1900-01-01 and ticks of 1/300 s, taken as local time.
    long long ticks = static_cast<long long>(static_cast<unsigned>(dt.dttime));
    long long ms = (ticks * 1000 + kTicksPerSecond / 3) / kTicksPerSecond;  // rounded as the server does
    long long secOfDay = ms / 1000;
    std::tm tm{};
    tm.tm_year = 0;
    tm.tm_mon = 0;
    tm.tm_mday = 1 + dt.dtdays;
    tm.tm_hour = static_cast<int>(secOfDay / 3600);
    tm.tm_min = static_cast<int>(secOfDay / 60 % 60);
    tm.tm_sec = static_cast<int>(secOfDay % 60);
    tm.tm_isdst = -1;
    tv.tv_sec = std::mktime(&tm);
    tv.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    return tv;
  }

  void release() override {
    if (!live()) return;
    DBPROCESS* p = owner_->dbproc();
    if (inRows_) {
      // Drops the unread rows but keeps reading to the command's final DONE,
      // so the count is the server's.
      dbcanquery(p);
      endRows();
    }
    readResults(false);
  }

  long rowCount() const override { return inRows_ ? read_ : count_; }

  // Called when the owner runs another batch or logs out.
  void detach() {
    if (live()) release();
    owner_ = nullptr;
  }

 private:
  bool live() const { return owner_ != nullptr && !finished_ && owner_->dbproc() != nullptr; }
  bool valid(int col) const { return live() && inRows_ && read_ > 0 && col >= 1 && col <= columnCount(); }

  // Reads the batch's next results. With `stopAtRows` it stops at the first
  // command that returns rows; otherwise it discards rows to the end of the
  // batch. The outcome and count are those of the last command read.
  void readResults(bool stopAtRows) {
    DBPROCESS* p = owner_->dbproc();
    for (;;) {
      const RETCODE r = dbresults(p);
      if (r == NO_MORE_RESULTS) break;
      succeeded_ = r != FAIL;
      if (r == FAIL && DBDEAD(p)) break;
      owner_->noteCommand(r == FAIL);
      if (r == FAIL) continue;
      const int n = dbnumcols(p);
      if (n > 0 && stopAtRows) {
        for (int i = 1; i <= n; ++i) {
          const char* name = dbcolname(p, i);
          names_.emplace_back(name ? name : "");
        }
        inRows_ = true;
        owner_->setCount(0);
        return;
      }
      if (n > 0) dbcanquery(p);
      const long c = DBCOUNT(p);
      if (c >= 0 || n > 0) {
        count_ = c;
        owner_->setCount(c);
      }
    }
    finish();
  }

  // The current command's rows are done: its count is the server's, or the
  // rows read where the server sent none.
  void endRows() {
    inRows_ = false;
    count_ = DBCOUNT(owner_->dbproc());
    if (count_ < 0) count_ = read_;
    owner_->setCount(count_);
  }

  void finish() { finished_ = true; }

  FreeTdsDriver* owner_;
  bool succeeded_;
  bool finished_ = false;
  bool inRows_ = false;
  long read_ = 0;
  long count_ = -1;
  std::vector<std::string> names_;
};

bool FreeTdsDriver::connect(const std::string& target, const std::string& user, const std::string& password) {
  initOnce();
  disconnect();
  server_ = target;
  LOGINREC* login = dblogin();
  if (!login) {
    SybaseStatus st;
    st.dbLibSeverity = EXRESOURCE;
    st.dberr = SYBEMEM;
    st.dberrstr = "Unable to allocate a login record";
    st.srvname = target;
    reportError(st);
    return false;
  }
  DBSETLUSER(login, user.c_str());
  DBSETLPWD(login, password.c_str());
  DBSETLAPP(login, "libDataAccess");
  DBSETLCHARSET(login, "UTF-8");
  BYTE version = versionCode(FreeTdsSettings::tdsVersion());
  if (version != DBVERSION_UNKNOWN) DBSETLVERSION(login, version);
  {
    std::lock_guard<std::mutex> lock(g_timeoutMutex);
    dbsetlogintime(g_loginTimeout.load());
    dbsettime(g_queryTimeout.load());
  }
  t_loggingIn = this;
  DBPROCESS* p = dbopen(login, target.c_str());
  t_loggingIn = nullptr;
  dbloginfree(login);
  if (!p) return false;
  dbsetuserdata(p, reinterpret_cast<BYTE*>(this));
  dbproc_ = p;
  return true;
}

void FreeTdsDriver::detachResults() {
  if (auto c = cursor_.lock()) c->detach();
  cursor_.reset();
}

void FreeTdsDriver::disconnect() {
  detachResults();
  if (dbproc_) {
    dbclose(dbproc_);
    dbproc_ = nullptr;
  }
}

std::shared_ptr<Cursor> FreeTdsDriver::execute(const std::string& sql) { return run(sql); }

// Sybase (TDS 5.0) nests named transactions itself; a SQL Server takes the
// steps above. Each step runs only if the one before it succeeded.
std::shared_ptr<Cursor> FreeTdsDriver::transaction(TxVerb verb, const std::string& name, bool outermost) {
  const std::vector<std::string> steps =
      !isConnected() || dbtds(dbproc_) < DBTDS_7_0
          ? std::vector<std::string>{(verb == TxVerb::Begin    ? "begin Tran "
                                      : verb == TxVerb::Commit ? "commit "
                                                               : "rollback ") +
                                     name}
          : sqlServerSteps(verb, name, outermost);
  for (size_t i = 0; i + 1 < steps.size(); ++i) {
    std::shared_ptr<Cursor> c = run(steps[i]);
    if (!c->succeeded()) return c;
  }
  return run(steps.back());
}

std::shared_ptr<Cursor> FreeTdsDriver::run(const std::string& sql) {
  detachResults();
  lastCount_ = -1;
  commandsRead_ = 0;
  firstRefused_ = -1;
  if (!isConnected()) return std::make_shared<FreeTdsCursor>(this, false);
  // dbsqlexec reads up to the first command's DONE: it fails when the server
  // refused that command. The dbresults calls that follow return the first
  // command (when it succeeded), then one command each.
  const bool sent = dbcmd(dbproc_, sql.c_str()) == SUCCEED;
  const bool ok = sent && dbsqlexec(dbproc_) == SUCCEED;
  if (!ok && !DBDEAD(dbproc_)) {
    if (sent) noteCommand(true);
    // The first command failed: drop whatever else the batch returned.
    dbcancel(dbproc_);
  }
  auto cur = std::make_shared<FreeTdsCursor>(this, ok);
  cursor_ = cur;
  return cur;
}

// Batches of kRowsPerBatch inserts, one a line, each as appendInsert writes
// it, in one text kept by the driver from batch to batch. The batch is read
// to its end before its outcome is taken, so the login stays usable; the
// commands the server finished meanwhile tell which row it refused first (see
// run()). No batch follows a failed one.
long FreeTdsDriver::insertRows(const std::string& table, const std::vector<std::string>& columns,
                               RowSource& rows, long& failedRow) {
  constexpr long kRowsPerBatch = 1000;
  constexpr size_t kKeptText = size_t{4} << 20;  // a larger text is freed afterwards
  failedRow = -1;
  std::string& sql = batchText_;
  sql.reserve(static_cast<size_t>(kRowsPerBatch) * (table.size() + 32 + 16 * columns.size()));
  long written = 0;
  for (;;) {
    sql.clear();
    long n = 0;
    for (const SqlValue* v; n < kRowsPerBatch && (v = rows.next()) != nullptr; ++n) {
      if (n > 0) sql += '\n';
      appendInsert(sql, table, columns, v);
    }
    if (n == 0) break;
    const std::shared_ptr<Cursor> batch = run(sql);
    batch->release();
    if (firstRefused_ >= 0) {
      failedRow = written + std::min(firstRefused_, n - 1);
      written = -1;
    } else if (!batch->succeeded() || !isConnected()) {
      written = -1;
    } else if (commandsRead_ < n) {
      SybaseStatus st;
      st.dbLibSeverity = EXPROGRAM;
      st.dberr = SYBESMSG;
      st.dberrstr = "The server finished " + std::to_string(commandsRead_) + " of the " + std::to_string(n) +
                    " inserts of a batch";
      st.srvname = server_;
      reportError(st);
      written = -1;
    } else {
      written += n;
    }
    if (written < 0 || n < kRowsPerBatch) break;
  }
  if (sql.capacity() > kKeptText) std::string().swap(sql);
  return written;
}

FreeTdsDriver* driverOf(DBPROCESS* dbproc) {
  if (dbproc) {
    BYTE* u = dbgetuserdata(dbproc);
    if (u) return reinterpret_cast<FreeTdsDriver*>(u);
  }
  return t_loggingIn;
}

int errHandler(DBPROCESS* dbproc, int severity, int dberr, int oserr, char* dberrstr, char* oserrstr) {
  SybaseStatus st;
  st.dbLibSeverity = severity;
  st.dberr = dberr;
  st.oserr = oserr;
  if (dberrstr) st.dberrstr = dberrstr;
  if (oserrstr) st.oserrstr = oserrstr;
  FreeTdsDriver* d = driverOf(dbproc);
  if (d) st.srvname = d->server();
  reportError(st);
  // A time-out ends the login or the command, and the login with it. Returning
  // INT_CANCEL is not enough: under TDS 5.0 DB-Library then logs out of the
  // silent server and waits for its own wire lock for ever. Instead the socket
  // is shut down and DB-Library told to read on: the read ends at once, the
  // login is marked dead and the call fails.
  if (dberr == SYBETIME && dbproc) {
    int fd = dbiordesc(dbproc);
    if (fd != -1) {
      ::shutdown(fd, SHUT_RDWR);
      return INT_TIMEOUT;
    }
  }
  return INT_CANCEL;
}

int msgHandler(DBPROCESS* dbproc, DBINT msgno, int msgstate, int severity, char* msgtext, char* srvname,
               char* procname, int line) {
  SybaseStatus st;
  st.msgno = static_cast<int>(msgno);
  st.msgstate = msgstate;
  st.srvSeverity = severity;
  if (msgtext) st.msgtext = msgtext;
  if (srvname) st.srvname = srvname;
  if (procname) st.procname = procname;
  st.line = line;
  FreeTdsDriver* d = driverOf(dbproc);
  if (st.srvname.empty() && d) st.srvname = d->server();
  if (severity > 10 && d) d->noteRefusal();
  reportError(st);
  return 0;
}

}  // namespace

std::unique_ptr<Driver> makeFreeTdsDriver() { return std::make_unique<FreeTdsDriver>(); }

void FreeTdsSettings::setLoginTimeout(int seconds) { g_loginTimeout = seconds > 0 ? seconds : 1; }
int FreeTdsSettings::loginTimeout() { return g_loginTimeout.load(); }
void FreeTdsSettings::setQueryTimeout(int seconds) { g_queryTimeout = seconds < 1 ? 0 : seconds; }
int FreeTdsSettings::queryTimeout() { return g_queryTimeout.load(); }
void FreeTdsSettings::setTdsVersion(const std::string& version) {
  std::lock_guard<std::mutex> lock(g_versionMutex);
  g_tdsVersion = version == "auto" ? std::string() : version;
}
std::string FreeTdsSettings::tdsVersion() {
  std::lock_guard<std::mutex> lock(g_versionMutex);
  return g_tdsVersion;
}

}  // namespace sybconn
