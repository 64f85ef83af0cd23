// The Sybase-to-SQLite rewriter: each form it handles, and look-alike text in
// literals and comments that it must leave alone.
#include <gtest/gtest.h>

#include "sybconn/drivers/SqliteDialect.h"

namespace {

const std::string kNow = "strftime('%Y%m%d %H:%M:%f','now','localtime')";

TEST(Dialect, Rewrites) {
  // An empty `out` means the text comes back unchanged; `home` is the
  // connection's own database, which needs no attaching.
  const struct {
    std::string in, out, home = "";
    std::vector<std::string> databases = {};
  } cases[] = {
      {"insert into t values ('x'); delete T where a='delete T where'",
       "insert into t values ('x'); delete from T where a='delete T where'"},
      {"begin Tran A1", "SAVEPOINT A1"},
      {"commit tran A2;", "RELEASE A2;"},
      {"rollback", "ROLLBACK TO sybtran; RELEASE sybtran"},
      {"select distinct x=a+1, b from t", "select distinct a+1 AS x, b from t"},
      {"select @x = 1", ""},
      {"update t set d = getdate() where x='getdate()'", "update t set d = " + kNow + " where x='getdate()'"},
      {"insert into t values ('it''s a..b', \"delete T where\", 'x=getdate()') -- begin Tran A1\n/* commit "
       "A1 */",
       ""},
      // A comment runs to the end of its line, and no further.
      {"select 1 -- getdate() a..b\n", ""},
      {"select 1 -- x\n, getdate()", "select 1 -- x\n, " + kNow},
      {"select 'abc getdate()", ""},  // an unterminated literal runs to the end
      {"select a from obrep2..cs c, ambient.dbo.s, obrep2..x",
       "select a from obrep2.cs c, ambient.s, obrep2.x",
       "",
       {"obrep2", "ambient"}},
      {"select obrep2..cs.cs_id from obrep2..cs, ambient..s",
       "select main.cs.cs_id from main.cs, ambient.s",
       "obrep2",
       {"ambient"}},
      {"select 'obrep2..t' from t -- a..b", ""},
  };
  for (const auto& c : cases) {
    const auto r = sybconn::rewriteSybaseToSqlite(c.in, c.home);
    EXPECT_EQ(r.sql, c.out.empty() ? c.in : c.out) << c.in;
    EXPECT_EQ(r.databases, c.databases) << c.in;
  }
}

}  // namespace
