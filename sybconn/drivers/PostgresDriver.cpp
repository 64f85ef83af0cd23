#include "sybconn/drivers/PostgresDriver.h"

#include <libpq-fe.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <daLog/Log.h>

#include "sybconn/SybUtils.h"
#include "sybconn/drivers/Dialect.h"

namespace sybconn {
namespace {

std::atomic<int> g_loginTimeout{15};
std::atomic<int> g_queryTimeout{0};

// Errors of the client side carry DB-Library's numbers and severities, as the
// FreeTDS driver reports them.
const int kTimeSeverity = 6;    // EXTIME
const int kCommSeverity = 9;    // EXCOMM
const int kErrTimeout = 20003;  // SYBETIME
const int kErrConnect = 20009;  // SYBECONN: the login failed or was refused
const int kErrLost = 20017;     // SYBESEOF: the server went away during a command
const int kErrNoTran = 20037;   // SYBERXID: the transaction cannot take the step
const int kErrMemory = 20010;   // SYBEMEM
// The server's severities on Sybase's scale.
const int kWarningSeverity = 10;
const int kErrorSeverity = 16;  // also a fault of the caller's found on the client side
const int kFatalSeverity = 20;
const int kPanicSeverity = 24;

// PostgreSQL's type OIDs read specially.
const Oid kBoolOid = 16;
const Oid kDateOid = 1082;
const Oid kTimestampOid = 1114;
const Oid kTimestampTzOid = 1184;

std::string trimmed(const char* text) {
  std::string s = text ? text : "";
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
  return s;
}

// A SQLSTATE's five characters read as a base-36 number ("42P01" gives
// 6844177): a distinct non-zero message number for every state. "00000", the
// state of a plain notice, gives 1, so that a server message never reads as
// a client error.
int msgnoOf(const std::string& state) {
  int n = 0;
  for (char ch : state) {
    const int digit = std::isdigit(static_cast<unsigned char>(ch)) ? ch - '0'
                      : std::isalpha(static_cast<unsigned char>(ch))
                          ? std::toupper(static_cast<unsigned char>(ch)) - 'A' + 10
                          : 0;
    n = n * 36 + digit;
  }
  return n != 0 ? n : 1;
}

int severityOf(const char* level) {
  const std::string l = level ? level : "";
  if (l == "ERROR") return kErrorSeverity;
  if (l == "FATAL") return kFatalSeverity;
  if (l == "PANIC") return kPanicSeverity;
  if (l == "WARNING") return kWarningSeverity;
  return 0;  // NOTICE, INFO, LOG, DEBUG
}

// The time zone the session is given, so that dates read and written as
// local time are the client's: $TZ (without a leading ':'), else the zone
// that /etc/localtime links to. Empty when neither names one, or when $PGTZ
// is set (libpq sends that itself). A name with characters no zone name has
// is left out rather than failing every login.
std::string sessionTimeZone() {
  if (std::getenv("PGTZ")) return std::string();
  std::string zone;
  if (const char* tz = std::getenv("TZ")) {
    zone = tz[0] == ':' ? tz + 1 : tz;
  } else {
    char link[512];
    const ssize_t n = ::readlink("/etc/localtime", link, sizeof link - 1);
    if (n > 0) {
      const std::string target(link, static_cast<size_t>(n));
      const size_t at = target.find("zoneinfo/");
      if (at != std::string::npos) zone = target.substr(at + 9);
    }
  }
  for (char ch : zone)
    if (!std::isalnum(static_cast<unsigned char>(ch)) && !std::strchr("/_+-,.", ch)) return std::string();
  return zone;
}

}  // namespace

bool parsePostgresDate(std::string text, timeval& tv) {
  long offset = 0;
  bool hasOffset = false;
  const size_t sign = text.size() > 19 ? text.find_last_of("+-") : std::string::npos;
  if (sign != std::string::npos && sign >= 19) {
    int h = 0, m = 0, s = 0;
    if (std::sscanf(text.c_str() + sign + 1, "%d:%d:%d", &h, &m, &s) < 1) return false;
    offset = (text[sign] == '-' ? -1 : 1) * (h * 3600L + m * 60L + s);
    hasOffset = true;
    text.resize(sign);
  }
  timeval local{0, 0};
  if (!SybUtils::parseDate(text, local)) return false;
  if (hasOffset) {
    // parseDate took the fields as local time: move them to UTC, then by
    // the server's offset.
    std::tm tm{};
    const time_t t = local.tv_sec;
    localtime_r(&t, &tm);
    local.tv_sec += tm.tm_gmtoff - offset;
  }
  tv = local;
  return true;
}

namespace {

// The position just past the host part of a "scheme://host/..." URI.
size_t hostPartEnd(const std::string& uri) {
  const size_t start = uri.find("://") + 3;
  const size_t end = uri.find_first_of("/?#", start);
  return end == std::string::npos ? uri.size() : end;
}

// A savepoint name as a quoted identifier: any name works, and the same one
// is written the same way at its opening and its close.
std::string quoted(const std::string& name) {
  std::string q = "\"";
  for (char ch : name) q += ch == '"' ? std::string("\"\"") : std::string(1, ch);
  return q + "\"";
}

class PgCursor;

class PostgresDriver : public Driver {
 public:
  ~PostgresDriver() override { disconnect(); }

  bool connect(const std::string& target, const std::string& user, const std::string& password) override;
  bool isConnected() const override { return conn_ && !broken_ && PQstatus(conn_) == CONNECTION_OK; }
  void disconnect() override;
  std::shared_ptr<Cursor> execute(const std::string& sql) override;
  // The outermost level is the server's transaction, inner ones are
  // savepoints of their name.
  std::shared_ptr<Cursor> transaction(TxVerb verb, const std::string& name, bool outermost) override;
  // One COPY ... FROM STDIN: the rows go in COPY's text format, some 64 KiB
  // a message, from one buffer reused for the whole call.
  long insertRows(const std::string& table, const std::vector<std::string>& columns, RowSource& rows,
                  long& failedRow) override;
  long rowCount() const override;
  void detachResults() override;

  // Waits for the command's next result: null at the end of the batch.
  // False when the wait timed out (the command is then cancelled, its
  // results read off and the time-out reported).
  bool fetch(PGresult*& result);
  // Hands a failed result or a notice to the error handler.
  void report(const PGresult* result) const;
  // Ends a COPY that a statement started: this library has no data to give.
  void refuseCopy(ExecStatusType status);

 private:
  std::shared_ptr<Cursor> run(const std::string& sql);
  // The statement in PostgreSQL's SQL: `sql` itself when the dialect has
  // nothing to rewrite in it (most statements), else its rewrite, held in
  // `scratch`.
  const std::string& postgresSql(const std::string& sql, std::string& scratch) const;
  // Sends the COPY's rows (counting them in `sent`) and its end. False when
  // the server took nothing for the command time-out (reported; the COPY is
  // cancelled and read off, or the login lost) or libpq could not send
  // (reported; the login lost).
  bool sendCopyData(RowSource& rows, size_t columnCount, long& sent);
  // Sends what libpq holds for the server (nonblocking mode), reading what
  // the server sends meanwhile so that neither side waits for the other.
  // False when the server took nothing for the command time-out.
  bool flushCopy();
  // After a time-out inside COPY's data: cancels it, ends it and reads its
  // results off, or gives the login up.
  void abandonCopy();
  // A COPY's data that libpq could not send: the login is given up.
  void copyFailed();
  // Reads off the rest of a command's results, reporting failures.
  void drainResults();
  bool loginFailed(int severity, int dberr, const std::string& text);
  void clientError(int severity, int dberr, const std::string& text) const;
  // Waits until the socket has `events`, or until `deadline` (none when
  // zero). False on time-out.
  bool waitSocket(short events, std::chrono::steady_clock::time_point deadline) const;
  // The time the command time-out gives a wait starting now (none: zero).
  static std::chrono::steady_clock::time_point commandDeadline();
  bool awaitResult();
  void timedOut() const;
  void sendCancel();
  // Reads off a cancelled command's results; a server that stays silent for
  // one more time-out loses the login.
  void drainCancelled();
  // Shuts the socket: from then on the login reads as not connected.
  void loseLogin();

  PGconn* conn_ = nullptr;
  bool broken_ = false;  // lost: a silent server after a time-out, or a failed send
  std::shared_ptr<const std::string> server_ = std::make_shared<const std::string>();
  std::string home_;  // the connected database: its qualified names are local
  std::shared_ptr<PgCursor> current_;
  long lastCount_ = -1;
};

// The outcome of one batch. The rows of its first command that returns rows
// stream one at a time; the other commands are read through, and succeeded()
// and rowCount() are those of the last command read (the server stops a
// batch at its first failing command).
class PgCursor : public Cursor {
 public:
  // A batch that could not be sent.
  PgCursor() = default;
  // A batch just sent: its results are read up to the first row.
  explicit PgCursor(PostgresDriver* owner) : owner_(owner), succeeded_(true) { readResults(true); }
  ~PgCursor() override {
    PQclear(row_);
    PQclear(pending_);
  }

  bool succeeded() const override { return succeeded_; }
  bool hasRows() const override { return !names_.empty(); }
  int columnCount() const override { return static_cast<int>(names_.size()); }
  std::string columnName(int col) const override {
    return col >= 1 && col <= columnCount() ? names_[static_cast<size_t>(col - 1)] : std::string();
  }

  bool next() override {
    PQclear(row_);
    row_ = nullptr;
    if (pending_) {
      row_ = pending_;
      pending_ = nullptr;
      ++read_;
      return true;
    }
    PGresult* r = nullptr;
    if (!inRows_ || !fetchRow(r)) return false;
    if (r && PQresultStatus(r) == PGRES_SINGLE_TUPLE) {
      row_ = r;
      ++read_;
      return true;
    }
    if (r) take(r);
    inRows_ = false;
    readResults(false);
    return false;
  }

  bool isNull(int col) const override { return !valid(col) || PQgetisnull(row_, 0, col - 1); }
  std::string getString(int col) const override {
    if (isNull(col)) return std::string();
    const char* text = PQgetvalue(row_, 0, col - 1);
    timeval tv;
    if (isDate(col) && parsePostgresDate(text, tv)) return SybUtils::convertFromUnixTimeval(tv);
    return std::string(text, static_cast<size_t>(PQgetlength(row_, 0, col - 1)));
  }
  long getLong(int col) const override {
    if (isNull(col)) return 0;
    const char* text = PQgetvalue(row_, 0, col - 1);
    if (types_[static_cast<size_t>(col - 1)] == kBoolOid) return text[0] == 't' ? 1 : 0;
    if (isDate(col)) return static_cast<long>(getDate(col).tv_sec);
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (*end != '.' && *end != 'e' && *end != 'E') return v;
    // A numeric or floating value: its whole part, held within a long.
    const double d = std::strtod(text, nullptr);
    return d >= static_cast<double>(LONG_MAX)   ? LONG_MAX
           : d <= static_cast<double>(LONG_MIN) ? LONG_MIN
                                                : static_cast<long>(d);
  }
  double getDouble(int col) const override {
    return isNull(col) ? 0.0 : std::strtod(PQgetvalue(row_, 0, col - 1), nullptr);
  }
  timeval getDate(int col) const override {
    timeval tv{0, 0};
    if (!isNull(col)) parsePostgresDate(PQgetvalue(row_, 0, col - 1), tv);
    return tv;
  }

  void release() override {
    PQclear(row_);
    row_ = nullptr;
    if (pending_) {
      PQclear(pending_);
      pending_ = nullptr;
      ++read_;
    }
    readResults(false);
  }
  long rowCount() const override { return inRows_ ? read_ : count_; }

  // Called when the owner runs another batch, detaches its results or logs
  // out: the rest of the batch is read off and the login never touched again.
  void detach() {
    release();
    owner_ = nullptr;
  }

 private:
  bool valid(int col) const { return row_ && col >= 1 && col <= columnCount(); }
  bool isDate(int col) const {
    const Oid t = types_[static_cast<size_t>(col - 1)];
    return t == kDateOid || t == kTimestampOid || t == kTimestampTzOid;
  }

  // The batch's next result from the login (still attached while rows are
  // read); false, with the cursor failed, when none came in time.
  bool fetchRow(PGresult*& r) {
    if (owner_->fetch(r)) return true;
    fail();
    return false;
  }

  // Reads the batch's results to its end; with `stopAtRows`, up to the first
  // row of its first command that returns rows, which is held back for next().
  void readResults(bool stopAtRows) {
    while (owner_ && !done_) {
      PGresult* r = nullptr;
      if (!owner_->fetch(r)) {
        fail();
        return;
      }
      if (!r) {
        done_ = true;
        return;
      }
      const ExecStatusType status = PQresultStatus(r);
      if ((status == PGRES_SINGLE_TUPLE || status == PGRES_TUPLES_OK) && names_.empty()) describe(r);
      if (status != PGRES_SINGLE_TUPLE) {
        take(r);
        continue;
      }
      if (stopAtRows && !streamed_) {
        streamed_ = inRows_ = true;
        pending_ = r;
        return;
      }
      if (inRows_) ++read_;
      PQclear(r);
    }
  }

  void describe(const PGresult* r) {
    const int n = PQnfields(r);
    for (int i = 0; i != n; ++i) {
      names_.emplace_back(PQfname(r, i));
      types_.push_back(PQftype(r, i));
    }
  }

  // A result that ends a command: its outcome and count become the cursor's.
  void take(PGresult* r) {
    const ExecStatusType status = PQresultStatus(r);
    const char* tuples = PQcmdTuples(r);
    switch (status) {
      case PGRES_TUPLES_OK:
      case PGRES_COMMAND_OK:
      case PGRES_EMPTY_QUERY:
        succeeded_ = true;
        count_ = inRows_ ? read_ : *tuples ? std::atol(tuples) : -1;
        break;
      case PGRES_COPY_IN:
      case PGRES_COPY_OUT:
        owner_->refuseCopy(status);
        break;
      default:
        succeeded_ = false;
        owner_->report(r);
        break;
    }
    streamed_ = streamed_ || status == PGRES_TUPLES_OK;
    inRows_ = false;
    PQclear(r);
  }

  void fail() {
    succeeded_ = false;
    inRows_ = false;
    done_ = true;
  }

  PostgresDriver* owner_ = nullptr;  // null once detached
  bool succeeded_ = false;
  bool done_ = false;      // the batch's results are all read
  bool streamed_ = false;  // the command whose rows stream has been met
  bool inRows_ = false;    // its rows are being read
  long read_ = 0;
  long count_ = -1;
  PGresult* pending_ = nullptr;  // the first row, read ahead
  PGresult* row_ = nullptr;      // the row next() moved to
  std::vector<std::string> names_;
  std::vector<Oid> types_;
};

void noticeReceiver(void* driver, const PGresult* notice) {
  static_cast<const PostgresDriver*>(driver)->report(notice);
}

bool PostgresDriver::connect(const std::string& target, const std::string& user,
                             const std::string& password) {
  disconnect();
  broken_ = false;
  server_ = std::make_shared<const std::string>(serverForDisplay(target));
  const std::string zone = sessionTimeZone();
  const std::string options = "-c DateStyle=ISO,YMD" + (zone.empty() ? "" : " -c TimeZone=" + zone);
  // The URI comes last, so that its own user, password and database win:
  // libpq lets a later keyword override an earlier one.
  const char* const keys[] = {"user", "password", "client_encoding", "options", "dbname", nullptr};
  const char* const values[] = {user.c_str(),    password.c_str(), "UTF8",
                                options.c_str(), target.c_str(),   nullptr};
  conn_ = PQconnectStartParams(keys, values, 1);
  if (!conn_) return loginFailed(kCommSeverity, kErrMemory, "Unable to allocate a login to " + *server_);
  // Notices of the login itself reach the handler too, not libpq's stderr.
  PQsetNoticeReceiver(conn_, noticeReceiver, this);
  // libpq's connect_timeout counts whole seconds from 2 up: the login is
  // polled here instead, against the setting's own deadline.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(g_loginTimeout.load());
  PostgresPollingStatusType state =
      PQstatus(conn_) == CONNECTION_BAD ? PGRES_POLLING_FAILED : PGRES_POLLING_WRITING;
  while (state != PGRES_POLLING_OK) {
    if (state == PGRES_POLLING_FAILED)
      return loginFailed(kCommSeverity, kErrConnect, trimmed(PQerrorMessage(conn_)));
    if (!waitSocket(state == PGRES_POLLING_READING ? POLLIN : POLLOUT, deadline))
      return loginFailed(
          kTimeSeverity, kErrTimeout,
          "Login to " + *server_ + " timed out after " + std::to_string(g_loginTimeout.load()) + " s");
    state = PQconnectPoll(conn_);
  }
  home_ = PQdb(conn_);
  DA_LOG_DEBUG("Logged in to %s", server_->c_str());
  return true;
}

bool PostgresDriver::loginFailed(int severity, int dberr, const std::string& text) {
  if (conn_) PQfinish(conn_);
  conn_ = nullptr;
  clientError(severity, dberr, text);
  return false;
}

void PostgresDriver::clientError(int severity, int dberr, const std::string& text) const {
  SybaseStatus st;
  st.dbLibSeverity = severity;
  st.dberr = dberr;
  st.dberrstr = text;
  st.srvname = *server_;
  reportError(st);
}

void PostgresDriver::disconnect() {
  detachResults();
  if (conn_) PQfinish(conn_);
  conn_ = nullptr;
}

std::shared_ptr<Cursor> PostgresDriver::execute(const std::string& sql) {
  std::string scratch;
  return run(postgresSql(sql, scratch));
}

const std::string& PostgresDriver::postgresSql(const std::string& sql, std::string& scratch) const {
  // Most statements need no rewrite; they run from the caller's text.
  if (!mayNeedRewrite(sql)) return sql;
  scratch = rewriteSybase(sql, DialectTarget::Postgres, home_).sql;
  return scratch;
}

// SybaseConnection keeps the levels and checks the names: a step that
// reaches here ends the innermost level.
std::shared_ptr<Cursor> PostgresDriver::transaction(TxVerb verb, const std::string& name, bool outermost) {
  const std::string id = quoted(name);
  if (verb == TxVerb::Begin) return run(outermost ? "BEGIN" : "SAVEPOINT " + id);
  const bool commit = verb == TxVerb::Commit;
  if (commit && outermost && conn_ && PQtransactionStatus(conn_) == PQTRANS_INERROR) {
    // The server would take this COMMIT as a ROLLBACK and say so only in its
    // command tag. Refused instead: the level stays open for its rollback.
    detachResults();
    clientError(kErrorSeverity, kErrNoTran,
                "Transaction '" + name + "' on " + *server_ + " cannot commit: a statement in it failed");
    return current_ = std::make_shared<PgCursor>();
  }
  return run(outermost ? (commit ? "COMMIT" : "ROLLBACK")
             : commit  ? "RELEASE SAVEPOINT " + id
                       : "ROLLBACK TO SAVEPOINT " + id + "; RELEASE SAVEPOINT " + id);
}

std::shared_ptr<Cursor> PostgresDriver::run(const std::string& sql) {
  detachResults();
  lastCount_ = -1;
  if (!isConnected()) return current_ = std::make_shared<PgCursor>();
  if (!PQsendQuery(conn_, sql.c_str())) {
    clientError(kCommSeverity, kErrLost, trimmed(PQerrorMessage(conn_)));
    return current_ = std::make_shared<PgCursor>();
  }
  PQsetSingleRowMode(conn_);
  return current_ = std::make_shared<PgCursor>(this);
}

long PostgresDriver::rowCount() const { return current_ ? current_->rowCount() : lastCount_; }

void PostgresDriver::detachResults() {
  if (!current_) return;
  current_->detach();
  lastCount_ = current_->rowCount();
  current_.reset();
}

bool PostgresDriver::waitSocket(short events, std::chrono::steady_clock::time_point deadline) const {
  using namespace std::chrono;
  for (;;) {
    pollfd p{PQsocket(conn_), events, 0};
    if (p.fd < 0) return true;  // no socket: libpq's next call reports the failure
    // The deadline is poll's own time-out: one that has passed still looks
    // at the socket once, without waiting.
    const long long left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    const int ms =
        deadline == steady_clock::time_point() ? -1 : static_cast<int>(std::clamp(left, 0LL, 1LL << 30));
    const int rc = ::poll(&p, 1, ms);
    if (rc < 0 && errno == EINTR) continue;
    return rc != 0;  // a failing poll shows in libpq's next call
  }
}

std::chrono::steady_clock::time_point PostgresDriver::commandDeadline() {
  const int seconds = g_queryTimeout.load();
  return seconds > 0 ? std::chrono::steady_clock::now() + std::chrono::seconds(seconds)
                     : std::chrono::steady_clock::time_point();
}

bool PostgresDriver::awaitResult() {
  const auto deadline = commandDeadline();
  while (PQisBusy(conn_)) {
    if (!waitSocket(POLLIN, deadline)) return false;
    if (!PQconsumeInput(conn_)) return true;  // the failure shows in the next result
  }
  return true;
}

bool PostgresDriver::fetch(PGresult*& result) {
  result = nullptr;
  if (!conn_ || broken_) return true;
  if (awaitResult()) {
    result = PQgetResult(conn_);
    return true;
  }
  timedOut();
  sendCancel();
  drainCancelled();
  return false;
}

void PostgresDriver::timedOut() const {
  clientError(kTimeSeverity, kErrTimeout,
              "Command on " + *server_ + " timed out after " + std::to_string(g_queryTimeout.load()) +
                  " s; cancelled");
}

void PostgresDriver::sendCancel() {
  char reason[256];
  if (PGcancel* c = PQgetCancel(conn_)) {
    PQcancel(c, reason, sizeof reason);
    PQfreeCancel(c);
  }
}

void PostgresDriver::drainCancelled() {
  // The server ends a cancelled command with an error (not reported: the
  // time-out was). Its state is unknown once it stays silent.
  while (awaitResult()) {
    PGresult* r = PQgetResult(conn_);
    if (!r) return;
    PQclear(r);
  }
  loseLogin();
}

void PostgresDriver::loseLogin() {
  ::shutdown(PQsocket(conn_), SHUT_RDWR);
  broken_ = true;
}

namespace {

const size_t kCopyChunk = 64 * 1024;  // the data of one CopyData message, about

// Appends `text` as a value of COPY's text format: backslash, tab, newline
// and carriage return escaped; every other byte as it is.
void appendCopyText(std::string& out, const std::string& text) {
  const char* run = text.data();
  const char* const end = run + text.size();
  for (const char* p = run; p != end; ++p) {
    char escaped;
    switch (*p) {
      case '\\':
        escaped = '\\';
        break;
      case '\t':
        escaped = 't';
        break;
      case '\n':
        escaped = 'n';
        break;
      case '\r':
        escaped = 'r';
        break;
      default:
        continue;
    }
    out.append(run, static_cast<size_t>(p - run));
    out += '\\';
    out += escaped;
    run = p + 1;
  }
  out.append(run, static_cast<size_t>(end - run));
}

// Appends one row of COPY's text format: values tab-separated, NULL as \N,
// newline-ended.
void appendCopyRow(std::string& out, const SqlValue* values, size_t count) {
  for (size_t c = 0; c < count; ++c) {
    if (c > 0) out += '\t';
    const SqlValue& v = values[c];
    switch (v.kind) {
      case SqlValue::Kind::Null:
        out.append("\\N", 2);
        break;
      case SqlValue::Kind::Integer: {
        char digits[24];
        const auto r = std::to_chars(digits, digits + sizeof digits, v.integer);
        out.append(digits, static_cast<size_t>(r.ptr - digits));
        break;
      }
      case SqlValue::Kind::Text:
        appendCopyText(out, v.text);
        break;
    }
  }
  out += '\n';
}

// Nonblocking mode for a COPY's data, so that no send waits beyond the
// command time-out; blocking again on the way out.
class NonBlocking {
 public:
  explicit NonBlocking(PGconn* conn) : conn_(conn) { PQsetnonblocking(conn_, 1); }
  ~NonBlocking() { PQsetnonblocking(conn_, 0); }
  NonBlocking(const NonBlocking&) = delete;
  NonBlocking& operator=(const NonBlocking&) = delete;

 private:
  PGconn* conn_;
};

}  // namespace

long PostgresDriver::insertRows(const std::string& table, const std::vector<std::string>& columns,
                                RowSource& rows, long& failedRow) {
  detachResults();
  lastCount_ = -1;
  failedRow = -1;
  if (!isConnected()) {
    clientError(kCommSeverity, kErrLost, "Not connected to " + *server_);
    return -1;
  }
  // The table's name is rewritten as an insert's would be: "db..table" is
  // table of schema db.
  const std::string copy = "COPY " + table + " (" + joinColumns(columns) + ") FROM STDIN";
  std::string scratch;
  const std::string& sql = postgresSql(copy, scratch);
  if (!PQsendQuery(conn_, sql.c_str())) {
    clientError(kCommSeverity, kErrLost, trimmed(PQerrorMessage(conn_)));
    return -1;
  }
  PGresult* r = nullptr;
  if (!fetch(r) || !r) return -1;  // timed out (reported), or lost
  if (PQresultStatus(r) != PGRES_COPY_IN) {
    // No such table or column, or no right to write it: no row to blame.
    // A COPY to a file or to the client (a table name that ends the
    // statement) did not start either; drainResults reads a COPY out off.
    const ExecStatusType status = PQresultStatus(r);
    if (status == PGRES_COMMAND_OK || status == PGRES_COPY_OUT)
      clientError(kErrorSeverity, kErrLost, "COPY into " + table + " on " + *server_ + " did not start");
    else
      report(r);
    PQclear(r);
    drainResults();
    return -1;
  }
  PQclear(r);

  long sent = 0;
  {
    NonBlocking nonBlocking(conn_);
    if (!sendCopyData(rows, columns.size(), sent)) return -1;
  }
  long written = -1;
  while (fetch(r) && r) {
    const ExecStatusType status = PQresultStatus(r);
    if (status == PGRES_COMMAND_OK) {
      const char* tuples = PQcmdTuples(r);
      written = *tuples ? std::atol(tuples) : sent;
    } else if (status == PGRES_COPY_IN || status == PGRES_COPY_OUT) {
      refuseCopy(status);  // not this COPY's: it has ended
      written = -1;
    } else {
      report(r);
      failedRow = copyFailedRow(PQresultErrorField(r, PG_DIAG_CONTEXT), sent);
      written = -1;
    }
    PQclear(r);
  }
  lastCount_ = written;
  return written;
}

bool PostgresDriver::sendCopyData(RowSource& rows, size_t columnCount, long& sent) {
  std::string buffer;
  buffer.reserve(kCopyChunk + 4096);
  bool more = true;
  while (more) {
    buffer.clear();
    while (buffer.size() < kCopyChunk) {
      const SqlValue* v = rows.next();
      if (!v) {
        more = false;
        break;
      }
      appendCopyRow(buffer, v, columnCount);
      ++sent;
    }
    if (buffer.empty()) break;
    // libpq's buffer is empty here (flushCopy sent it all): a chunk it does
    // not queue (0, "buffers full") is one it cannot make room for.
    if (PQputCopyData(conn_, buffer.data(), static_cast<int>(buffer.size())) != 1) return copyFailed(), false;
    if (!flushCopy()) return abandonCopy(), false;
  }
  if (PQputCopyEnd(conn_, nullptr) < 0) return copyFailed(), false;
  if (!flushCopy()) return abandonCopy(), false;
  return true;
}

void PostgresDriver::copyFailed() {
  clientError(kCommSeverity, kErrLost, trimmed(PQerrorMessage(conn_)));
  loseLogin();
}

bool PostgresDriver::flushCopy() {
  const auto deadline = commandDeadline();
  while (PQflush(conn_) > 0) {
    if (!waitSocket(POLLIN | POLLOUT, deadline)) return false;
    // Whatever the server sent (notices) is read, so that it never waits on
    // this side while this side waits on it.
    if (!PQconsumeInput(conn_)) return true;  // the failure shows in the result
  }
  return true;
}

void PostgresDriver::abandonCopy() {
  timedOut();
  sendCancel();
  // A cancelled COPY reads and drops the data still on its way; COPY's end
  // (as a failure, so that nothing of it stays) then brings its results.
  if (flushCopy() && PQputCopyEnd(conn_, "cancelled after the command time-out") >= 0 && flushCopy())
    drainCancelled();
  else
    loseLogin();
}

void PostgresDriver::drainResults() {
  PGresult* r = nullptr;
  while (fetch(r) && r) {
    const ExecStatusType status = PQresultStatus(r);
    if (status == PGRES_COPY_IN || status == PGRES_COPY_OUT)
      refuseCopy(status);
    else if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_EMPTY_QUERY)
      report(r);
    PQclear(r);
  }
}

void PostgresDriver::refuseCopy(ExecStatusType status) {
  if (status == PGRES_COPY_IN) {
    // A login that cannot even end the COPY is given up: it would stay in it.
    if (PQputCopyEnd(conn_, "COPY FROM STDIN is not supported by this library") < 0) loseLogin();
    return;
  }
  char* buffer = nullptr;
  while (PQgetCopyData(conn_, &buffer, 0) > 0) PQfreemem(buffer);
}

void PostgresDriver::report(const PGresult* result) const {
  const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  if (!state || !*state) {
    // libpq's own failure: the connection broke, or the reply made no sense.
    clientError(kCommSeverity, kErrLost, trimmed(PQresultErrorMessage(result)));
    return;
  }
  SybaseStatus st;
  st.sqlstate = state;
  st.msgno = msgnoOf(state);
  st.srvSeverity = severityOf(PQresultErrorField(result, PG_DIAG_SEVERITY_NONLOCALIZED));
  const char* primary = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  st.msgtext = primary ? primary : trimmed(PQresultErrorMessage(result));
  st.srvname = *server_;
  reportError(st);
}

}  // namespace

long copyFailedRow(const char* context, long sent) {
  if (!context) return -1;
  // The context may hold the lines of functions called for the row first.
  for (const char* line = context; *line;) {
    const char* eol = std::strchr(line, '\n');
    if (!eol) eol = line + std::strlen(line);
    if (std::strncmp(line, "COPY ", 5) == 0) {
      // ", line N" in English; in a server's other language, the first
      // number after the table's name.
      const std::string_view text(line, static_cast<size_t>(eol - line));
      size_t at = text.find(", line ");
      if (at == std::string_view::npos) at = text.find(", ");
      if (at == std::string_view::npos) return -1;
      at = text.find_first_of("0123456789", at);
      if (at == std::string_view::npos) return -1;
      long n = 0;
      const auto r = std::from_chars(text.data() + at, text.data() + text.size(), n);
      return r.ec == std::errc() && n >= 1 && n <= sent ? n - 1 : -1;
    }
    line = *eol ? eol + 1 : eol;
  }
  return -1;
}

std::unique_ptr<Driver> makePostgresDriver() { return std::make_unique<PostgresDriver>(); }

// A login takes at least a second; a command's 0 (or less) waits for ever.
void PostgresSettings::setLoginTimeout(int seconds) { g_loginTimeout = std::max(seconds, 1); }
int PostgresSettings::loginTimeout() { return g_loginTimeout; }
void PostgresSettings::setQueryTimeout(int seconds) { g_queryTimeout = std::max(seconds, 0); }
int PostgresSettings::queryTimeout() { return g_queryTimeout; }

bool isPostgresUri(const std::string& server) {
  return server.compare(0, 13, "postgresql://") == 0 || server.compare(0, 11, "postgres://") == 0;
}

std::string postgresUriWithDatabase(const std::string& uri, const std::string& database) {
  if (!isPostgresUri(uri) || database.empty()) return uri;
  size_t at = hostPartEnd(uri);
  const bool slash = at < uri.size() && uri[at] == '/';
  if (slash && at + 1 < uri.size() && uri[at + 1] != '?' && uri[at + 1] != '#') return uri;  // names its own
  static const char hex[] = "0123456789ABCDEF";
  std::string path = "/";
  for (unsigned char ch : database) {
    if (std::isalnum(ch) || std::strchr("-._~", ch)) {
      path += static_cast<char>(ch);
    } else {
      path += '%';
      path += hex[ch >> 4];
      path += hex[ch & 15];
    }
  }
  return uri.substr(0, at) + path + uri.substr(slash ? at + 1 : at);
}

std::string serverForDisplay(const std::string& server) {
  if (!isPostgresUri(server)) return server;
  std::string s = server;
  // user:password@host: the password goes.
  const size_t end = hostPartEnd(s);
  const size_t atSign = s.rfind('@', end);
  const size_t start = s.find("://") + 3;
  if (atSign != std::string::npos && atSign >= start) {
    const size_t colon = s.find(':', start);
    if (colon < atSign) s.erase(colon, atSign - colon);
  }
  // ?...&password=...&...: the parameter goes.
  const size_t query = s.find('?');
  if (query == std::string::npos) return s;
  std::string kept;
  for (size_t p = query + 1; p <= s.size();) {
    size_t amp = s.find('&', p);
    if (amp == std::string::npos) amp = s.size();
    const std::string param = s.substr(p, amp - p);
    if (param.compare(0, 9, "password=") != 0 && !param.empty()) kept += (kept.empty() ? "" : "&") + param;
    p = amp + 1;
  }
  return s.substr(0, query) + (kept.empty() ? "" : "?" + kept);
}

}  // namespace sybconn
