#ifndef TESTS_SUPPORT_TABLEROWS_H
#define TESTS_SUPPORT_TABLEROWS_H

#include <sybconn/SqlRows.h>  // std::string, std::vector

namespace testsupport {

// The rows of a bulk insert, from a table of values; `at` back to 0 sends them again.
using sybconn::SqlValue;
using Row = std::vector<SqlValue>;
inline SqlValue value(long long v) { return {SqlValue::Kind::Integer, v, {}}; }
inline SqlValue value(const std::string& v) { return {SqlValue::Kind::Text, 0, v}; }
struct Rows : sybconn::RowSource {
  std::vector<Row> rows;
  size_t at = 0;
  const SqlValue* next() override { return at < rows.size() ? rows[at++].data() : nullptr; }
};

}  // namespace testsupport

#endif
