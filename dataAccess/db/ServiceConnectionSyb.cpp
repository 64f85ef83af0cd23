#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/SelectList.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <stcrypt/stcrypt.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
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

void mapSelectList(const std::string& list, std::map<std::string, int>& fields) {
  int position = 1;
  std::string name;
  for (char c : list) {
    if (c == ',') {
      fields.insert(std::make_pair(name, position));
      ++position;
      name.clear();
    } else if (c != ' ') {
      name += c;
    }
  }
  fields.insert(std::make_pair(name, position));
}

}  // namespace dataAccess

namespace {
const char kNoConnection[] = "KestFileDAOSyb::executeQuery. No connection available";
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string alias)
    : dbAlias_(std::move(alias)), transactionNumber_(0), conn_(nullptr) {
  readDBParameters();
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string server, std::string user, std::string passwd,
                                           std::string dbName)
    : dbServer_(std::move(server)),
      dbName_(std::move(dbName)),
      dbUser_(std::move(user)),
      dbPasswd_(std::move(passwd)),
      transactionNumber_(0),
      conn_(nullptr) {
  SybaseConnection::setErrorHandler(&ArcSys::SimpleErrorHandler);
}

ServiceConnectionSyb::~ServiceConnectionSyb() {
  if (conn_ != nullptr) ConnectionPool::instance()->releaseConnection(conn_);
}

int ServiceConnectionSyb::readDBParameters() {
  const char* home = std::getenv("HOME");
  const std::string path = std::string(home ? home : "") + "/.dbrc";
  std::ifstream in(path.c_str());
  if (!in) {
    DA_LOG_ERROR("Could not open %s", path.c_str());
    return -1;
  }
  dbName_.clear();
  dbUser_.clear();
  dbPasswd_.clear();
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string f[5];
    int n = 0;
    while (n < 5 && (fields >> f[n])) ++n;
    if (n < 4 || f[0][0] == '#') continue;
    if (n == 5) {
      if (f[4] != dbAlias_) continue;  // another service's entry
      dbServer_ = f[0];
      dbName_ = f[1];
      dbUser_ = f[2];
      dbPasswd_ = f[3];
      break;  // the first matching alias wins
    }
    // Four fields: a default entry; a later one, or an alias entry, replaces it.
    dbServer_ = f[0];
    dbName_ = f[1];
    dbUser_ = f[2];
    dbPasswd_ = f[3];
  }
  if (dbServer_.empty() || dbUser_.empty() || dbPasswd_.empty()) {
    DA_LOG_ERROR("Could not get all connection parameters");
    return -1;
  }
  char enciphered[STCRYPT_BUF_SIZE];
  char clear[STCRYPT_BUF_SIZE];
  // An over-long field is cut to the buffer instead of overrunning it; the
  // cipher then rejects it.
  std::strncpy(enciphered, dbPasswd_.c_str(), sizeof enciphered - 1);
  enciphered[sizeof enciphered - 1] = '\0';
  clear[0] = '\0';
  const int rc = stdecrypt(enciphered, clear);
  dbPasswd_ = clear;
  if (rc != 0) {
    // Without the password no login can succeed; clearing the parameters
    // makes the later acquire() fail at once instead of at the server.
    dbServer_.clear();
    dbUser_.clear();
    DA_LOG_ERROR("Could not decipher the password for %s in %s", dbAlias_.c_str(), path.c_str());
    return -1;
  }
  DA_LOG_DEBUG("Connection parameters successfully read");
  return 0;
}

int ServiceConnectionSyb::acquire() {
  if (conn_ != nullptr) return 0;
  conn_ = ConnectionPool::instance()->acquireConnection(dbServer_, dbUser_, dbPasswd_);
  if (conn_ == nullptr) {
    DA_LOG_ERROR("Could not establish a connection");
    return -1;
  }
  return 0;
}

int ServiceConnectionSyb::release() {
  if (conn_ == nullptr) return -1;
  if (ConnectionPool::instance()->releaseConnection(conn_) != 0) return -1;
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

int ServiceConnectionSyb::executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const {
  int result = -1;
  std::string upper(sql);
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::istringstream words(upper);
  std::string first, second;
  words >> first >> second;
  std::string::size_type listStart;
  if (second == "DISTINCT") {
    listStart = upper.find("DISTINCT") + 8;
  } else if (first == "SELECT") {
    listStart = upper.find("SELECT") + 6;
  } else {
    return result;
  }
  res = execute(sql);
  if (res.commandSucceeded() != 1) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return result;
  }
  result = 0;
  std::string::size_type from = sql.find("from");
  if (from == std::string::npos) from = sql.find("FROM");
  if (from == std::string::npos || listStart >= from) return result;
  dataAccess::mapSelectList(sql.substr(listStart, from - listStart), fields);
  return result;
}

int ServiceConnectionSyb::beginTransaction() const {
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ++transactionNumber_;
  ResultSet res = execute("begin Tran A" + std::to_string(transactionNumber_));
  return res.commandSucceeded() != 0 ? 0 : -1;
}

int ServiceConnectionSyb::commitTransaction() const {
  if (conn_ == nullptr || transactionNumber_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ResultSet res = execute("commit A" + std::to_string(transactionNumber_));
  if (res.commandSucceeded() == 0) return -1;
  --transactionNumber_;
  return 0;
}

int ServiceConnectionSyb::rollbackTransaction() const {
  if (conn_ == nullptr || transactionNumber_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ResultSet res = execute("rollback A" + std::to_string(transactionNumber_));
  if (res.commandSucceeded() == 0) return -1;
  --transactionNumber_;
  return 0;
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
