// Several connections to one SQLite file from several threads at once.
#include <gtest/gtest.h>
#include <sybconn/SybaseConnection.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"

TEST(SqliteThreads, ConcurrentWritersAndReadersOnOneFile) {
  testsupport::TempDir dir;
  const std::string server = "sqlite:" + dir.file("shared.db");
  {
    SybaseConnection setup;
    ASSERT_EQ(setup.connect(server, "u", "p"), 0);
    ASSERT_EQ(setup.execute("create table q (worker int, n int)").commandSucceeded(), 1);
  }
  constexpr int kThreads = 4;
  constexpr int kRows = 100;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kThreads; ++w) {
    threads.emplace_back([&, w] {
      SybaseConnection conn;
      if (conn.connect(server, "u", "p") != 0) {
        ++failures;
        return;
      }
      for (int i = 0; i < kRows; i += 10) {
        if (conn.execute("begin Tran A1").commandSucceeded() != 1) ++failures;
        for (int k = i; k < i + 10; ++k) {
          conn.execute("insert into q values (" + std::to_string(w) + ", " + std::to_string(k) + ")");
          if (conn.rowCount() != 1) ++failures;
        }
        if (conn.execute("commit A1").commandSucceeded() != 1) ++failures;
        SybaseResultSet rs = conn.execute("select count(*) from q where worker = " + std::to_string(w));
        if (!rs.next() || rs.getLongValue(1) != i + 10) ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  SybaseConnection check;
  ASSERT_EQ(check.connect(server, "u", "p"), 0);
  SybaseResultSet rs = check.execute("select count(*) from q");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(1), kThreads * kRows);
}
