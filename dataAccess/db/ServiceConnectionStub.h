#ifndef DATAACCESS_DB_SERVICECONNECTIONSTUB_H
#define DATAACCESS_DB_SERVICECONNECTIONSTUB_H

#include <map>
#include <string>
#include <vector>

#include <sybconn/SqlRows.h>
#include <sybconn/SybaseResultSet.h>

// A connection with the operations of ServiceConnectionSyb that talks to no
// database: each statement is printed to standard output as
// "EXECUTE : <statement>" and only the bookkeeping of acquisition and
// transactions is kept. It lets a DAO run, and its SQL be seen, without a
// server. Every result set it returns is empty and unsuccessful.
// Thread safety: a ServiceConnectionStub is used by one thread at a time; different objects may be used
// on different threads at once (their printed lines may then interleave).
class ServiceConnectionStub {
 public:
  enum FieldType { INT_FIELD = 0, LONG_FIELD = 1, STRING_FIELD = 2 };
  typedef std::map<std::string, int> ListOfFieldIndex;
  typedef SybaseResultSet ResultSet;

  ServiceConnectionStub(const std::string& server, const std::string& user, const std::string& passwd);

  int acquire();
  int release();

  ResultSet execute(std::string sql) const;
  int executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const;
  int executeSelect(std::string sql, ResultSet& res) const;  // without the map

  int beginTransaction() const;
  int commitTransaction() const;
  int rollbackTransaction() const;

  // Prints the insert statement of each row, as the single-row insert would
  // send it, and writes nothing: -1, with no row to blame (`failedRow` -1).
  long insertRows(const std::string& table, const std::vector<std::string>& columns, sybconn::RowSource& rows,
                  long& failedRow) const;

  // No command is ever run: always -1.
  long rowCount() const { return -1; }

  int transactionNumber() const { return transactionNumber_; }
  bool isAcquired() const { return conn_ != 0; }

 private:
  int select(const std::string& sql, ResultSet& res, ListOfFieldIndex* fields) const;

  std::string dbServer_;
  std::string dbUser_;
  std::string dbPasswd_;
  int conn_;
  mutable int transactionNumber_;
};

#endif
