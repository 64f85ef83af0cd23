#ifndef DATAACCESS_COMMON_SQLTEXT_H
#define DATAACCESS_COMMON_SQLTEXT_H

#include <climits>
#include <cmath>
#include <string>

#include <sybconn/SqlRows.h>

namespace dataAccess {

// A value for use between single quotes in a statement: every single quote is
// doubled, so "O'Brien" becomes "O''Brien" and is stored as given. Values
// without a quote come back unchanged.
inline std::string sqlQuoted(const std::string& value) {
  if (value.find('\'') == std::string::npos) return value;
  std::string out;
  out.reserve(value.size() + 4);
  sybconn::appendQuoted(out, value);
  return out;
}

// A database number read into a 32-bit int: truncated toward zero when it
// fits, saturated to INT_MAX / INT_MIN when it does not, 0 for NaN.
inline int saturatingInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace dataAccess

#endif
