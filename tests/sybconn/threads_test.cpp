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
  SybaseConnection setup;
  ASSERT_EQ(setup.connect(server, "u", "p"), 0);
  ASSERT_EQ(setup.execute("create table q (worker int, n int)").commandSucceeded(), 1);
  // Each worker writes its rows ten per transaction and counts them after each.
  constexpr int kThreads = 4, kRows = 100;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kThreads; ++w) {
    threads.emplace_back([&, w] {
      SybaseConnection conn;
      failures += conn.connect(server, "u", "p") != 0;
      const std::string me = std::to_string(w);
      for (int i = 0; i < kRows; i += 10) {
        failures += conn.execute("begin Tran A1").commandSucceeded() != 1;
        for (int k = i; k < i + 10; ++k) {
          conn.execute("insert into q values (" + me + ", " + std::to_string(k) + ")");
          failures += conn.rowCount() != 1;
        }
        failures += conn.execute("commit A1").commandSucceeded() != 1;
        SybaseResultSet rs = conn.execute("select count(*) from q where worker = " + me);
        failures += !rs.next() || rs.getLongValue(1) != i + 10;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}
