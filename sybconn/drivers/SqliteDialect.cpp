#include "sybconn/drivers/SqliteDialect.h"

#include <strings.h>

#include <cctype>

namespace sybconn {
namespace {

// The savepoint name of a transaction statement that names none.
const char kUnnamedSavepoint[] = "sybtran";
// getdate(): the current local time in the library's date text form.
const char kNowExpression[] = "strftime('%Y%m%d %H:%M:%f','now','localtime')";

enum class Tok { Space, Comment, String, Word, Number, Punct };

struct Token {
  Tok type;
  size_t begin;
  size_t len;
  bool open;  // a quoted token that runs to the end without its closing quote
};

// Character classes by table: the rewrite's quick test and the tokenizer look
// at every byte. White space and letters or digits are tabled for ASCII only;
// other bytes are asked of the C library, whose answer depends on the locale.
struct CharClasses {
  bool start[256];
  bool word[256];
  bool space[128];
  bool alnum[128];
  CharClasses() {
    for (int c = 0; c < 256; ++c) {
      const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      const bool digit = c >= '0' && c <= '9';
      start[c] = alpha || c == '_' || c == '@' || c == '#' || c >= 0x80;
      word[c] = start[c] || digit || c == '$';
      if (c < 128) {
        space[c] = c == ' ' || (c >= '\t' && c <= '\r');
        alnum[c] = alpha || digit;
      }
    }
  }
};
const CharClasses kClasses;

bool isWordStart(unsigned char c) { return kClasses.start[c]; }
bool isWordChar(unsigned char c) { return kClasses.word[c]; }
bool isSpace(unsigned char c) { return c < 128 ? kClasses.space[c] : std::isspace(c) != 0; }
bool isAlnum(unsigned char c) { return c < 128 ? kClasses.alnum[c] : std::isalnum(c) != 0; }

// Splits `s` into `out`, which is emptied first.
void tokenize(const std::string& s, std::vector<Token>& out) {
  out.clear();
  out.reserve(s.size() / 4 + 4);
  const size_t n = s.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t j = i + 1;
    Tok t;
    bool open = false;
    if (isSpace(c)) {
      while (j < n && isSpace(static_cast<unsigned char>(s[j]))) ++j;
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
    } else if (c >= '0' && c <= '9') {
      while (j < n && (isAlnum(static_cast<unsigned char>(s[j])) || s[j] == '.')) ++j;
      t = Tok::Number;
    } else {
      t = Tok::Punct;
    }
    out.push_back({t, i, j - i, open});
    i = j;
  }
}

// The token list of the statement being rewritten lives on per thread: its
// buffer, a block of a token every few characters, is reused instead of
// allocated for each statement, except after an unusually long one.
const size_t kKeptTokens = 4096;
std::vector<Token>& tokenBuffer() {
  thread_local std::vector<Token> buffer;
  return buffer;
}

class Rewriter {
 public:
  Rewriter(const std::string& src, const std::string& homeDatabase)
      : src_(src), home_(homeDatabase), toks_(tokenBuffer()) {
    tokenize(src, toks_);
    out_.reserve(src.size() + 32);
  }
  ~Rewriter() {
    if (toks_.capacity() > kKeptTokens) std::vector<Token>().swap(toks_);
  }
  Rewriter(const Rewriter&) = delete;
  Rewriter& operator=(const Rewriter&) = delete;

  DialectResult run() {
    emitRange(0, toks_.size(), true);
    return {std::move(out()), std::move(dbs_)};
  }

 private:
  template <size_t N>
  bool isWord(size_t i, const char (&kw)[N]) const {
    const size_t len = N - 1;
    if (i >= toks_.size() || toks_[i].type != Tok::Word || toks_[i].len != len) return false;
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
  // Copies token i. Tokens copied one after another as they stand in the
  // source grow one pending range, appended in one piece by out(): most of a
  // statement is copied unchanged.
  void emit(size_t i) {
    const Token& t = toks_[i];
    if (pendingLen_ > 0 && t.begin == pendingBegin_ + pendingLen_) {
      pendingLen_ += t.len;
      return;
    }
    out();
    pendingBegin_ = t.begin;
    pendingLen_ = t.len;
  }
  // The output so far, pending copies included: everything written other
  // than by emit() goes through here.
  std::string& out() {
    if (pendingLen_ > 0) out_.append(src_, pendingBegin_, pendingLen_);
    pendingLen_ = 0;
    return out_;
  }
  std::string text(size_t i) const { return src_.substr(toks_[i].begin, toks_[i].len); }

  // Records database `db` (the text of token i) once.
  void noteDatabase(size_t i) {
    const Token& t = toks_[i];
    for (const auto& d : dbs_)
      if (d.compare(0, std::string::npos, src_, t.begin, t.len) == 0) return;
    dbs_.push_back(text(i));
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
    const Token& db = toks_[i];
    if (!home_.empty() && home_.compare(0, std::string::npos, src_, db.begin, db.len) == 0) {
      out() += "main.";
    } else {
      noteDatabase(i);
      emit(i);
      out() += '.';
    }
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
    if (!begin && !commit && !rollback) return i;
    size_t k = nextSig(i + 1, end);
    bool tranWord = false;
    if (isWord(k, "tran") || isWord(k, "transaction")) {
      tranWord = true;
      k = nextSig(k + 1, end);
    }
    if (begin && !tranWord) return i;
    std::string name = kUnnamedSavepoint;
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
      out() += "SAVEPOINT " + name;
    } else if (commit) {
      out() += "RELEASE " + name;
    } else {
      out() += "ROLLBACK TO " + name + "; RELEASE " + name;
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
        out() += " AS ";
        emit(first);
        for (size_t i = exprEnd; i < e; ++i) emit(i);
        return;
      }
    }
    emitRange(b, e, false);
  }

  // Emits the select list that starts at token b; returns where it ends.
  size_t selectList(size_t b, size_t end) {
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
        if (isWord(i, "from") || isWord(i, "into") || isWord(i, "where") || isWord(i, "union") ||
            isWord(i, "order") || isWord(i, "group") || isWord(i, "having"))
          break;
      }
    }
    selectItem(itemStart, i);
    return i;
  }

  // Copies tokens [b, e) to the output with the forms of the header
  // rewritten. Only at the top level can a statement be a transaction one.
  void emitRange(size_t b, size_t e, bool topLevel) {
    bool statementStart = topLevel;
    for (size_t i = b; i < e;) {
      if (!significant(i)) {
        emit(i++);
        continue;
      }
      const bool atStart = statementStart;
      statementStart = isPunct(i, ';');
      const size_t after = toks_[i].type == Tok::Word ? rewriteWordAt(i, e, atStart, topLevel && atStart) : i;
      if (after != i) {
        i = after;
        continue;
      }
      emit(i++);
    }
  }

  // Rewrites the form that begins with word i, if any; returns the index
  // after it, or i when none begins there.
  size_t rewriteWordAt(size_t i, size_t end, bool statementStart, bool transactionAllowed) {
    size_t after = transactionAllowed ? transaction(i, end) : i;
    if (after == i && statementStart) after = deleteWithoutFrom(i, end);
    if (after == i) after = getdateCall(i, end);
    if (after == i) after = selectStatement(i, end);
    if (after == i) after = databaseQualifiedName(i, end);
    return after;
  }

  // "delete T" gets its "from".
  size_t deleteWithoutFrom(size_t i, size_t end) {
    if (!isWord(i, "delete")) return i;
    emit(i);
    const size_t k = nextSig(i + 1, end);
    if (k >= end || toks_[k].type != Tok::Word || isWord(k, "from")) return i + 1;
    for (size_t s = i + 1; s < k; ++s) emit(s);
    out() += "from ";
    return k;
  }

  // "getdate()" becomes the current local time in the library's date form.
  size_t getdateCall(size_t i, size_t end) {
    if (!isWord(i, "getdate")) return i;
    const size_t open = nextSig(i + 1, end);
    const size_t close = isPunct(open, '(') ? nextSig(open + 1, end) : end;
    if (close >= end || !isPunct(close, ')')) return i;
    out() += kNowExpression;
    return close + 1;
  }

  // "select [distinct|all] list": the list's items in alias form are turned.
  size_t selectStatement(size_t i, size_t end) {
    if (!isWord(i, "select")) return i;
    emit(i);
    size_t k = i + 1;
    // Keep the blanks and a DISTINCT / ALL keyword before the list.
    const size_t s = nextSig(k, end);
    if (isWord(s, "distinct") || isWord(s, "all")) {
      for (; k <= s; ++k) emit(k);
    }
    return selectList(k, end);
  }

  const std::string& src_;
  const std::string& home_;
  std::vector<Token>& toks_;
  std::string out_;
  size_t pendingBegin_ = 0;
  size_t pendingLen_ = 0;
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
