// A result set kept after its connection went back to the pool must never
// reach the login that another thread borrows next.
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <thread>

#include "sybconn/drivers/FreeTdsDriver.h"
#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

namespace {

class ReleaseTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(dir_.file("server.db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK,
              sqlite3_exec(db,
                           "create table big (n integer);"
                           "with recursive c(x) as (select 1 union all select x + 1 from c where x < 2000)"
                           "  insert into big select x from c;",
                           nullptr, nullptr, nullptr));
    sqlite3_close(db);
    if (std::string(GetParam()) == "sqlite") {
      server_ = "sqlite:" + dir_.file("server.db");
      return;
    }
    sybconn::FreeTdsSettings::setTdsVersion(GetParam());
    sybconn::FreeTdsSettings::setQueryTimeout(20);
    tds_ = std::make_unique<tdstest::TdsServer>(dir_.file("server.db"), "u", "p");
    ASSERT_NE(0, tds_->start());
    server_ = tds_->address();
  }
  void TearDown() override { ConnectionPool::destroyInstance(); }

  testsupport::TempDir dir_;
  std::unique_ptr<tdstest::TdsServer> tds_;
  std::string server_;
};

TEST_P(ReleaseTest, AResultSetKeptAfterReleaseLeavesTheLoginAlone) {
  ConnectionPool::destroyInstance();
  for (int round = 0; round < 20; ++round) {
    ServiceConnectionSyb first(server_, "u", "p", "");
    ASSERT_EQ(0, first.acquire());
    ServiceConnectionSyb::ResultSet kept = first.execute("select n from big order by n");
    ASSERT_TRUE(kept.next());
    ASSERT_EQ(0, first.release());
    // The rest was read off at release; the result set reads as ended.
    ASSERT_FALSE(kept.next());
    EXPECT_EQ(2000L, kept.rowCount());

    // Another thread takes the same login while this one still uses and then
    // drops its stale result set.
    long counted = 0;
    std::thread next([this, &counted] {
      ServiceConnectionSyb second(server_, "u", "p", "");
      if (second.acquire() != 0) return;
      ServiceConnectionSyb::ResultSet rs = second.execute("select n from big where n <= 100");
      while (rs.next()) counted += rs.getLongValue(1);
      second.release();
    });
    for (int i = 0; i < 50; ++i) {
      kept.next();
      kept.getLongValue(1);
    }
    kept.releaseResults();
    kept = ServiceConnectionSyb::ResultSet();
    next.join();
    EXPECT_EQ(5050L, counted);
  }
  EXPECT_EQ(1, ConnectionPool::instance()->counts().records);
}

INSTANTIATE_TEST_SUITE_P(Backends, ReleaseTest, ::testing::Values("sqlite", "5.0", "7.4"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                           return std::string(i.param) == "sqlite" ? "Sqlite"
                                  : std::string(i.param) == "5.0"  ? "Sybase50"
                                                                   : "SqlServer74";
                         });

}  // namespace
