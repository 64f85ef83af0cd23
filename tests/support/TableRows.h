#ifndef TESTS_SUPPORT_TABLEROWS_H
#define TESTS_SUPPORT_TABLEROWS_H

#include <sybconn/SqlRows.h>  // std::string, std::vector

namespace testsupport {

// The rows of a bulk insert, from a table of values; `at` back to 0 sends them again.
using Row = std::vector<sybconn::SqlValue>;
inline sybconn::SqlValue value(long long v) {
  return sybconn::SqlValue{sybconn::SqlValue::Kind::Integer, v, {}};
}
inline sybconn::SqlValue value(const std::string& v) {
  return sybconn::SqlValue{sybconn::SqlValue::Kind::Text, 0, v};
}
struct Rows : sybconn::RowSource {
  std::vector<Row> rows;
  size_t at = 0;
  const sybconn::SqlValue* next() override { return at < rows.size() ? rows[at++].data() : nullptr; }
};

}  // namespace testsupport

#endif
