#ifndef SYBCONN_DRIVERS_SQLITEDIALECT_H
#define SYBCONN_DRIVERS_SQLITEDIALECT_H

#include <string>
#include <vector>

namespace sybconn {

// The Sybase T-SQL forms that the library writes, turned into SQLite's in one
// token-aware pass. String literals ('...' and "...") and comments are copied
// untouched. Keywords are matched without regard to case.
//
//   X..table, X.dbo.table          X.table      (X is recorded in `databases`;
//                                               the home database is "main")
//   X..table.column                X.table.column
//   delete T where ...             delete from T where ...
//   begin tran[saction] [N]        SAVEPOINT N
//   commit [tran[saction]] [N]     RELEASE N
//   rollback [tran[saction]] [N]   ROLLBACK TO N; RELEASE N
//   select a, name=expr from ...   select a, expr AS name from ...
//   getdate()                      the current local time as "YYYYMMDD HH:MM:SS.mmm"
//
// Unnamed transactions use the savepoint name `sybtran`. A text that ends
// inside an unterminated literal keeps its `name=expr` items as written (an
// alias written after the expression would land inside the literal). Time
// and memory grow in proportion to the text, however deep its nesting.
struct DialectResult {
  std::string sql;
  // Database qualifiers seen in `X..table` names, each once, in order.
  std::vector<std::string> databases;
};

// `homeDatabase` names the database the statement runs in (the connection's
// own file); its qualified names become main.table and are not recorded.
DialectResult rewriteSybaseToSqlite(const std::string& sybaseSql, const std::string& homeDatabase = "");

// A quick test, without tokenising: false when the rewrite would give the text
// back unchanged because it holds none of the words and marks a rewrite looks
// for, outside literals and comments, and no "=" inside a select list (where
// `name = expr` would be an alias). True does not mean that anything will
// change: a literal or comment inside a select list, for one, is left to the
// rewrite.
bool mayNeedRewrite(const std::string& sybaseSql);

}  // namespace sybconn

#endif
