// Fuzz target: the dialect rewrite must never crash or hang, every string
// literal of the input must come out unchanged and in order, and the quick
// paths (the test that skips a text, the scan that rewrites qualified names
// alone) must give what the token-by-token rewrite gives.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "sybconn/drivers/Dialect.h"

namespace {

// Single-quoted literals ('' inside stays part of the literal), in order.
// Double quotes, comments and brackets are skipped so that a quote inside them
// does not start a literal.
std::vector<std::string> literals(const std::string& s) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < s.size()) {
    const char c = s[i];
    if (c == '\'' || c == '"' || c == '[') {
      const char close = c == '[' ? ']' : c;
      size_t j = i + 1;
      while (j < s.size()) {
        if (s[j] == close) {
          if (close != ']' && j + 1 < s.size() && s[j + 1] == close) {
            j += 2;
            continue;
          }
          ++j;
          break;
        }
        ++j;
      }
      if (c == '\'') out.push_back(s.substr(i, j - i));
      i = j;
    } else if (c == '-' && i + 1 < s.size() && s[i + 1] == '-') {
      while (i < s.size() && s[i] != '\n') ++i;
    } else if (c == '/' && i + 1 < s.size() && s[i + 1] == '*') {
      const size_t e = s.find("*/", i + 2);
      i = e == std::string::npos ? s.size() : e + 2;
    } else {
      ++i;
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string in(reinterpret_cast<const char*>(data), size);
  using sybconn::DialectTarget;
  // The home database is the first word of the text, if any.
  const std::string home = in.substr(0, std::min(in.find_first_of(". ("), size_t{16}));
  for (DialectTarget t : {DialectTarget::Sqlite, DialectTarget::Postgres}) {
    const sybconn::DialectResult quick = sybconn::rewriteSybase(in, t, home);
    const sybconn::DialectResult full = sybconn::rewriteSybaseByTokens(in, t, home);
    if (quick.sql != full.sql || quick.databases != full.databases) std::abort();
  }
  const sybconn::DialectResult r = sybconn::rewriteSybaseByTokens(in, DialectTarget::Sqlite);
  // The quick test may only skip texts that the rewrite leaves unchanged.
  if (!sybconn::mayNeedRewrite(in) && (r.sql != in || !r.databases.empty())) std::abort();
  // Literals the rewriter writes itself (the getdate() replacement) are the
  // only additions; drop them before comparing.
  std::vector<std::string> got;
  for (auto& l : literals(r.sql))
    if (l != "'%Y%m%d %H:%M:%f'" && l != "'now'" && l != "'localtime'") got.push_back(l);
  std::vector<std::string> want;
  for (auto& l : literals(in))
    if (l != "'%Y%m%d %H:%M:%f'" && l != "'now'" && l != "'localtime'") want.push_back(l);
  if (got != want) std::abort();
  return 0;
}
