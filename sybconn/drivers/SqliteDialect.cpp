#include "sybconn/drivers/SqliteDialect.h"

#include <strings.h>

#include <cctype>
#include <cstring>

namespace sybconn {
namespace {

enum class Tok { Space, Comment, String, Word, Number, Punct };

struct Token {
  Tok type;
  size_t begin;
  size_t len;
  bool open;  // a quoted token that runs to the end without its closing quote
};

// Character classes by table: the rewrite's quick test looks at every byte.
struct CharClasses {
  bool start[256];
  bool word[256];
  CharClasses() {
    for (int c = 0; c < 256; ++c) {
      const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      start[c] = alpha || c == '_' || c == '@' || c == '#' || c >= 0x80;
      word[c] = start[c] || (c >= '0' && c <= '9') || c == '$';
    }
  }
};
const CharClasses kClasses;

bool isWordStart(unsigned char c) { return kClasses.start[c]; }
bool isWordChar(unsigned char c) { return kClasses.word[c]; }

std::vector<Token> tokenize(const std::string& s) {
  std::vector<Token> out;
  out.reserve(s.size() / 4 + 4);
  const size_t n = s.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t j = i + 1;
    Tok t;
    bool open = false;
    if (std::isspace(c)) {
      while (j < n && std::isspace(static_cast<unsigned char>(s[j]))) ++j;
      t = Tok::Space;
    } else if (c == '\'' || c == '"' || c == '[') {
      // Quoted text runs to the matching quote; a doubled quote stays inside.
      const char close = c == '[' ? ']' : static_cast<char>(c);
      open = true;
      while (j < n) {
        if (s[j] == close) {
          if (close != ']' && j + 1 < n && s[j + 1] == close) {
            j += 2;
            continue;
          }
          ++j;
          open = false;
          break;
        }
        ++j;
      }
      t = Tok::String;
    } else if (c == '-' && i + 1 < n && s[i + 1] == '-') {
      while (j < n && s[j] != '\n') ++j;
      t = Tok::Comment;
    } else if (c == '/' && i + 1 < n && s[i + 1] == '*') {
      const size_t end = s.find("*/", i + 2);
      j = end == std::string::npos ? n : end + 2;
      t = Tok::Comment;
    } else if (isWordStart(c)) {
      while (j < n && isWordChar(static_cast<unsigned char>(s[j]))) ++j;
      t = Tok::Word;
    } else if (std::isdigit(c)) {
      while (j < n && (std::isalnum(static_cast<unsigned char>(s[j])) || s[j] == '.')) ++j;
      t = Tok::Number;
    } else {
      t = Tok::Punct;
    }
    out.push_back({t, i, j - i, open});
    i = j;
  }
  return out;
}

class Rewriter {
 public:
  Rewriter(const std::string& src, const std::string& homeDatabase)
      : src_(src), home_(homeDatabase), toks_(tokenize(src)) {
    out_.reserve(src.size() + 32);
  }

  DialectResult run() {
    emitRange(0, toks_.size(), true);
    return {std::move(out_), std::move(dbs_)};
  }

 private:
  bool isWord(size_t i, const char* kw) const {
    if (i >= toks_.size() || toks_[i].type != Tok::Word) return false;
    const size_t len = std::strlen(kw);
    if (toks_[i].len != len) return false;
    return strncasecmp(src_.data() + toks_[i].begin, kw, len) == 0;
  }
  bool isPunct(size_t i, char c) const {
    return i < toks_.size() && toks_[i].type == Tok::Punct && src_[toks_[i].begin] == c;
  }
  bool significant(size_t i) const { return toks_[i].type != Tok::Space && toks_[i].type != Tok::Comment; }
  // Index of the next significant token at or after i, below `end`.
  size_t nextSig(size_t i, size_t end) const {
    while (i < end && !significant(i)) ++i;
    return i;
  }
  void emit(size_t i) { out_.append(src_, toks_[i].begin, toks_[i].len); }
  std::string text(size_t i) const { return src_.substr(toks_[i].begin, toks_[i].len); }

  void noteDatabase(const std::string& db) {
    for (const auto& d : dbs_)
      if (d == db) return;
    dbs_.push_back(db);
  }

  // X..table and X.dbo.table starting at word i name the table of database X;
  // a column may follow (X..table.column). Emits "X.table" ("main.table" for
  // the home database) and returns the index after the table's token, or i
  // when the tokens are no such name.
  size_t databaseQualifiedName(size_t i, size_t end) {
    size_t table;
    if (isPunct(i + 1, '.') && isPunct(i + 2, '.')) {
      table = i + 3;
    } else if (isPunct(i + 1, '.') && isWord(i + 2, "dbo") && isPunct(i + 3, '.')) {
      table = i + 4;
    } else {
      return i;
    }
    if (table >= end || toks_[table].type != Tok::Word) return i;
    const std::string db = text(i);
    if (!home_.empty() && db == home_) {
      out_ += "main";
    } else {
      noteDatabase(db);
      out_ += db;
    }
    out_ += '.';
    emit(table);
    return table + 1;
  }

  // Handles a transaction statement starting at significant token i (begin,
  // commit or rollback). Returns the index after the statement's last consumed
  // token, or i when the tokens are not a transaction statement.
  size_t transaction(size_t i, size_t end) {
    const bool begin = isWord(i, "begin");
    const bool commit = isWord(i, "commit");
    const bool rollback = isWord(i, "rollback");
    size_t k = nextSig(i + 1, end);
    bool tranWord = false;
    if (isWord(k, "tran") || isWord(k, "transaction")) {
      tranWord = true;
      k = nextSig(k + 1, end);
    }
    if (begin && !tranWord) return i;
    std::string name = "sybtran";
    size_t after = k;
    if (k < end && toks_[k].type == Tok::Word && !isWord(k, "work")) {
      name = text(k);
      after = k + 1;
    } else if (k < end && isWord(k, "work")) {
      after = k + 1;
    }
    // Only a statement end may follow.
    const size_t rest = nextSig(after, end);
    if (rest < end && !isPunct(rest, ';')) return i;
    if (begin) {
      out_ += "SAVEPOINT " + name;
    } else if (commit) {
      out_ += "RELEASE " + name;
    } else if (rollback) {
      out_ += "ROLLBACK TO " + name + "; RELEASE " + name;
    }
    return after;
  }

  // True for a quoted token that runs to the end of the text without its
  // closing quote.
  bool unterminated(size_t i) const { return toks_[i].open; }

  // Emits one select list item [b, e): `name = expr` becomes `expr AS name`.
  void selectItem(size_t b, size_t e) {
    const size_t first = nextSig(b, e);
    // Text after an unterminated literal would land inside it: leave such an
    // item as it is.
    if (e > b && unterminated(e - 1)) {
      emitRange(b, e, false);
      return;
    }
    if (first < e && toks_[first].type == Tok::Word && src_[toks_[first].begin] != '@') {
      const size_t eq = nextSig(first + 1, e);
      if (isPunct(eq, '=') && !isPunct(eq + 1, '=')) {
        // Keep leading blanks, then the expression, then the alias.
        for (size_t i = b; i < first; ++i) emit(i);
        size_t exprEnd = e;
        while (exprEnd > eq + 1 && !significant(exprEnd - 1)) --exprEnd;
        emitRange(nextSig(eq + 1, exprEnd), exprEnd, false);
        out_ += " AS ";
        emit(first);
        for (size_t i = exprEnd; i < e; ++i) emit(i);
        return;
      }
    }
    emitRange(b, e, false);
  }

  // Emits the select list that starts at token b; returns where it ends.
  size_t selectList(size_t b, size_t end) {
    static const char* const stops[] = {"from", "into", "where", "union", "order", "group", "having"};
    int depth = 0;
    size_t itemStart = b;
    size_t i = b;
    for (; i < end; ++i) {
      if (!significant(i)) continue;
      if (isPunct(i, '(')) {
        ++depth;
      } else if (isPunct(i, ')')) {
        if (depth == 0) break;
        --depth;
      } else if (depth == 0) {
        if (isPunct(i, ';')) break;
        if (isPunct(i, ',')) {
          selectItem(itemStart, i);
          emit(i);
          itemStart = i + 1;
          continue;
        }
        bool stop = false;
        for (const char* kw : stops) stop = stop || isWord(i, kw);
        if (stop) break;
      }
    }
    selectItem(itemStart, i);
    return i;
  }

  void emitRange(size_t b, size_t e, bool topLevel) {
    bool statementStart = topLevel;
    for (size_t i = b; i < e;) {
      const Token& t = toks_[i];
      if (!significant(i)) {
        emit(i++);
        continue;
      }
      if (t.type == Tok::Punct && src_[t.begin] == ';') {
        emit(i++);
        statementStart = true;
        continue;
      }
      if (t.type == Tok::Word) {
        if (topLevel && statementStart &&
            (isWord(i, "begin") || isWord(i, "commit") || isWord(i, "rollback"))) {
          const size_t after = transaction(i, e);
          if (after != i) {
            i = after;
            statementStart = false;
            continue;
          }
        }
        if (statementStart && isWord(i, "delete")) {
          emit(i);
          const size_t k = nextSig(i + 1, e);
          if (k < e && toks_[k].type == Tok::Word && !isWord(k, "from")) {
            for (size_t s = i + 1; s < k; ++s) emit(s);
            out_ += "from ";
            i = k;
          } else {
            ++i;
          }
          statementStart = false;
          continue;
        }
        statementStart = false;
        if (isWord(i, "getdate")) {
          const size_t open = nextSig(i + 1, e);
          const size_t close = isPunct(open, '(') ? nextSig(open + 1, e) : e;
          if (close < e && isPunct(close, ')')) {
            out_ += "strftime('%Y%m%d %H:%M:%f','now','localtime')";
            i = close + 1;
            continue;
          }
        }
        if (isWord(i, "select")) {
          emit(i);
          size_t k = i + 1;
          // Keep the blanks and a DISTINCT / ALL keyword before the list.
          size_t s = nextSig(k, e);
          if (isWord(s, "distinct") || isWord(s, "all")) {
            for (; k <= s; ++k) emit(k);
          }
          i = selectList(k, e);
          continue;
        }
        const size_t afterName = databaseQualifiedName(i, e);
        if (afterName != i) {
          i = afterName;
          continue;
        }
      } else {
        statementStart = false;
      }
      emit(i++);
    }
  }

  const std::string& src_;
  const std::string& home_;
  std::vector<Token> toks_;
  std::string out_;
  std::vector<std::string> dbs_;
};

}  // namespace

DialectResult rewriteSybaseToSqlite(const std::string& sybaseSql, const std::string& homeDatabase) {
  return Rewriter(sybaseSql, homeDatabase).run();
}

namespace {
// Compares a word of the text with a lower-case keyword of the same length.
bool sameWord(const char* text, const char* lower, size_t len) {
  for (size_t k = 0; k < len; ++k)
    if ((text[k] | 0x20) != lower[k]) return false;
  return true;
}
}  // namespace

bool mayNeedRewrite(const std::string& str) {
  const char* s = str.data();
  const size_t n = str.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '.') {
      if (i + 1 < n && s[i + 1] == '.') return true;
      if (i + 4 < n && sameWord(s + i + 1, "dbo.", 4)) return true;
      ++i;
      continue;
    }
    if (!isWordStart(c)) {
      ++i;
      continue;
    }
    size_t j = i + 1;
    while (j < n && isWordChar(static_cast<unsigned char>(s[j]))) ++j;
    const char* w = s + i;
    switch (j - i) {
      case 5:
        if (sameWord(w, "begin", 5)) return true;
        break;
      case 6:
        if (sameWord(w, "delete", 6) || sameWord(w, "commit", 6) || sameWord(w, "select", 6)) return true;
        break;
      case 7:
        if (sameWord(w, "getdate", 7)) return true;
        break;
      case 8:
        if (sameWord(w, "rollback", 8)) return true;
        break;
      default:
        break;
    }
    i = j;
  }
  return false;
}
}  // namespace sybconn
