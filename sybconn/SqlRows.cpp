#include <sybconn/SqlRows.h>

namespace sybconn {

void appendQuoted(std::string& out, const std::string& text) {
  std::string::size_type from = 0;
  for (std::string::size_type q = text.find('\''); q != std::string::npos; q = text.find('\'', from)) {
    out.append(text, from, q + 1 - from);
    out += '\'';
    from = q + 1;
  }
  out.append(text, from, std::string::npos);
}

void appendLiteral(std::string& out, const SqlValue& value) {
  switch (value.kind) {
    case SqlValue::Kind::Null:
      out += "NULL";
      break;
    case SqlValue::Kind::Integer:
      out += std::to_string(value.integer);
      break;
    case SqlValue::Kind::Text:
      out += '\'';
      appendQuoted(out, value.text);
      out += '\'';
      break;
  }
}

std::string joinColumns(const std::vector<std::string>& columns) {
  std::string list;
  for (const std::string& c : columns) {
    if (!list.empty()) list += ',';
    list += c;
  }
  return list;
}

void appendInsert(std::string& out, const std::string& table, const std::vector<std::string>& columns,
                  const SqlValue* values) {
  out += "insert into ";
  out += table;
  out += " (";
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) out += ',';
    out += columns[i];
  }
  out += ") values (";
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) out += ',';
    appendLiteral(out, values[i]);
  }
  out += ')';
}

}  // namespace sybconn
