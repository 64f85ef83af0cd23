#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ParametersFile.h>
#include <dataAccess/db/SelectList.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <sybconn/PostgresSettings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <tuple>
#include <utility>

#include <daLog/Log.h>

namespace ArcSys {

void SimpleErrorHandler(const SybaseStatus& s) {
  const int severity = s.msgno != 0 ? s.srvSeverity : s.dbLibSeverity;
  if (severity == 0) return;
  DA_LOG_ERROR("%s Error number: %d %s Severity: %d", s.srvname.c_str(), s.msgno != 0 ? s.msgno : s.dberr,
               s.msgno != 0 ? s.msgtext.c_str() : s.dberrstr.c_str(), severity);
}

}  // namespace ArcSys

namespace dataAccess {

void mapSelectList(std::string_view list, std::map<std::string, int>& fields) {
  int position = 1;
  std::string_view::size_type from = 0;
  for (;;) {
    // The name runs to the next comma, its blanks left out.
    const std::string_view::size_type comma = list.find(',', from);
    const std::string_view item = list.substr(from, comma - from);  // to the end when no comma follows
    if (item.find(' ') == std::string_view::npos) {
      // The usual name, without blanks (a select list of a DAO has a dozen
      // of them, per statement), is built where the map keeps it.
      fields.emplace(std::piecewise_construct, std::forward_as_tuple(item), std::forward_as_tuple(position));
    } else {
      std::string name;
      for (std::string_view::size_type at = 0; at < item.size(); ++at) {
        if (item[at] == ' ') continue;
        name.push_back(item[at]);
      }
      fields.emplace(std::move(name), position);
    }
    if (comma == std::string_view::npos) return;
    from = comma + 1;
    ++position;
  }
}

}  // namespace dataAccess

namespace {
const char kNoConnection[] = "KestFileDAOSyb::executeQuery. No connection available";
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string alias)
    : dbAlias_(std::move(alias)), transactionNumber_(0), conn_(nullptr) {
  readDBParameters();
  poolServer_ = sybconn::postgresUriWithDatabase(dbServer_, dbName_);
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string server, std::string user, std::string passwd,
                                           std::string dbName)
    : dbServer_(std::move(server)),
      dbName_(std::move(dbName)),
      dbUser_(std::move(user)),
      dbPasswd_(std::move(passwd)),
      poolServer_(sybconn::postgresUriWithDatabase(dbServer_, dbName_)),
      transactionNumber_(0),
      conn_(nullptr) {
  SybaseConnection::setErrorHandler(&ArcSys::SimpleErrorHandler);
}

ServiceConnectionSyb::~ServiceConnectionSyb() {
  if (conn_ != nullptr) ConnectionPool::instance()->giveBack(conn_, ticket_);
}

int ServiceConnectionSyb::readDBParameters() {
  dataAccess::ServiceParameters p;
  const int result = dataAccess::readServiceParameters(dbAlias_, p);
  dbServer_ = std::move(p.server);
  dbName_ = std::move(p.database);
  dbUser_ = std::move(p.user);
  dbPasswd_ = std::move(p.password);
  return result;
}

int ServiceConnectionSyb::acquire() {
  if (conn_ != nullptr) return 0;
  // A PostgreSQL URI without a database of its own logs in to the one of the
  // parameters; other server names take no database from them.
  conn_ = ConnectionPool::instance()->acquire(poolServer_, dbUser_, dbPasswd_, &ticket_);
  if (conn_ == nullptr) {
    DA_LOG_ERROR("Could not establish a connection");
    return -1;
  }
  return 0;
}

int ServiceConnectionSyb::release() {
  if (conn_ == nullptr) return -1;
  // The ticket names the login's place: the pool takes it back without a
  // look, and the next acquire takes it again if no one took it meanwhile.
  if (ConnectionPool::instance()->giveBack(conn_, ticket_) != 0) return -1;
  conn_ = nullptr;
  transactionNumber_ = 0;
  return 0;
}

ServiceConnectionSyb::ResultSet ServiceConnectionSyb::execute(std::string sql) const {
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return ResultSet();
  }
  DA_LOG_DEBUG("Sql Statement : %s", sql.c_str());
  return conn_->execute(sql);
}

namespace {

// The position of the first occurrence of `word` (upper case) in `text`,
// compared without regard to case; npos if none.
std::string::size_type findIgnoringCase(const std::string& text, const char* word) {
  const auto it = std::search(text.begin(), text.end(), word, word + std::strlen(word), [](char a, char b) {
    return std::toupper(static_cast<unsigned char>(a)) == static_cast<unsigned char>(b);
  });
  return it == text.end() ? std::string::npos : static_cast<std::string::size_type>(it - text.begin());
}

// True when the n-th blank-separated word of `text` (from 0) is `upper`,
// compared without regard to case. The n-th word is read no further than one
// character past the length of `upper`: a select list without blanks is one
// long word.
bool wordIs(const std::string& text, int n, const char* upper) {
  const size_t len = std::strlen(upper);
  const auto blank = [&text](std::string::size_type at) {
    return std::isspace(static_cast<unsigned char>(text[at])) != 0;
  };
  std::string::size_type pos = 0, end = 0;
  for (int i = 0; i <= n; ++i) {
    pos = end;
    while (pos < text.size() && blank(pos)) ++pos;
    end = pos;
    while (end < text.size() && !blank(end) && (i < n || end - pos <= len)) ++end;
  }
  if (end - pos != len) return false;
  for (size_t k = 0; k < len; ++k)
    if (std::toupper(static_cast<unsigned char>(text[pos + k])) != static_cast<unsigned char>(upper[k]))
      return false;
  return true;
}

}  // namespace

int ServiceConnectionSyb::executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const {
  return select(sql, res, &fields);
}

int ServiceConnectionSyb::executeSelect(std::string sql, ResultSet& res) const {
  return select(sql, res, nullptr);
}

int ServiceConnectionSyb::select(const std::string& sql, ResultSet& res, ListOfFieldIndex* fields) const {
  int result = -1;
  std::string::size_type listStart;
  if (wordIs(sql, 1, "DISTINCT")) {
    listStart = findIgnoringCase(sql, "DISTINCT") + 8;
  } else if (wordIs(sql, 0, "SELECT")) {
    listStart = findIgnoringCase(sql, "SELECT") + 6;
  } else {
    return result;
  }
  res = execute(sql);
  if (res.commandSucceeded() != 1) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return result;
  }
  result = 0;
  if (fields == nullptr) return result;
  std::string::size_type from = sql.find("from");
  if (from == std::string::npos) from = sql.find("FROM");
  if (from == std::string::npos || listStart >= from) return result;
  dataAccess::mapSelectList(std::string_view(sql).substr(listStart, from - listStart), *fields);
  return result;
}

// The levels are named A1, A2, ... from the outermost; the log shows each
// step as the Sybase statement it stands for. The step goes to the login as a
// typed call, which each backend maps onto its own statements.
int ServiceConnectionSyb::beginTransaction() const {
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ++transactionNumber_;
  const std::string name = "A" + std::to_string(transactionNumber_);
  DA_LOG_DEBUG("Sql Statement : begin Tran %s", name.c_str());
  return conn_->beginTransaction(name).commandSucceeded() != 0 ? 0 : -1;
}

int ServiceConnectionSyb::commitTransaction() const { return endTransaction(true); }

int ServiceConnectionSyb::rollbackTransaction() const { return endTransaction(false); }

int ServiceConnectionSyb::endTransaction(bool commit) const {
  if (conn_ == nullptr || transactionNumber_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  const std::string name = "A" + std::to_string(transactionNumber_);
  DA_LOG_DEBUG("Sql Statement : %s %s", commit ? "commit" : "rollback", name.c_str());
  const ResultSet res = commit ? conn_->commitTransaction(name) : conn_->rollbackTransaction(name);
  if (res.commandSucceeded() == 0) return -1;
  --transactionNumber_;
  return 0;
}

long ServiceConnectionSyb::insertRows(const std::string& table, const std::vector<std::string>& columns,
                                      sybconn::RowSource& rows, long& failedRow) const {
  failedRow = -1;
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  return conn_->insertRows(table, columns, rows, failedRow);
}

long ServiceConnectionSyb::rowCount() const { return conn_ ? conn_->rowCount() : -1; }

std::string ServiceConnectionSyb::getStringValue(ResultSet& res, int col) const {
  return res.getStringValue(col);
}
std::string ServiceConnectionSyb::getDateStringValue(ResultSet& res, int col) const {
  return res.getStringValue(col);
}
timeval ServiceConnectionSyb::getDateTimevalValue(ResultSet& res, int col) const {
  return res.getDateAsTimevalValue(col);
}
double ServiceConnectionSyb::getDoubleValue(ResultSet& res, int col) const { return res.getDoubleValue(col); }
long ServiceConnectionSyb::getLongValue(ResultSet& res, int col) const { return res.getLongValue(col); }
