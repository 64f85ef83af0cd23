#include <dataAccess/db/SelectList.h>
#include <dataAccess/db/ServiceConnectionStub.h>

#include <cstdio>

#include <daLog/Log.h>

namespace {
const char kNoConnection[] = "KestFileDAOSyb::executeQuery. No connection available";

void print(const std::string& sql) {
  std::fputs("EXECUTE : ", stdout);
  std::fputs(sql.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}
}  // namespace

ServiceConnectionStub::ServiceConnectionStub(const std::string& server, const std::string& user,
                                             const std::string& passwd)
    : dbServer_(server), dbUser_(user), dbPasswd_(passwd), conn_(0), transactionNumber_(0) {}

int ServiceConnectionStub::acquire() {
  conn_ = 1;
  return 0;
}

int ServiceConnectionStub::release() {
  conn_ = 0;
  transactionNumber_ = 0;
  return 0;
}

ServiceConnectionStub::ResultSet ServiceConnectionStub::execute(std::string sql) const {
  if (conn_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
  } else {
    print(sql);
  }
  return ResultSet();
}

long ServiceConnectionStub::insertRows(const std::string& table, const std::vector<std::string>& columns,
                                       sybconn::RowSource& rows, long& failedRow) const {
  failedRow = -1;
  if (conn_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  std::string sql;
  for (const sybconn::SqlValue* v; (v = rows.next()) != nullptr;) {
    sql.clear();
    sybconn::appendInsert(sql, table, columns, v);
    print(sql);
  }
  return -1;
}

int ServiceConnectionStub::executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const {
  return select(sql, res, &fields);
}

int ServiceConnectionStub::executeSelect(std::string sql, ResultSet& res) const {
  return select(sql, res, nullptr);
}

int ServiceConnectionStub::select(const std::string& sql, ResultSet& res, ListOfFieldIndex* fields) const {
  std::string::size_type start = sql.find("select");
  if (start == std::string::npos) start = sql.find("SELECT");
  if (start == std::string::npos) return -1;
  print(sql);
  if (!res.commandSucceeded()) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  if (fields == nullptr) return 0;
  start += 6;
  std::string::size_type from = sql.find("from");
  if (from == std::string::npos) from = sql.find("FROM");
  if (from != std::string::npos && start < from)
    dataAccess::mapSelectList(std::string_view(sql).substr(start, from - start), *fields);
  return 0;
}

int ServiceConnectionStub::beginTransaction() const {
  if (conn_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ++transactionNumber_;
  return 0;
}

int ServiceConnectionStub::commitTransaction() const {
  if (conn_ == 0 || transactionNumber_ == 0) return -1;
  --transactionNumber_;
  return 0;
}

int ServiceConnectionStub::rollbackTransaction() const { return commitTransaction(); }
