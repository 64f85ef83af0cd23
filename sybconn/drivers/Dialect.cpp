#include "sybconn/drivers/Dialect.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>
#include <unordered_set>

namespace sybconn {
namespace {

// The savepoint name of a transaction statement that names none.
const char kUnnamedSavepoint[] = "sybtran";

// What differs between the backends: the forms a rewrite writes.
struct Forms {
  const char* now;         // getdate(): the current local time
  const char* homePrefix;  // what "home..table" becomes before the table
  bool savepoints;         // transaction statements become savepoints
};
const Forms kSqliteForms{"strftime('%Y%m%d %H:%M:%f','now','localtime')", "main.", true};
const Forms kPostgresForms{"LOCALTIMESTAMP(3)", "", false};
const Forms& formsOf(DialectTarget target) {
  return target == DialectTarget::Postgres ? kPostgresForms : kSqliteForms;
}

enum class Tok : unsigned char { Space, Comment, String, Word, Number, Punct };

// The words a rewrite looks for. A word token is classified once, when the
// text is split: the rewrite asks most tokens several times what they are.
enum class Kw : unsigned char {
  None,
  All,
  Begin,
  Commit,
  Convert,
  Dbo,
  Delete,
  Distinct,
  From,
  Getdate,
  Group,
  Having,
  Into,
  Order,
  Rollback,
  Select,
  Tran,
  Transaction,
  Union,
  Where,
  Work
};

struct Token {
  Tok type;
  Kw kw;       // for a word, which keyword it is, if any
  bool open;   // a quoted token that runs to the end without its closing quote
  char first;  // its first character: punctuation is asked for it often
  size_t begin;
  size_t len;
};

// Character classes by table: the rewrite's quick test and the tokenizer look
// at every byte. White space and letters or digits are tabled for ASCII only;
// other bytes are asked of the C library, whose answer depends on the locale.
struct CharClasses {
  bool start[256];
  bool word[256];
  bool quote[256];  // may start a literal or a comment
  bool space[128];
  bool alnum[128];
  CharClasses() {
    for (int c = 0; c < 256; ++c) {
      const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      const bool digit = c >= '0' && c <= '9';
      start[c] = alpha || c == '_' || c == '@' || c == '#' || c >= 0x80;
      quote[c] = c == '\'' || c == '"' || c == '[' || c == '-' || c == '/';
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
bool mayStartQuoted(unsigned char c) { return kClasses.quote[c]; }
bool isSpace(unsigned char c) { return c < 128 ? kClasses.space[c] : std::isspace(c) != 0; }
bool isAlnum(unsigned char c) { return c < 128 ? kClasses.alnum[c] : std::isalnum(c) != 0; }

// Compares a word of the text with a lower-case keyword of the same length.
// Only a letter's two cases give a letter when the case bit is set.
bool sameWord(const char* text, const char* lower, size_t len) {
  for (size_t k = 0; k < len; ++k)
    if ((text[k] | 0x20) != lower[k]) return false;
  return true;
}

// Which keyword the word w of `len` characters is, without regard to case.
// The keywords of one length differ in their first letter: one comparison
// decides.
Kw keyword(const char* w, size_t len) {
  struct Entry {
    const char* lower;
    Kw kw;
  };
  Entry e{nullptr, Kw::None};
  const char first = static_cast<char>(w[0] | 0x20);
  switch (len) {
    case 3:
      if (first == 'a') e = {"all", Kw::All};
      if (first == 'd') e = {"dbo", Kw::Dbo};
      break;
    case 4:
      if (first == 't') e = {"tran", Kw::Tran};
      if (first == 'w') e = {"work", Kw::Work};
      if (first == 'f') e = {"from", Kw::From};
      if (first == 'i') e = {"into", Kw::Into};
      break;
    case 5:
      if (first == 'b') e = {"begin", Kw::Begin};
      if (first == 'w') e = {"where", Kw::Where};
      if (first == 'u') e = {"union", Kw::Union};
      if (first == 'o') e = {"order", Kw::Order};
      if (first == 'g') e = {"group", Kw::Group};
      break;
    case 6:
      if (first == 'c') e = {"commit", Kw::Commit};
      if (first == 'd') e = {"delete", Kw::Delete};
      if (first == 's') e = {"select", Kw::Select};
      if (first == 'h') e = {"having", Kw::Having};
      break;
    case 7:
      if (first == 'g') e = {"getdate", Kw::Getdate};
      if (first == 'c') e = {"convert", Kw::Convert};
      break;
    case 8:
      if (first == 'r') e = {"rollback", Kw::Rollback};
      if (first == 'd') e = {"distinct", Kw::Distinct};
      break;
    case 11:
      if (first == 't') e = {"transaction", Kw::Transaction};
      break;
    default:
      break;
  }
  return e.lower != nullptr && sameWord(w, e.lower, len) ? e.kw : Kw::None;
}

// The clause words that end a select list at its own depth.
bool isClauseWord(Kw kw) {
  switch (kw) {
    case Kw::From:
    case Kw::Into:
    case Kw::Where:
    case Kw::Union:
    case Kw::Order:
    case Kw::Group:
    case Kw::Having:
      return true;
    default:
      return false;
  }
}

// Records database `name` in `r` once. A statement names one or two; a long
// list of them is looked up through `seen`, filled on first need.
void noteDatabase(DialectResult& r, std::string_view name, std::unordered_set<std::string>& seen) {
  const size_t kScanned = 8;
  if (r.databases.size() < kScanned) {
    for (const auto& d : r.databases)
      if (d == name) return;
  } else {
    if (seen.empty()) seen.insert(r.databases.begin(), r.databases.end());
    if (!seen.emplace(name).second) return;
  }
  r.databases.emplace_back(name);
}

// End of the literal or comment that starts at i ('...', "...", [...], -- to
// the line end, /* ... */), or 0 when none starts there. `open` tells whether
// a quoted text ran to the end of `s` without its closing quote. `s` is a
// string's data: s[n] is its terminating NUL.
size_t quotedEnd(const char* s, size_t n, size_t i, bool& open) {
  const char c = s[i];
  if (c == '-' && s[i + 1] == '-') {
    const void* nl = std::memchr(s + i + 2, '\n', n - i - 2);
    return nl ? static_cast<size_t>(static_cast<const char*>(nl) - s) : n;
  }
  if (c == '/' && s[i + 1] == '*') {
    const char* const end = s + n;
    const char kClose[] = "*/";
    const char* const close = std::search(s + i + 2, end, kClose, kClose + 2);
    return close == end ? n : static_cast<size_t>(close - s) + 2;
  }
  if (c != '\'' && c != '"' && c != '[') return 0;
  // Quoted text runs to the matching quote; a doubled quote stays inside.
  const char closing = c == '[' ? ']' : c;
  for (size_t j = i + 1; j < n; j += 2) {
    // Literals of inserts run to dozens of characters: the library's search.
    const void* q = std::memchr(s + j, closing, n - j);
    if (q == nullptr) break;
    j = static_cast<size_t>(static_cast<const char*>(q) - s);
    // At the text's end s[n] is the string's terminating NUL, never a quote.
    if (closing == ']' || s[j + 1] != closing) {
      open = false;
      return j + 1;
    }
  }
  open = true;
  return n;
}

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
    Kw kw = Kw::None;
    bool open = false;
    if (isSpace(c)) {
      while (j < n && isSpace(static_cast<unsigned char>(s[j]))) ++j;
      t = Tok::Space;
    } else if (const size_t e = mayStartQuoted(c) ? quotedEnd(s.data(), n, i, open) : 0) {
      j = e;
      t = c == '\'' || c == '"' || c == '[' ? Tok::String : Tok::Comment;
    } else if (isWordStart(c)) {
      while (j < n && isWordChar(static_cast<unsigned char>(s[j]))) ++j;
      t = Tok::Word;
      kw = keyword(s.data() + i, j - i);
    } else if (c >= '0' && c <= '9') {
      while (j < n && (isAlnum(static_cast<unsigned char>(s[j])) || s[j] == '.')) ++j;
      t = Tok::Number;
    } else {
      t = Tok::Punct;
    }
    out.push_back({t, kw, open, static_cast<char>(c), i, j - i});
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

// The rewrite is one pass over the tokens, without recursion: a statement of
// any length or nesting costs time in proportion to its length and a stack
// of its open select lists.
//
// A select list runs from its "select" (and DISTINCT or ALL) to the first of
// ')' ';' or a clause word (from into where union order group having) at its
// own parenthesis depth; a ',' there ends its current item. A list opened
// inside an item of another list at the same depth ends where that item
// ends. An item `name = expr` is written as `expr AS name`: the blanks after
// the "=" are dropped, those after the expression follow the alias.
class Rewriter {
 public:
  Rewriter(const std::string& src, const Forms& forms, const std::string& homeDatabase)
      : src_(src), forms_(forms), home_(homeDatabase), toks_(tokenBuffer()) {
    tokenize(src, toks_);
    out_.reserve(src.size() + 32);
    // Text after an unterminated literal would land inside it: with one at
    // the end, no alias is moved behind its expression.
    swapAliases_ = toks_.empty() || !toks_.back().open;
  }
  ~Rewriter() {
    if (toks_.capacity() > kKeptTokens) std::vector<Token>().swap(toks_);
  }
  Rewriter(const Rewriter&) = delete;
  Rewriter& operator=(const Rewriter&) = delete;

  DialectResult run() {
    const size_t n = toks_.size();
    bool statementStart = true;  // no significant token yet, or the last was ';'
    size_t i = 0;
    while (i < n) {
      if (!significant(i)) {
        if (deferred_ == kNone) deferred_ = i;
        ++i;
        continue;
      }
      if (!lists_.empty() && lists_.back().depth == depth_) {
        if (isPunct(i, ',')) {
          // Ends the current item of the outermost list at this depth, and
          // every list opened inside that item.
          size_t owner = lists_.size() - 1;
          while (owner > 0 && lists_[owner - 1].depth == depth_) --owner;
          endListsFrom(owner + 1);
          endItem(lists_[owner]);
          flushDeferred();
          emit(i);
          i = startItem(lists_[owner], i + 1);
          statementStart = false;
          continue;
        }
        if (endsList(i)) {
          size_t first = lists_.size() - 1;
          while (first > 0 && lists_[first - 1].depth == depth_) --first;
          endListsFrom(first);
        }
      }
      if (!lists_.empty() && lists_.back().alias && !lists_.back().exprStarted) {
        // The blanks between "=" and the expression are dropped.
        lists_.back().exprStarted = true;
        deferred_ = kNone;
      }
      flushDeferred();
      const bool atStart = statementStart;
      statementStart = isPunct(i, ';');
      if (isPunct(i, '(')) {
        ++depth_;
      } else if (isPunct(i, ')') && depth_ > 0) {
        --depth_;
        if (!converts_.empty() && converts_.back().close == i) {
          // The type of a convert follows its expression.
          const Convert& c = converts_.back();
          out().append(" AS ").append(
              src_, toks_[c.typeBegin].begin,
              toks_[c.typeEnd - 1].begin + toks_[c.typeEnd - 1].len - toks_[c.typeBegin].begin);
          converts_.pop_back();
        }
      } else if (toks_[i].type == Tok::Word) {
        const size_t after = rewriteWordAt(i, atStart, atStart && lists_.empty());
        if (after != i) {
          i = after;
          continue;
        }
      }
      emit(i++);
    }
    endListsFrom(0);
    flushDeferred();
    result_.sql = std::move(out());
    return std::move(result_);
  }

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // An open select list.
  struct List {
    int depth;         // the parenthesis depth its items run at
    bool alias;        // its current item is `name = expr`
    bool exprStarted;  // ... and a token of the expression has been written
    size_t name;       // ... the name's token
  };

  // Only word tokens carry a keyword.
  bool isWord(size_t i, Kw kw) const { return i < toks_.size() && toks_[i].kw == kw; }
  bool isPunct(size_t i, char c) const {
    return i < toks_.size() && toks_[i].type == Tok::Punct && toks_[i].first == c;
  }
  bool significant(size_t i) const { return toks_[i].type != Tok::Space && toks_[i].type != Tok::Comment; }
  // Index of the next significant token at or after i (at most the token
  // count), or the token count.
  size_t nextSig(size_t i) const {
    while (i != toks_.size() && !significant(i)) ++i;
    return i;
  }
  // True for a token that ends a select list at its own depth (',' ends an
  // item only).
  bool endsList(size_t i) const { return isClauseWord(toks_[i].kw) || isPunct(i, ')') || isPunct(i, ';'); }
  // True when token i is where the innermost open list ends, so that a form
  // cannot reach over it.
  bool listEndsAt(size_t i) const {
    return !lists_.empty() && lists_.back().depth == depth_ && (endsList(i) || isPunct(i, ','));
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
  // Blanks and comments are held back until it is known whether they trail
  // an item that gets its alias written after it.
  void flushDeferred() {
    if (deferred_ == kNone) return;
    for (size_t k = deferred_; k < toks_.size() && !significant(k); ++k) emit(k);
    deferred_ = kNone;
  }

  // Begins an item of `list` at token b; returns where reading goes on.
  size_t startItem(List& list, size_t b) {
    list.alias = false;
    if (!swapAliases_) return b;
    const size_t first = nextSig(b);
    if (first == toks_.size() || toks_[first].type != Tok::Word || toks_[first].first == '@' ||
        endsList(first))
      return b;
    const size_t eq = nextSig(first + 1);
    if (!isPunct(eq, '=') || isPunct(eq + 1, '=')) return b;
    for (size_t k = b; k < first; ++k) emit(k);  // the leading blanks stay
    list.alias = true;
    list.exprStarted = false;
    list.name = first;
    deferred_ = kNone;
    return eq + 1;
  }
  void endItem(const List& list) {
    if (!list.alias) return;
    out() += " AS ";
    emit(list.name);
  }
  // Ends the lists from index `first` of the stack up, the innermost first.
  void endListsFrom(size_t first) {
    while (lists_.size() > first) {
      endItem(lists_.back());
      lists_.pop_back();
    }
  }

  std::string text(size_t i) const { return src_.substr(toks_[i].begin, toks_[i].len); }
  std::string_view view(size_t i) const {
    return std::string_view(src_).substr(toks_[i].begin, toks_[i].len);
  }

  // X..table and X.dbo.table starting at word i name the table of database X;
  // a column may follow (X..table.column). Emits "X.table" ("main.table" for
  // the home database) and returns the index after the table's token, or i
  // when the tokens are no such name.
  size_t databaseQualifiedName(size_t i) {
    size_t table;
    if (isPunct(i + 1, '.') && isPunct(i + 2, '.')) {
      table = i + 3;
    } else if (isPunct(i + 1, '.') && isWord(i + 2, Kw::Dbo) && isPunct(i + 3, '.')) {
      table = i + 4;
    } else {
      return i;
    }
    if (table >= toks_.size() || toks_[table].type != Tok::Word || listEndsAt(table)) return i;
    if (!home_.empty() && view(i) == home_) {
      out() += forms_.homePrefix;
    } else {
      noteDatabase(result_, view(i), seen_);
      emit(i);
      emit(i + 1);  // the first '.': "X." runs on in the source
    }
    emit(table);
    return table + 1;
  }

  // Handles a transaction statement starting at significant token i (begin,
  // commit or rollback). Returns the index after the statement's last consumed
  // token, or i when the tokens are not a transaction statement.
  size_t transaction(size_t i) {
    const bool begin = isWord(i, Kw::Begin);
    const bool commit = isWord(i, Kw::Commit);
    const bool rollback = isWord(i, Kw::Rollback);
    if (!begin && !commit && !rollback) return i;
    size_t k = nextSig(i + 1);
    bool tranWord = false;
    if (isWord(k, Kw::Tran) || isWord(k, Kw::Transaction)) {
      tranWord = true;
      k = nextSig(k + 1);
    }
    if (begin && !tranWord) return i;
    std::string name = kUnnamedSavepoint;
    size_t after = k;
    if (k < toks_.size() && toks_[k].type == Tok::Word && !isWord(k, Kw::Work)) {
      name = text(k);
      after = k + 1;
    } else if (isWord(k, Kw::Work)) {
      after = k + 1;
    }
    // Only a statement end may follow.
    const size_t rest = nextSig(after);
    if (rest < toks_.size() && !isPunct(rest, ';')) return i;
    if (begin) {
      out() += "SAVEPOINT " + name;
    } else if (commit) {
      out() += "RELEASE " + name;
    } else {
      out() += "ROLLBACK TO " + name + "; RELEASE " + name;
    }
    return after;
  }

  // Rewrites the form that begins with word i, if any; returns the index
  // after it, or i when none begins there.
  size_t rewriteWordAt(size_t i, bool statementStart, bool transactionAllowed) {
    size_t after = transactionAllowed && forms_.savepoints ? transaction(i) : i;
    if (after == i && statementStart) after = deleteWithoutFrom(i);
    if (after == i) after = getdateCall(i);
    if (after == i) after = convertCall(i);
    if (after == i) after = selectStatement(i);
    if (after == i) after = databaseQualifiedName(i);
    return after;
  }

  // "delete T" gets its "from".
  size_t deleteWithoutFrom(size_t i) {
    if (!isWord(i, Kw::Delete)) return i;
    emit(i);
    const size_t k = nextSig(i + 1);
    if (k >= toks_.size() || toks_[k].type != Tok::Word || isWord(k, Kw::From) || listEndsAt(k)) return i + 1;
    for (size_t s = i + 1; s < k; ++s) emit(s);
    out() += "from ";
    return k;
  }

  // "getdate()" becomes the current local time in the library's date form.
  size_t getdateCall(size_t i) {
    if (!isWord(i, Kw::Getdate)) return i;
    const size_t open = nextSig(i + 1);
    if (!isPunct(open, '(')) return i;
    const size_t close = nextSig(open + 1);
    if (!isPunct(close, ')')) return i;
    out() += forms_.now;
    return close + 1;
  }

  // "convert(type, expr)" becomes "CAST(expr AS type)": the type is written
  // when the call's ")" comes. A call with a third argument (a style) or
  // without a type is left as written.
  size_t convertCall(size_t i) {
    if (!isWord(i, Kw::Convert)) return i;
    const size_t open = nextSig(i + 1);
    if (!isPunct(open, '(')) return i;
    matchParentheses();
    const Call& call = calls_[open];
    const size_t type = nextSig(open + 1);
    if (call.close == kNone || call.commas != 1 || type >= call.comma) return i;
    size_t typeEnd = call.comma;
    while (!significant(typeEnd - 1)) --typeEnd;
    out() += "CAST(";
    converts_.push_back({type, typeEnd, call.close});
    ++depth_;
    // The blanks that followed the comma would now follow "CAST(".
    size_t expr = call.comma + 1;
    while (expr != toks_.size() && toks_[expr].type == Tok::Space) ++expr;
    return expr;
  }

  // For each "(", its ")" and the commas at its own level: one pass over the
  // tokens, made when the first convert is met.
  void matchParentheses() {
    if (!calls_.empty()) return;
    calls_.assign(toks_.size(), Call{kNone, kNone, 0});
    std::vector<size_t> open;
    for (size_t k = 0; k != toks_.size(); ++k) {
      if (isPunct(k, '(')) {
        open.push_back(k);
      } else if (open.empty()) {
        continue;
      } else if (isPunct(k, ')')) {
        calls_[open.back()].close = k;
        open.pop_back();
      } else if (isPunct(k, ',') && calls_[open.back()].commas++ == 0) {
        calls_[open.back()].comma = k;
      }
    }
  }

  // "select [distinct|all]" opens a select list.
  size_t selectStatement(size_t i) {
    if (!isWord(i, Kw::Select)) return i;
    emit(i);
    size_t k = i + 1;
    // Keep the blanks and a DISTINCT / ALL keyword before the list.
    const size_t s = nextSig(k);
    if (isWord(s, Kw::Distinct) || isWord(s, Kw::All)) {
      for (; k <= s; ++k) emit(k);
    }
    lists_.push_back({depth_, false, false, 0});
    return startItem(lists_.back(), k);
  }

  // A "(" and what is between it and its ")".
  struct Call {
    size_t close;  // its ")", or kNone
    size_t comma;  // its first comma at its own level, or kNone
    size_t commas;
  };
  // A convert being written: its type's tokens and its ")".
  struct Convert {
    size_t typeBegin, typeEnd, close;
  };

  const std::string& src_;
  const Forms& forms_;
  const std::string& home_;
  std::vector<Token>& toks_;
  bool swapAliases_;
  std::string out_;
  size_t pendingBegin_ = 0;
  size_t pendingLen_ = 0;
  size_t deferred_ = kNone;  // first of the blanks held back, if any
  int depth_ = 0;            // parentheses open
  std::vector<List> lists_;
  std::vector<Call> calls_;  // by token index, once a convert is met
  std::vector<Convert> converts_;
  DialectResult result_;
  std::unordered_set<std::string> seen_;  // result_.databases, once it is long
};

// What a scan of the characters found a text to need.
enum class Need { Nothing, Names, Tokens };

// Scans a text as the tokenizer would split it, without storing tokens, for
// what a rewrite would change. Without `out` it stops at the first sign of a
// change (Tokens). With `out`, it rewrites the qualified names it passes into
// out->sql as it goes: when the result is Names, that is the whole rewrite;
// anything else it finds (a keyword of a form, an "=" or a literal inside a
// select list, a qualified name whose parts are keywords) is Tokens, left to
// the token-by-token rewrite.
Need scan(const std::string& str, const Forms& forms, const std::string& home, DialectResult* out) {
  const char* const s = str.data();
  const size_t n = str.size();
  // The parenthesis depths of the select lists open here, innermost last:
  // an alias item needs an "=" inside one. More than the array holds is
  // rare enough to leave to the rewrite.
  int lists[16];
  size_t open = 0;
  int depth = 0;
  const auto closeAt = [&](int d) {
    while (open > 0 && lists[open - 1] >= d) --open;
  };
  size_t copied = 0;  // out->sql holds the rewrite of s up to here
  std::unordered_set<std::string> seen;
  size_t i = 0;
  while (i != n) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == ' ') {  // a third of the tokens; nothing to see
      ++i;
      continue;
    }
    bool unterminated = false;
    if (const size_t e = mayStartQuoted(c) ? quotedEnd(s, n, i, unterminated) : 0) {
      // A literal or comment in a select list is left to the rewrite, which
      // knows where the list's items begin.
      if (open > 0) return Need::Tokens;
      i = e;
      continue;
    }
    if (c >= '0' && c <= '9') {
      // A number, as the tokenizer reads one: "1from" holds no clause word.
      do ++i;
      while (i != n && (isAlnum(static_cast<unsigned char>(s[i])) || s[i] == '.'));
      continue;
    }
    if (!isWordStart(c)) {
      ++i;
      switch (c) {
        case '.':
          // Without output, a qualified name is a change; with it, a name
          // is rewritten where its first word ends.
          if (out == nullptr && i != n && (s[i] == '.' || (n - i > 3 && sameWord(s + i, "dbo.", 4))))
            return Need::Tokens;
          break;
        case '=':
          if (open > 0) return Need::Tokens;
          break;
        case '(':
          ++depth;
          break;
        case ')':
          closeAt(depth);
          if (depth > 0) --depth;
          break;
        case ';':
          closeAt(depth);
          break;
        default:
          break;
      }
      continue;
    }
    size_t j = i + 1;
    while (j != n && isWordChar(static_cast<unsigned char>(s[j]))) ++j;
    const Kw kw = keyword(s + i, j - i);
    switch (kw) {
      case Kw::Begin:
      case Kw::Commit:
      case Kw::Rollback:
      case Kw::Delete:
      case Kw::Getdate:
      case Kw::Convert:
        return Need::Tokens;
      case Kw::Select:
        if (open == sizeof lists / sizeof lists[0]) return Need::Tokens;
        lists[open++] = depth;
        break;
      default:
        if (isClauseWord(kw)) closeAt(depth);
        break;
    }
    // X..table or X.dbo.table: the table's word starts at `table`.
    size_t table = j;
    if (out != nullptr && n - j > 2 && s[j] == '.') {
      if (s[j + 1] == '.')
        table = j + 2;
      else if (n - j > 5 && sameWord(s + j + 1, "dbo", 3) && s[j + 4] == '.')
        table = j + 5;
    }
    if (table == j || !isWordStart(static_cast<unsigned char>(s[table]))) {
      i = j;
      continue;
    }
    size_t end = table + 1;
    while (end != n && isWordChar(static_cast<unsigned char>(s[end]))) ++end;
    if (kw != Kw::None || keyword(s + table, end - table) != Kw::None) return Need::Tokens;
    const std::string_view db(s + i, j - i);
    out->sql.append(s + copied, i - copied);
    if (!home.empty() && db == home) {
      out->sql += forms.homePrefix;
    } else {
      noteDatabase(*out, db, seen);
      out->sql.append(db).append(1, '.');
    }
    copied = table;
    // The table's word is copied as it stands: it starts no name of its own.
    i = end;
  }
  if (out == nullptr || copied == 0) return Need::Nothing;
  out->sql.append(s + copied, n - copied);
  return Need::Names;
}

}  // namespace

DialectResult rewriteSybaseByTokens(const std::string& sybaseSql, DialectTarget target,
                                    const std::string& homeDatabase) {
  return Rewriter(sybaseSql, formsOf(target), homeDatabase).run();
}

DialectResult rewriteSybase(const std::string& sybaseSql, DialectTarget target,
                            const std::string& homeDatabase) {
  const Forms& forms = formsOf(target);
  DialectResult r;
  r.sql.reserve(sybaseSql.size());
  switch (scan(sybaseSql, forms, homeDatabase, &r)) {
    case Need::Names:
      return r;
    case Need::Nothing:
      r.sql = sybaseSql;
      return r;
    default:
      return Rewriter(sybaseSql, forms, homeDatabase).run();
  }
}

bool mayNeedRewrite(const std::string& sybaseSql) {
  return scan(sybaseSql, kSqliteForms, std::string(), nullptr) != Need::Nothing;
}
}  // namespace sybconn
