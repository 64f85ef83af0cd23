// ServiceConnectionSyb through the real pool on the backend of the run: acquisition,
// the select-list map, numbered transactions and the error handler.
#include <dataAccess/db/ServiceConnectionSyb.h>

#include "tests/db/DbFixture.h"
#include "tests/support/LogCapture.h"

namespace {

using Map = ServiceConnectionSyb::ListOfFieldIndex;

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
  long scalar(const std::string& sql) {
    auto rs = conn_->execute(sql);
    return rs.next() ? rs.getLongValue(1) : -999;
  }
  std::unique_ptr<ServiceConnectionSyb> conn_;
};

TEST_F(Service, AcquireIsIdempotentAndReleaseOnlyOnce) {
  EXPECT_EQ(conn_->acquire(), 0);
  EXPECT_EQ(ConnectionPool::instance()->counts().records, 1);
  EXPECT_EQ(conn_->release(), 0);
  EXPECT_EQ(conn_->release(), -1);
  {
    // Without a login nothing runs.
    ServiceConnectionSyb held(server(), "user", "pw", "db");
    testsupport::LogCapture log;
    EXPECT_EQ(held.release(), -1);
    EXPECT_EQ(held.execute("select 1").commandSucceeded(), 0);
    EXPECT_EQ(held.beginTransaction(), -1);
    EXPECT_EQ(held.transactionNumber(), 0);
    EXPECT_EQ(held.rowCount(), -1);
    Map map;
    ServiceConnectionSyb::ResultSet rs;
    EXPECT_EQ(held.executeSelect("select a from t", rs, map), -1);
    EXPECT_EQ(log.count("No connection available"), 3u);
    EXPECT_EQ(log.count("Error executing SQL command select a from t"), 1u);
    ASSERT_EQ(held.acquire(), 0);
    EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 1);
  }
  // Destruction gives a held login back.
  EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 0);
}

TEST_F(Service, SelectListMap) {
  const struct {
    std::string sql;
    int result;
    Map map;
  } cases[] = {
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
  for (const auto& c : cases) {
    Map map;
    ServiceConnectionSyb::ResultSet rs;
    EXPECT_EQ(conn_->executeSelect(c.sql, rs, map), c.result) << c.sql;
    EXPECT_EQ(map, c.map) << c.sql;
  }
  // The map is appended to and keeps earlier positions.
  Map map{{"b", 7}};
  ServiceConnectionSyb::ResultSet rs;
  ASSERT_EQ(conn_->executeSelect("select a, b from t order by a", rs, map), 0);
  EXPECT_EQ(map, (Map{{"a", 1}, {"b", 7}}));

  // A non-select is neither executed nor logged; a failing select logs its statement.
  testsupport::LogCapture log;
  EXPECT_EQ(conn_->executeSelect("delete t", rs, map), -1);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(conn_->executeSelect("select x from nowhere", rs, map), -1);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Error executing SQL command select x from nowhere\n"));
  EXPECT_EQ(scalar("select count(*) from t"), 2);
}

TEST_F(Service, ThreePartNamesReachSiblingFilesAndMapByPosition) {
  // X..table lives in X.db beside the home file, whatever the backend of the run.
  ServiceConnectionSyb maker("sqlite:" + dir_.file("home.db"), "maker", "p", "db");
  ASSERT_EQ(maker.acquire(), 0);
  ASSERT_EQ(maker
                .execute("create table obrep2..constraint_sets (cs_id int, user_id int);"
                         "create table obrep2..obs_blocks (ob_id int, cs_id int);"
                         "create table ambient..seeing_torvane (fwhm float, dec float);"
                         "create table D..TORV2_NightObs (OB_ID varchar(9));"
                         "insert into obrep2..constraint_sets values (7, 70), (8, 80);"
                         "insert into obrep2..obs_blocks values (42, 8);"
                         "insert into ambient..seeing_torvane values (0.5, -2), (255, 2);"
                         "insert into D..TORV2_NightObs values ('123');"
                         "create table t (id int, name varchar(9)); insert into t values (42, 'main')")
                .commandSucceeded(),
            1);
  // The statements of the observation-condition DAOs run in their own suite on every backend.
  const struct {
    std::string sql, row, column, value;  // the row by position; `column` read through the map
  } cases[] = {
      {"select obrep2..constraint_sets.cs_id,obrep2..constraint_sets.user_id from "
       "obrep2..constraint_sets,obrep2..obs_blocks where obrep2..obs_blocks.ob_id=42 AND "
       "obrep2..obs_blocks.cs_id=obrep2..constraint_sets.cs_id",
       "8|80", "obrep2..constraint_sets.user_id", "80"},
      // Three sibling files and the home one in one statement.
      {"select t.name, obrep2..obs_blocks.cs_id, ambient..seeing_torvane.dec, D..TORV2_NightObs.OB_ID from "
       "t, "
       "obrep2..obs_blocks, ambient..seeing_torvane, D..TORV2_NightObs where t.id = obrep2..obs_blocks.ob_id "
       "and ambient..seeing_torvane.fwhm < 1",
       "main|8|-2.0|123", "ambient..seeing_torvane.dec", "-2.0"},
  };
  // Another login attaches each file on first use; one to obrep2.db reads its own tables by the same
  // names. Each logs in while the earlier ones still hold a result open.
  ServiceConnectionSyb reader("sqlite:" + dir_.file("home.db"), "reader", "p", "db");
  ServiceConnectionSyb own("sqlite:" + dir_.file("obrep2.db"), "reader", "p", "db");
  testsupport::LogCapture log;
  for (ServiceConnectionSyb* conn : {&maker, &reader, &own}) {
    ASSERT_EQ(conn->acquire(), 0);
    for (const auto& c : cases) {
      if (conn == &own && c.row != "8|80") continue;
      Map map;
      ServiceConnectionSyb::ResultSet rs;
      ASSERT_EQ(conn->executeSelect(c.sql, rs, map), 0) << c.sql;
      ASSERT_TRUE(rs.next()) << c.sql;
      std::string row;
      for (int col = 1; col <= rs.columnCount(); ++col) row += (col > 1 ? "|" : "") + rs.getStringValue(col);
      EXPECT_EQ(row, c.row) << c.sql;
      EXPECT_EQ(map.size(), static_cast<size_t>(rs.columnCount())) << c.sql;
      EXPECT_EQ(rs.getStringValue(map[c.column]), c.value) << c.sql;
    }
  }
  // There obrep2..x and x are one table: one transaction writes it both ways.
  EXPECT_EQ(own.execute("begin Tran A1; insert into constraint_sets values (9, 90); insert into "
                        "obrep2..constraint_sets values (10, 100); commit A1")
                .commandSucceeded(),
            1);
  EXPECT_FALSE(log.containsFragment("ERROR"));
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
  ASSERT_EQ(conn_->rollbackTransaction(), 0);  // undoes row 4 only
  EXPECT_EQ(conn_->transactionNumber(), 1);
  ASSERT_EQ(conn_->commitTransaction(), 0);
  EXPECT_EQ(conn_->transactionNumber(), 0);
  for (const char* sql : {"begin Tran A1", "begin Tran A2", "rollback A2", "commit A1"})
    EXPECT_TRUE(log.contains(std::string("<D> DEBUG [ <t> ] Sql Statement : ") + sql + "\n")) << sql;
  EXPECT_EQ(scalar("select sum(a) from t where a > 2"), 3);

  // A commit that fails keeps the counter; release resets it without rollback.
  ASSERT_EQ(conn_->beginTransaction(), 0);
  conn_->execute("commit A1");  // closes the savepoint behind the counter's back
  EXPECT_EQ(conn_->commitTransaction(), -1);
  EXPECT_EQ(conn_->transactionNumber(), 1);
  ASSERT_EQ(conn_->release(), 0);
  EXPECT_EQ(conn_->transactionNumber(), 0);
}

TEST_F(Service, ErrorHandlerLogsServerAndClientErrors) {
  testsupport::LogCapture log;
  conn_->execute("select * from missing");
  if (backend().isTds()) {
    // Over DB-Library the server's message is followed by the client library's
    // own note that the server reported an error.
    EXPECT_TRUE(
        log.containsFragment("ERROR [ <t> ] tdstest Error number: 102 no such table: missing Severity: 16"));
    EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] " + server() + " Error number: 20018 "));
  } else {
    EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] " + server() +
                                     " Error number: 1 no such table: missing Severity: 16"));
  }
  const size_t perFailure = log.count("Error number:");
  EXPECT_EQ(perFailure, backend().isTds() ? 2u : 1u);

  SybaseStatus info;
  info.msgno = 5701;  // informational, severity 0: ignored
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
