#ifndef SYBCONN_DRIVERS_DIALECT_H
#define SYBCONN_DRIVERS_DIALECT_H

#include <string>
#include <vector>

namespace sybconn {

// The Sybase T-SQL forms that the library writes, turned into the SQL of the
// backend in one token-aware pass. String literals ('...' and "...") and
// comments are copied untouched. Keywords are matched without regard to case.
// One tokenizer serves every backend; what differs is the table of forms:
//
//   Sybase                         SQLite                   PostgreSQL
//   X..table, X.dbo.table          X.table (X an attached   X.table (schema X)
//                                  file, recorded in
//                                  `databases`)
//   home..table                    main.table               table
//   X..table.column                X.table.column           X.table.column
//   delete T where ...             delete from T where ...  delete from T where ...
//   select a, name=expr from ...   select a, expr AS name from ...  (both)
//   convert(type, expr)            CAST(expr AS type)       CAST(expr AS type)
//   getdate()                      local time as text       LOCALTIMESTAMP(3)
//                                  "YYYYMMDD HH:MM:SS.mmm"
//   begin tran[saction] [N]        SAVEPOINT N              as written
//   commit [tran[saction]] [N]     RELEASE N                as written
//   rollback [tran[saction]] [N]   ROLLBACK TO N; RELEASE N as written
//
// The library's own transactions do not pass through here: they reach the
// drivers as typed calls (Driver::transaction). On SQLite, transaction
// statements that callers write themselves become savepoints; unnamed ones
// use the name `sybtran`. A convert with a style argument is left as written.
//
// A text that ends inside an unterminated literal keeps its `name=expr` items
// as written (an alias written after the expression would land inside the
// literal). Time and memory grow in proportion to the text, however deep its
// nesting.
enum class DialectTarget { Sqlite, Postgres };

struct DialectResult {
  std::string sql;
  // Database qualifiers seen in `X..table` names, each once, in order (the
  // home database is not recorded).
  std::vector<std::string> databases;
};

// `homeDatabase` names the database the statement runs in (SQLite: the
// connection's own file; PostgreSQL: the connected database).
//
// Most statements of the library need only their qualified names rewritten:
// those are rewritten by a scan of the characters, without tokenising; the
// others take the token-by-token rewrite, rewriteSybaseByTokens.
DialectResult rewriteSybase(const std::string& sybaseSql, DialectTarget target,
                            const std::string& homeDatabase = "");

// The token-by-token rewrite alone. rewriteSybase gives the same result for
// every text; tests and the fuzz target compare the two.
DialectResult rewriteSybaseByTokens(const std::string& sybaseSql, DialectTarget target,
                                    const std::string& homeDatabase = "");

// A quick test, without tokenising: false when the rewrite would give the text
// back unchanged because it holds none of the words and marks a rewrite looks
// for, outside literals and comments, and no "=" inside a select list (where
// `name = expr` would be an alias). True does not mean that anything will
// change: a literal or comment inside a select list, for one, is left to the
// rewrite.
bool mayNeedRewrite(const std::string& sybaseSql);

}  // namespace sybconn

#endif
