#ifndef DATAACCESS_DB_SERVICECONNECTIONSYB_H
#define DATAACCESS_DB_SERVICECONNECTIONSYB_H

#include <sys/time.h>

#include <map>
#include <string>
#include <vector>

#include <dataAccess/db/ConnectionPool.h>
#include <sybconn/SybaseConnection.h>
#include <sybconn/SybaseResultSet.h>
#include <sybconn/SybaseStatus.h>

namespace ArcSys {
// Logs server messages and client errors of severity above 0 at ERROR:
// "<srvname> Error number: <n> <text> Severity: <s>".
void SimpleErrorHandler(const SybaseStatus& status);
}  // namespace ArcSys

// The connection through which every DAO talks to one database service. It
// holds the service's parameters and, between acquire() and release(), a login
// borrowed from the process-wide ConnectionPool. One object belongs to one
// thread at a time; copies share the borrowed login, so do not copy an
// acquired connection.
// Thread safety: a ServiceConnectionSyb is used by one thread at a time (copies sharing a login count as
// one); different objects may be used on different threads at once.
class ServiceConnectionSyb {
 public:
  enum FieldType { INT_FIELD = 0, LONG_FIELD = 1, STRING_FIELD = 2 };
  typedef std::map<std::string, int> ListOfFieldIndex;
  typedef SybaseResultSet ResultSet;

  // Reads server, database, user and (enciphered) password for `alias` from
  // $HOME/.dbrc. A failure is logged and leaves the fields empty, so that the
  // later acquire() fails; a file with a line longer than 4096 characters is
  // refused as a whole, whichever alias that line names.
  explicit ServiceConnectionSyb(std::string alias);
  // Explicit parameters; note the order. Installs ArcSys::SimpleErrorHandler
  // as the connection library's error handler.
  ServiceConnectionSyb(std::string server, std::string user, std::string passwd, std::string dbName);
  ~ServiceConnectionSyb();
  ServiceConnectionSyb(const ServiceConnectionSyb&) = default;
  ServiceConnectionSyb& operator=(const ServiceConnectionSyb&) = default;

  // 0 on success, -1 on failure. acquire() is idempotent.
  int acquire();
  int release();

  ResultSet execute(std::string sql) const;
  // Executes a select and enters each select-list name with its position
  // (from 1) into `fields` (never cleared, never overwritten).
  int executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const;
  // The same without the map, for a caller that wrote the select list and
  // reads each column at its position there: the map costs two allocations a
  // name, which a look-up of a single row feels.
  int executeSelect(std::string sql, ResultSet& res) const;

  // Numbered nested transactions: begin Tran A<n> / commit A<n> / rollback A<n>.
  int beginTransaction() const;
  int commitTransaction() const;
  int rollbackTransaction() const;

  // Inserts all the rows or none, in a transaction level of its own (see
  // SybaseConnection::insertRows): the number of rows written, or -1 with
  // `failedRow` the index of the refused row (-1 when no row is to blame).
  long insertRows(const std::string& table, const std::vector<std::string>& columns, sybconn::RowSource& rows,
                  long& failedRow) const;

  // The affected-row count of the login's current command (rows changed by a
  // write, rows read by a select); -1 without a login.
  long rowCount() const;

  // Column readers kept for DAOs written against them; they forward to `res`.
  std::string getStringValue(ResultSet& res, int col) const;
  std::string getDateStringValue(ResultSet& res, int col) const;
  timeval getDateTimevalValue(ResultSet& res, int col) const;
  double getDoubleValue(ResultSet& res, int col) const;
  long getLongValue(ResultSet& res, int col) const;

  const std::string& server() const { return dbServer_; }
  const std::string& dbName() const { return dbName_; }
  const std::string& user() const { return dbUser_; }
  const std::string& alias() const { return dbAlias_; }
  int transactionNumber() const { return transactionNumber_; }
  bool isAcquired() const { return conn_ != nullptr; }

 private:
  int readDBParameters();
  int endTransaction(bool commit) const;
  int select(const std::string& sql, ResultSet& res, ListOfFieldIndex* fields) const;

  std::string dbServer_;
  std::string dbName_;
  std::string dbUser_;
  std::string dbPasswd_;
  std::string dbAlias_;
  // The server name the pool knows the login by (a PostgreSQL URI with the
  // database added), made once rather than at every acquire.
  std::string poolServer_;
  mutable int transactionNumber_;
  SybaseConnection* conn_;
  // The place of the login borrowed last, for the pool's borrow and return
  // without its lock.
  ConnectionPool::Ticket ticket_;
};

#endif
