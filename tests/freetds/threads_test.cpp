// Threads (also run under ThreadSanitizer): a result set kept after its login went back to the pool never
// reaches the thread that borrows the login next; at release its rest is read off and it reads as ended.
#include <dataAccess/db/ServiceConnectionSyb.h>

#include <thread>

#include "tests/freetds/FreeTdsFixture.h"

namespace {

TEST_P(FreeTdsTest, AResultSetKeptAfterReleaseLeavesTheLoginAlone) {
  for (const std::string& address : {server_.address(), "sqlite:" + db_}) {
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
        for (auto rs = second.execute("select n from big where n <= 100"); rs.next();)
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

INSTANTIATE_TEST_SUITE_P(Tds, FreeTdsTest, ::testing::Values(74, 50), ::testing::PrintToStringParamName());

}  // namespace
