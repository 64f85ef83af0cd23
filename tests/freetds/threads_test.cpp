// Threads over the FreeTDS driver (also run under ThreadSanitizer): a login
// that passes from one thread to the next through the pool while the first
// still holds a result set.
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sybconn/SybaseConnection.h>

#include <string>
#include <thread>
#include <vector>

#include <sybconn/FreeTdsSettings.h>
#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

namespace {

class FreeTdsThreads : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    sybconn::FreeTdsSettings::setTdsVersion(GetParam());
    sybconn::FreeTdsSettings::setQueryTimeout(20);
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db_.c_str(), &db));
    ASSERT_EQ(SQLITE_OK,
              sqlite3_exec(db,
                           "create table big (n integer);"
                           "with recursive c(x) as (select 1 union all select x + 1 from c where x < 5000)"
                           "  insert into big select x from c;",
                           nullptr, nullptr, nullptr));
    sqlite3_close(db);
  }
  void TearDown() override { ConnectionPool::destroyInstance(); }

  testsupport::TempDir dir_;
  std::string db_ = dir_.file("server.db");
};

// A result set kept after its connection went back to the pool never reaches
// the login that another thread borrows next: at release its rest is read off
// and it reads as ended. On TDS and, where the same race would be, on SQLite.
TEST_P(FreeTdsThreads, AResultSetKeptAfterReleaseLeavesTheLoginAlone) {
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  for (const std::string& address : {server.address(), "sqlite:" + db_}) {
    for (int round = 0; round < 10; ++round) {
      ServiceConnectionSyb first(address, "u", "p", "");
      ASSERT_EQ(0, first.acquire());
      ServiceConnectionSyb::ResultSet kept = first.execute("select n from big order by n");
      ASSERT_TRUE(kept.next());
      ASSERT_EQ(0, first.release());
      ASSERT_FALSE(kept.next()) << address;
      EXPECT_EQ(5000L, kept.rowCount());
      long sum = 0;
      std::thread next([&address, &sum] {
        ServiceConnectionSyb second(address, "u", "p", "");
        if (second.acquire() != 0) return;
        for (ServiceConnectionSyb::ResultSet rs = second.execute("select n from big where n <= 100");
             rs.next();)
          sum += rs.getLongValue(1);
      });
      for (int i = 0; i < 50; ++i)
        if (kept.next()) kept.getLongValue(1);
      kept = ServiceConnectionSyb::ResultSet();
      next.join();
      EXPECT_EQ(5050L, sum);
    }
  }
  EXPECT_EQ(2, ConnectionPool::instance()->counts().records);
}

INSTANTIATE_TEST_SUITE_P(Tds, FreeTdsThreads, ::testing::Values("7.4", "5.0"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                           return std::string(i.param) == "5.0" ? "Sybase50" : "SqlServer74";
                         });

}  // namespace
