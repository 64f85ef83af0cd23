#include <sybconn/Driver.h>
#include <sybconn/SybaseConnection.h>

#include <atomic>

#include <daLog/Log.h>

#include "sybconn/drivers/FreeTdsDriver.h"
#include "sybconn/drivers/PostgresDriver.h"
#include "sybconn/drivers/SqliteDriver.h"

namespace {
std::atomic<SybaseConnection::ErrorHandler> g_handler{&SybaseConnection::defaultErrorHandler};
const char kSqlitePrefix[] = "sqlite:";
// Client errors raised here carry DB-Library's numbers and severity, as the
// FreeTDS driver reports its own.
const int kSeverityComm = 9;              // EXCOMM
const int kErrServerNotFound = 20012;     // SYBEINTF
const int kErrNotLoggedIn = 20047;        // SYBEDDNE
const int kSeverityUser = 16;             // a fault of the caller's
const int kErrNoSuchTransaction = 20037;  // SYBERXID: the server does not know the transaction
}  // namespace

namespace sybconn {

void reportError(const SybaseStatus& status) {
  SybaseConnection::ErrorHandler h = g_handler.load();
  if (h) h(status);
}

// Every statement passes through connect / execute below and the result
// set's forwarders: they are marked hot and so kept together (see
// SybaseResultSet.cpp).
[[gnu::hot]] std::unique_ptr<Driver> makeDriver(const std::string& server, std::string& target) {
  if (server.compare(0, sizeof(kSqlitePrefix) - 1, kSqlitePrefix) == 0) {
    target = server.substr(sizeof(kSqlitePrefix) - 1);
    if (target.empty()) {
      SybaseStatus st;
      st.dbLibSeverity = kSeverityComm;
      st.dberr = kErrServerNotFound;
      st.dberrstr = "Server name 'sqlite:' names no database file";
      reportError(st);
      return nullptr;
    }
    return makeSqliteDriver();
  }
  target = server;
  if (isPostgresUri(server)) return makePostgresDriver();
  return makeFreeTdsDriver();
}

}  // namespace sybconn

[[gnu::hot]] SybaseConnection::SybaseConnection() = default;

[[gnu::hot]] SybaseConnection::~SybaseConnection() { disconnect(); }

[[gnu::hot]] int SybaseConnection::connect(const std::string& server, const std::string& user,
                                           const std::string& password) {
  disconnect();
  server_ = server;
  std::string target;
  std::unique_ptr<sybconn::Driver> driver = sybconn::makeDriver(server, target);
  if (!driver) return -1;
  if (!driver->connect(target, user, password)) return -1;
  driver_ = std::move(driver);
  return 0;
}

[[gnu::hot]] bool SybaseConnection::isConnected() const { return driver_ && driver_->isConnected(); }

[[gnu::hot]] void SybaseConnection::disconnect() {
  if (driver_) driver_->disconnect();
  driver_.reset();
  levels_.clear();
}

[[gnu::hot]] bool SybaseConnection::loggedIn() const {
  if (driver_ && driver_->isConnected()) return true;
  SybaseStatus st;
  st.dbLibSeverity = kSeverityComm;
  st.dberr = kErrNotLoggedIn;
  st.dberrstr = "Statement not executed: the connection is not logged in";
  st.srvname = sybconn::serverForDisplay(server_);
  sybconn::reportError(st);
  return false;
}

[[gnu::hot]] SybaseResultSet SybaseConnection::execute(const std::string& sql) {
  if (!loggedIn()) return SybaseResultSet();
  return SybaseResultSet(driver_->execute(sql));
}

SybaseResultSet SybaseConnection::transaction(sybconn::TxVerb verb, const std::string& name) {
  if (!loggedIn()) return SybaseResultSet();
  const bool begin = verb == sybconn::TxVerb::Begin;
  if (!begin && (levels_.empty() || levels_.back() != name)) {
    SybaseStatus st;
    st.dbLibSeverity = kSeverityUser;
    st.dberr = kErrNoSuchTransaction;
    st.dberrstr = "No open transaction level '" + name + "' to end (innermost: '" +
                  (levels_.empty() ? std::string() : levels_.back()) + "')";
    st.srvname = sybconn::serverForDisplay(server_);
    sybconn::reportError(st);
    return SybaseResultSet();
  }
  std::shared_ptr<sybconn::Cursor> c =
      driver_->transaction(verb, name, begin ? levels_.empty() : levels_.size() == 1);
  if (c->succeeded()) {
    if (begin)
      levels_.push_back(name);
    else
      levels_.pop_back();
  }
  return SybaseResultSet(std::move(c));
}

SybaseResultSet SybaseConnection::beginTransaction(const std::string& name) {
  return transaction(sybconn::TxVerb::Begin, name);
}
SybaseResultSet SybaseConnection::commitTransaction(const std::string& name) {
  return transaction(sybconn::TxVerb::Commit, name);
}
SybaseResultSet SybaseConnection::rollbackTransaction(const std::string& name) {
  return transaction(sybconn::TxVerb::Rollback, name);
}

long SybaseConnection::insertRows(const std::string& table, const std::vector<std::string>& columns,
                                  sybconn::RowSource& rows, long& failedRow) {
  failedRow = -1;
  static const std::string kLevel = "insertRows";
  if (!transaction(sybconn::TxVerb::Begin, kLevel).commandSucceeded()) return -1;
  const long written = driver_->insertRows(table, columns, rows, failedRow);
  if (written >= 0 && transaction(sybconn::TxVerb::Commit, kLevel).commandSucceeded()) return written;
  // A level the server could not commit is rolled back too, so the login
  // leaves with the levels it came with.
  if (!levels_.empty() && levels_.back() == kLevel) transaction(sybconn::TxVerb::Rollback, kLevel);
  return -1;
}

[[gnu::hot]] long SybaseConnection::rowCount() const { return driver_ ? driver_->rowCount() : -1; }

[[gnu::hot]] void SybaseConnection::releaseResults() {
  if (driver_) driver_->detachResults();
}

SybaseConnection::ErrorHandler SybaseConnection::setErrorHandler(ErrorHandler handler) {
  return g_handler.exchange(handler ? handler : &SybaseConnection::defaultErrorHandler);
}

SybaseConnection::ErrorHandler SybaseConnection::errorHandler() { return g_handler.load(); }

void SybaseConnection::defaultErrorHandler(const SybaseStatus& s) {
  const int severity = s.msgno != 0 ? s.srvSeverity : s.dbLibSeverity;
  if (severity == 0) return;
  if (s.msgno != 0) {
    DA_LOG_ERROR("Server %s message %d, severity %d: %s", s.srvname.c_str(), s.msgno, severity,
                 s.msgtext.c_str());
  } else {
    DA_LOG_ERROR("Client error %d, severity %d: %s", s.dberr, severity, s.dberrstr.c_str());
  }
}
