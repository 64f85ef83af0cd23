#ifndef DATAACCESS_COMMON_DAOCORE_H
#define DATAACCESS_COMMON_DAOCORE_H

// How the DAOs build their inserts and read their rows: one insert builder
// for the single-row insert and the batch, one select loop, one policy for
// NULLs and for rows that stop coming part-way.
//
// NULLs: the connection library reads a NULL column as 0, 0.0, an empty
// string or the zero date, which are the values the records take for NULL. A
// DAO therefore reads each column once instead of asking isNull() first (a
// select can return millions of rows); only a record whose NULL differs from
// those values (a status kept as a character) asks.
//
// Rows that stop part-way (a lock, an I/O error, a lost login): the select has
// failed like one that never ran. The records it appended are taken back, the
// statement is logged, and the DAO returns -1.

#include <algorithm>
#include <string>
#include <vector>

#include <daLog/Log.h>
#include <dataAccess/common/SqlText.h>
#include <sybconn/SqlRows.h>

namespace dataAccess {

// Logs the statement, executes it and returns the affected-row count, or -1
// when the statement failed or the count is unknown.
template <class Conn>
int executeCounted(const std::string& query, const Conn& conn) {
  DA_LOG_DEBUG("%s", query.c_str());
  typename Conn::ResultSet res = conn.execute(query);
  const long count = conn.rowCount();
  return res.commandSucceeded() == 1 && count >= 0 ? static_cast<int>(count) : -1;
}

// Runs a select; a failed one is logged with its statement. Returns what
// executeSelect returned. The DAOs write their select lists themselves and
// read column i of a row at position i + 1, where executeSelect's select-list
// map would put it, without paying for the map.
template <class Conn>
int selectLogged(const Conn& conn, const std::string& sql, typename Conn::ResultSet& res) {
  const int selected = conn.executeSelect(sql, res);
  if (selected < 0) DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
  return selected;
}

// Runs the select `sql` and appends `read(res)` for each row to `records`.
// Returns the number of rows read, or -1 (logged) when the select failed or
// its rows stopped part-way; the records appended are then taken back.
template <class Conn, class Record, class Read>
int selectRows(const Conn& conn, const std::string& sql, std::vector<Record>& records, Read read) {
  typename Conn::ResultSet res;
  if (selectLogged(conn, sql, res) < 0) return -1;
  const auto before = records.size();
  if (res.hasResultSet())
    while (res.next()) records.push_back(read(res));
  if (!res.commandSucceeded()) {
    records.erase(records.begin() + static_cast<std::ptrdiff_t>(before), records.end());
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  return static_cast<int>(records.size() - before);
}

// The columns and values of one row to insert. A DAO fills it the same way
// for its single-row insert and for its batch, leaving out the optional
// columns a record does not set so that the table's defaults apply.
class InsertRow {
 public:
  void clear() { size_ = 0; }
  // Adds `column` (a name that outlives the row: the DAOs' static field
  // names) and returns its value, to be set by the caller. The value slots
  // keep their buffers from row to row.
  sybconn::SqlValue& add(const std::string& column) {
    if (size_ == values_.size()) {
      values_.emplace_back();
      names_.push_back(nullptr);
    }
    names_[size_] = &column;
    return values_[size_++];
  }
  void addText(const std::string& column, const std::string& value) { add(column).setText(value); }
  void addInteger(const std::string& column, long long value) { add(column).setInteger(value); }

  // The names of the columns added since clear(). The list is kept, and
  // rebuilt only when the row names other columns than last time: a row
  // refilled for the next record of its kind names the same ones.
  const std::vector<std::string>& columns() const {
    if (listed_.size() != size_ || !std::equal(names_.begin(), names_.begin() + size_, listed_.begin())) {
      listed_.assign(names_.begin(), names_.begin() + size_);
      columns_.clear();
      for (const std::string* name : listed_) columns_.push_back(*name);
    }
    return columns_;
  }
  // True when both rows name the same columns in the same order.
  bool sameColumns(const InsertRow& other) const {
    return size_ == other.size_ && std::equal(names_.begin(), names_.begin() + size_, other.names_.begin());
  }
  const sybconn::SqlValue* values() const { return values_.data(); }

  // "insert into <table> (...) values (...)".
  std::string statement(const std::string& table) const {
    std::string sql;
    sql.reserve(kStatementReserve);
    sybconn::appendInsert(sql, table, columns(), values_.data());
    return sql;
  }

 private:
  // Room for a catalogue row's statement without growing it on the way.
  static constexpr size_t kStatementReserve = 512;

  std::vector<const std::string*> names_;
  std::vector<sybconn::SqlValue> values_;
  size_t size_ = 0;
  mutable std::vector<const std::string*> listed_;  // the names columns_ was built from
  mutable std::vector<std::string> columns_;
};

// The rows of a batch, in runs of consecutive records that set the same
// columns (one run when every record sets them all): next() ends a run where
// the columns change, and begin() starts the next one. Each record is filled
// once.
template <class Record, class Fill>
class InsertRuns : public sybconn::RowSource {
 public:
  InsertRuns(const std::vector<Record>& records, Fill& fill) : records_(records), fill_(fill) {}
  // Starts the run at the first record not sent yet; false after the last.
  bool begin() {
    if (next_ >= records_.size()) return false;
    first_ = next_;
    ended_ = false;
    if (!pending_) fillNext();
    head_ = row_;
    columns_ = row_.columns();
    return true;
  }
  const sybconn::SqlValue* next() override {
    if (ended_) return nullptr;
    if (!pending_) {
      if (next_ >= records_.size()) return end();
      fillNext();
      if (!row_.sameColumns(head_)) return end();  // kept for the next run
    }
    pending_ = false;
    ++next_;
    return row_.values();
  }
  const std::vector<std::string>& columns() const { return columns_; }
  // The index in the batch of the run's first record.
  size_t first() const { return first_; }

 private:
  const sybconn::SqlValue* end() {
    ended_ = true;
    return nullptr;
  }
  void fillNext() {
    row_.clear();
    fill_(records_[next_], row_);
    pending_ = true;
  }

  const std::vector<Record>& records_;
  Fill& fill_;
  InsertRow row_;
  InsertRow head_;  // the run's first row, for its columns
  std::vector<std::string> columns_;
  size_t first_ = 0;
  size_t next_ = 0;       // the record the next row comes from
  bool pending_ = false;  // row_ holds record next_, not handed out yet
  bool ended_ = false;    // the run is over
};

// Writes `records` into `table` all or none, in one transaction of the
// connection around the bulk inserts of its runs (see InsertRuns).
// `refusal(record)` names why a record may not be written (nullptr when it
// may); a refused record fails the batch before anything is sent.
// `fill(record, row)` builds a record's row. Logs the transaction's steps and
// one line of its own, never a line a row: at DEBUG on success and when the
// connection wrote nothing (no login, the stub), at ERROR with the index of
// the row refused (the server's message goes to the connection's error
// handler). Returns the number of rows written, or -1.
template <class Conn, class Record, class Refusal, class Fill>
int insertBatch(const std::string& table, const std::vector<Record>& records, const Conn& conn,
                Refusal refusal, Fill fill) {
  for (size_t i = 0; i < records.size(); ++i) {
    if (const char* why = refusal(records[i])) {
      DA_LOG_ERROR("%s", why);
      DA_LOG_ERROR("Could not submit %zu rows into %s: row %zu refused, nothing written", records.size(),
                   table.c_str(), i);
      return -1;
    }
  }
  if (records.empty()) return 0;
  if (conn.beginTransaction() != 0) return -1;
  InsertRuns<Record, Fill> runs(records, fill);
  long written = 0;
  long failed = -1;
  while (runs.begin()) {
    const long n = conn.insertRows(table, runs.columns(), runs, failed);
    if (n <= 0) {  // a run has a row at least
      if (failed >= 0) failed += static_cast<long>(runs.first());
      break;
    }
    written += n;
  }
  if (failed < 0 && written == static_cast<long>(records.size()) && conn.commitTransaction() == 0) {
    DA_LOG_DEBUG("Successfully submitted %ld rows into %s", written, table.c_str());
    return static_cast<int>(written);
  }
  conn.rollbackTransaction();
  if (failed >= 0) {
    DA_LOG_ERROR("Could not submit %zu rows into %s: row %ld refused by the server, nothing written",
                 records.size(), table.c_str(), failed);
  } else {
    DA_LOG_DEBUG("Could not submit %zu rows into %s, nothing written", records.size(), table.c_str());
  }
  return -1;
}

}  // namespace dataAccess

#endif
