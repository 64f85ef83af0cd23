// The Sybase-to-SQLite rewriter: each form it handles, and look-alike text in
// literals and comments that it must leave alone.
#include <gtest/gtest.h>

#include "sybconn/drivers/SqliteDialect.h"

using sybconn::rewriteSybaseToSqlite;

namespace {
std::string rw(const std::string& s) { return rewriteSybaseToSqlite(s).sql; }
const std::string kNow = "strftime('%Y%m%d %H:%M:%f','now','localtime')";
}  // namespace

TEST(Dialect, DatabaseQualifiedNames) {
  struct Case {
    std::string in, home, out;
    std::vector<std::string> databases;
  };
  const Case cases[] = {
      {"select a from obrep2..constraint_sets c, ambient.dbo.seeing_torvane s, obrep2..x",
       "",
       "select a from obrep2.constraint_sets c, ambient.seeing_torvane s, obrep2.x",
       {"obrep2", "ambient"}},
      // Qualified columns in the select list, the where clause and a join.
      {"select obrep2..cs.cs_id,x.dbo.u.b from obrep2..cs,x.dbo.u where obrep2..cs.id=42 AND "
       "x.dbo.u.b=obrep2..cs.b",
       "",
       "select obrep2.cs.cs_id,x.u.b from obrep2.cs,x.u where obrep2.cs.id=42 AND x.u.b=obrep2.cs.b",
       {"obrep2", "x"}},
      {"select distinct D..T.a, n=D..T.b from D..T", "", "select distinct D.T.a, D.T.b AS n from D.T", {"D"}},
      // The connection's own database is "main" and needs no attaching.
      {"select obrep2..cs.cs_id from obrep2..cs, ambient..s",
       "obrep2",
       "select main.cs.cs_id from main.cs, ambient.s",
       {"ambient"}},
      {"select 'obrep2..t' from t", "", "select 'obrep2..t' from t", {}},
  };
  for (const Case& c : cases) {
    const auto r = rewriteSybaseToSqlite(c.in, c.home);
    EXPECT_EQ(r.sql, c.out) << c.in;
    EXPECT_EQ(r.databases, c.databases) << c.in;
  }
}

TEST(Dialect, DeleteWithoutFrom) {
  EXPECT_EQ(rw("delete T where file_id='F'"), "delete from T where file_id='F'");
  EXPECT_EQ(rw("DELETE  T"), "DELETE  from T");
  EXPECT_EQ(rw("delete from T where a=1"), "delete from T where a=1");
  EXPECT_EQ(rw("insert into t values ('x'); delete T where a='delete T where'"),
            "insert into t values ('x'); delete from T where a='delete T where'");
}

TEST(Dialect, NumberedTransactions) {
  EXPECT_EQ(rw("begin Tran A1"), "SAVEPOINT A1");
  EXPECT_EQ(rw("BEGIN TRANSACTION"), "SAVEPOINT sybtran");
  EXPECT_EQ(rw("commit A2"), "RELEASE A2");
  EXPECT_EQ(rw("commit tran A2;"), "RELEASE A2;");
  EXPECT_EQ(rw("rollback A3"), "ROLLBACK TO A3; RELEASE A3");
  EXPECT_EQ(rw("rollback"), "ROLLBACK TO sybtran; RELEASE sybtran");
  // Not a transaction statement: left alone.
  EXPECT_EQ(rw("select 'begin Tran A1'"), "select 'begin Tran A1'");
  EXPECT_EQ(rw("begin select 1 end"), "begin select 1 end");
}

TEST(Dialect, AliasFormOfSelectItems) {
  EXPECT_EQ(
      rw("INSERT INTO T (a, disk_id, creation_date) SELECT a, disk_id='D2', creation_date=getdate() FROM T "
         "WHERE disk_id='D1'"),
      "INSERT INTO T (a, disk_id, creation_date) SELECT a, 'D2' AS disk_id, " + kNow +
          " AS creation_date FROM T WHERE disk_id='D1'");
  // Comparisons outside the select list and variables are not items.
  EXPECT_EQ(rw("select a from t where b=1"), "select a from t where b=1");
  EXPECT_EQ(rw("select @x = 1"), "select @x = 1");
  EXPECT_EQ(rw("select n = (select max(a) from t where c = 2) from u"),
            "select (select max(a) from t where c = 2) AS n from u");
  EXPECT_EQ(rw("select distinct x=a+1, b from t"), "select distinct a+1 AS x, b from t");
}

TEST(Dialect, GetdateAndLiteralsUntouched) {
  EXPECT_EQ(rw("update t set d = getdate() where x='getdate()'"),
            "update t set d = " + kNow + " where x='getdate()'");
  EXPECT_EQ(rw("select GETDATE ( )"), "select " + kNow);
  const std::string tricky =
      "insert into t values ('it''s a..b', \"delete T where\", 'x=getdate()') -- begin Tran A1\n/* commit A1 "
      "*/";
  EXPECT_EQ(rw(tricky), tricky);
  // An unterminated literal runs to the end and is kept as it is.
  EXPECT_EQ(rw("select 'abc getdate()"), "select 'abc getdate()");
}

TEST(Dialect, QuickTestSkipsOnlyTextsLeftUnchanged) {
  EXPECT_FALSE(sybconn::mayNeedRewrite("insert into t (a, b) values (1, 'x')"));
  EXPECT_FALSE(sybconn::mayNeedRewrite("update t set deleted = 1 where selection = 2"));
  for (const char* s : {"delete T", "x..y", "a.DBO.b", "SELECT 1", "values (getdate())", "x; commit A1"})
    EXPECT_TRUE(sybconn::mayNeedRewrite(s)) << s;
}
