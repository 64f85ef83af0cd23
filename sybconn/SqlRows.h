#ifndef SYBCONN_SQLROWS_H
#define SYBCONN_SQLROWS_H

#include <cstddef>
#include <string>
#include <vector>

// Values and rows handed to SybaseConnection::insertRows, and the one way the
// library writes them as SQL text.
// Thread safety: plain values; a RowSource is used by one thread at a time.
namespace sybconn {

// One value of a row: NULL, an integer, or text (written between single
// quotes with its quotes doubled; a date is text in the library's date form).
struct SqlValue {
  enum class Kind : unsigned char { Null, Integer, Text };
  Kind kind = Kind::Null;
  long long integer = 0;
  std::string text;  // keeps its buffer from row to row

  void setNull() { kind = Kind::Null; }
  void setInteger(long long v) {
    kind = Kind::Integer;
    integer = v;
  }
  void setText(const std::string& v) {
    kind = Kind::Text;
    text.assign(v);
  }
};

// The rows of one bulk insert, read in order, each once. Row indexes count
// from 0 in the order next() gave the rows.
class RowSource {
 public:
  virtual ~RowSource() = default;
  // The values of the next row, one per column in the order of the columns
  // given with the source, valid until the next call; nullptr after the last
  // row (and on every call after that).
  virtual const SqlValue* next() = 0;
};

// Appends `text` with each single quote doubled ("O'Brien" -> "O''Brien").
void appendQuoted(std::string& out, const std::string& text);

// Appends the value as a literal: NULL, the number, or 'text' quoted.
void appendLiteral(std::string& out, const SqlValue& value);

// "c1,c2,...": the column list of an insert.
std::string joinColumns(const std::vector<std::string>& columns);

// Appends "insert into <table> (<c1>,<c2>...) values (<v1>,<v2>...)", one
// value a column, written by appendLiteral.
void appendInsert(std::string& out, const std::string& table, const std::vector<std::string>& columns,
                  const SqlValue* values);

}  // namespace sybconn

#endif
