// ServiceConnectionSyb through the real pool on the backend of the run: acquisition,
// the select-list map, numbered transactions and the error handler.
#include <dataAccess/db/SelectList.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include "tests/db/DbFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class Service : public DbFixture {
 protected:
  void SetUp() override {
    DbFixture::SetUp();
    conn_ = std::make_unique<ServiceConnectionSyb>(server(), "user", "pw", "db");
    ASSERT_EQ(conn_->acquire(), 0);
    ASSERT_EQ(conn_->execute("create table t (a int, b varchar(10), c int)").commandSucceeded(), 1);
    conn_->execute("insert into t values (1, 'x', 10)");
    conn_->execute("insert into t values (2, 'y', 20)");
  }
  void TearDown() override {
    conn_.reset();
    DbFixture::TearDown();
  }
  std::unique_ptr<ServiceConnectionSyb> conn_;
};

TEST_F(Service, AcquireIsIdempotentAndReleaseOnlyOnce) {
  EXPECT_EQ(conn_->acquire(), 0);
  EXPECT_EQ(ConnectionPool::instance()->counts().records, 1);
  EXPECT_EQ(conn_->release(), 0);
  EXPECT_EQ(conn_->release(), -1);
  ServiceConnectionSyb never(server(), "user", "pw", "db");
  EXPECT_EQ(never.release(), -1);
  // Destruction gives a held login back.
  {
    ServiceConnectionSyb held(server(), "user", "pw", "db");
    ASSERT_EQ(held.acquire(), 0);
    EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 1);
  }
  EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 0);
}

TEST_F(Service, SelectListMap) {
  struct Case {
    std::string sql;
    int result;
    ServiceConnectionSyb::ListOfFieldIndex map;
  };
  const Case cases[] = {
      {"select a, b, c from t", 0, {{"a", 1}, {"b", 2}, {"c", 3}}},
      {"SELECT DISTINCT a , b FROM t", 0, {{"a", 1}, {"b", 2}}},
      {"select t.a,b from t", 0, {{"t.a", 1}, {"b", 2}}},
      {"select a, a from t", 0, {{"a", 1}}},
      {"select a, from t", -1, {}},  // a syntax error: nothing mapped
      {"select a,b From t", 0, {}},  // neither "from" nor "FROM"
      {"select * from t", 0, {{"*", 1}}},
      {"select a as x, max(a, c) from t", 0, {{"aasx", 1}, {"max(a", 2}, {"c)", 3}}},
      {"update t set a = 1", -1, {}},  // not a select: not executed
  };
  for (const Case& c : cases) {
    ServiceConnectionSyb::ListOfFieldIndex map;
    ServiceConnectionSyb::ResultSet rs;
    EXPECT_EQ(conn_->executeSelect(c.sql, rs, map), c.result) << c.sql;
    EXPECT_EQ(map, c.map) << c.sql;
  }
  // A trailing comma enters the empty name (what a server that accepted it would map).
  ServiceConnectionSyb::ListOfFieldIndex trailing;
  dataAccess::mapSelectList(" a,", trailing);
  EXPECT_EQ(trailing, (ServiceConnectionSyb::ListOfFieldIndex{{"a", 1}, {"", 2}}));

  // The map is appended to and keeps earlier positions.
  ServiceConnectionSyb::ListOfFieldIndex map{{"b", 7}};
  ServiceConnectionSyb::ResultSet rs;
  ASSERT_EQ(conn_->executeSelect("select a, b from t order by a", rs, map), 0);
  EXPECT_EQ(map, (ServiceConnectionSyb::ListOfFieldIndex{{"a", 1}, {"b", 7}}));
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(map["a"]), 1);

  // A non-select is neither executed nor logged; a failing select logs its statement.
  testsupport::LogCapture log;
  EXPECT_EQ(conn_->executeSelect("delete t", rs, map), -1);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(conn_->executeSelect("select x from nowhere", rs, map), -1);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Error executing SQL command select x from nowhere\n"));
  auto rows = conn_->execute("select count(*) from t");
  ASSERT_TRUE(rows.next());
  EXPECT_EQ(rows.getLongValue(1), 2);
}

TEST_F(Service, ThreePartColumnNamesMapByPosition) {
  // Sibling database files are an embedded-database feature, whatever the backend of the run.
  ServiceConnectionSyb local("sqlite:" + dir_.file("main.db"), "u", "p", "db");
  ASSERT_EQ(local.acquire(), 0);
  ASSERT_EQ(
      local
          .execute("create table obrep2..cs (cs_id int, user_id int); insert into obrep2..cs values (7, 70);"
                   "create table obrep2..ob (ob_id int, cs_id int); insert into obrep2..ob values (42, 7)")
          .commandSucceeded(),
      1);
  ServiceConnectionSyb::ListOfFieldIndex map;
  ServiceConnectionSyb::ResultSet rs;
  ASSERT_EQ(local.executeSelect("select obrep2..cs.user_id,obrep2..cs.cs_id from obrep2..cs,obrep2..ob where "
                                "obrep2..ob.ob_id=42 AND obrep2..ob.cs_id=obrep2..cs.cs_id",
                                rs, map),
            0);
  ASSERT_EQ(map,
            (ServiceConnectionSyb::ListOfFieldIndex{{"obrep2..cs.user_id", 1}, {"obrep2..cs.cs_id", 2}}));
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(map["obrep2..cs.cs_id"]), 7);
  EXPECT_EQ(rs.getLongValue(map["obrep2..cs.user_id"]), 70);
}

TEST_F(Service, NumberedTransactions) {
  testsupport::LogCapture log;
  EXPECT_EQ(conn_->commitTransaction(), -1);  // none open: nothing executed
  EXPECT_FALSE(log.containsFragment("commit"));
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] KestFileDAOSyb::executeQuery. No connection available\n"));

  ASSERT_EQ(conn_->beginTransaction(), 0);
  conn_->execute("insert into t values (3, 'z', 30)");
  ASSERT_EQ(conn_->beginTransaction(), 0);
  conn_->execute("insert into t values (4, 'w', 40)");
  EXPECT_EQ(conn_->transactionNumber(), 2);
  ASSERT_EQ(conn_->rollbackTransaction(), 0);  // undoes row 4 only
  EXPECT_EQ(conn_->transactionNumber(), 1);
  ASSERT_EQ(conn_->commitTransaction(), 0);
  EXPECT_EQ(conn_->transactionNumber(), 0);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : begin Tran A1\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : begin Tran A2\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : rollback A2\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : commit A1\n"));
  auto rows = conn_->execute("select a from t where a > 2");
  ASSERT_TRUE(rows.next());
  EXPECT_EQ(rows.getLongValue(1), 3);
  EXPECT_FALSE(rows.next());

  // A commit that fails keeps the counter; release resets it without rollback.
  ASSERT_EQ(conn_->beginTransaction(), 0);
  conn_->execute("commit A1");  // closes the savepoint behind the counter's back
  EXPECT_EQ(conn_->commitTransaction(), -1);
  EXPECT_EQ(conn_->transactionNumber(), 1);
  ASSERT_EQ(conn_->release(), 0);
  EXPECT_EQ(conn_->transactionNumber(), 0);
}

TEST_F(Service, WithoutALoginNothingRuns) {
  ServiceConnectionSyb idle(server(), "user", "pw", "db");
  testsupport::LogCapture log;
  EXPECT_EQ(idle.execute("select 1").commandSucceeded(), 0);
  EXPECT_EQ(idle.beginTransaction(), -1);
  EXPECT_EQ(idle.transactionNumber(), 0);
  EXPECT_EQ(idle.rowCount(), -1);
  ServiceConnectionSyb::ListOfFieldIndex map;
  ServiceConnectionSyb::ResultSet rs;
  EXPECT_EQ(idle.executeSelect("select a from t", rs, map), -1);
  EXPECT_EQ(log.count("No connection available"), 3u);
  EXPECT_EQ(log.count("Error executing SQL command select a from t"), 1u);
}

TEST_F(Service, ErrorHandlerLogsServerAndClientErrors) {
  testsupport::LogCapture log;
  conn_->execute("select * from missing");
  // Over DB-Library the server's message is followed by the client library's
  // own note that the server reported an error.
  const size_t perFailure = backend().isTds() ? 2u : 1u;
  ASSERT_EQ(log.count("Error number:"), perFailure);
  if (backend().isTds()) {
    EXPECT_TRUE(
        log.containsFragment("ERROR [ <t> ] tdstest Error number: 102 no such table: missing Severity: 16"));
    EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] " + server() + " Error number: 20018 "));
  } else {
    EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] " + server() +
                                     " Error number: 1 no such table: missing Severity: 16"));
  }

  SybaseStatus info;
  info.msgno = 5701;
  info.srvSeverity = 0;  // informational: ignored
  ArcSys::SimpleErrorHandler(info);
  SybaseStatus client;
  client.dberr = 20009;
  client.dbLibSeverity = 9;
  client.dberrstr = "Unable to connect";
  client.srvname = "SYB";
  ArcSys::SimpleErrorHandler(client);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] SYB Error number: 20009 Unable to connect Severity: 9\n"));
  EXPECT_EQ(log.count("Error number:"), perFailure + 1);
}

}  // namespace
