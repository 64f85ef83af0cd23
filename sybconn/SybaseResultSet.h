#ifndef SYBCONN_SYBASERESULTSET_H
#define SYBCONN_SYBASERESULTSET_H

#include <sys/time.h>

#include <memory>
#include <string>

namespace sybconn {
class Cursor;
}

// The rows and outcome of one executed batch. Returned by value: copies share
// one cursor, so advancing one copy advances all of them. A default-built
// result set is empty and its commandSucceeded() is 0.
// Thread safety: a result set and its copies (one cursor) are used by one thread at a time, the thread
// that uses its connection.
class SybaseResultSet {
 public:
  SybaseResultSet() = default;
  explicit SybaseResultSet(std::shared_ptr<sybconn::Cursor> cursor);

  // 1 when the last command of the batch succeeded, 0 otherwise.
  int commandSucceeded() const;
  // True when the command returned rows.
  bool hasResultSet() const;
  // Advances to the next row; false after the last one. Starts before the first.
  bool next();
  int columnCount() const;
  // Columns are counted from 1.
  std::string columnName(int col) const;
  bool isNull(int col) const;
  std::string getStringValue(int col) const;
  long getLongValue(int col) const;
  double getDoubleValue(int col) const;
  timeval getDateAsTimevalValue(int col) const;
  // Discards any rows not read yet.
  void releaseResults();
  // Affected-row count of the command (see SybaseConnection::rowCount).
  long rowCount() const;

 private:
  std::shared_ptr<sybconn::Cursor> cursor_;
};

#endif
