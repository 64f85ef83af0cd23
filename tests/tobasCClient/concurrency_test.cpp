// Several threads issuing commands through one server list (run under ThreadSanitizer).
#include <atomic>
#include <thread>

#include "tests/tobasCClient/TobasTest.h"

TEST(TobasConcurrency, ThreadsShareOneServerList) {
  constexpr int kThreads = 4, kPerThread = 10;
  ArchiveServer a, b;
  for (int i = 0; i < kThreads * kPerThread; ++i)
    for (auto* s : {&a, &b}) s->push({kOk});
  const std::string list = "127.0.0.1:" + std::to_string(a.port()) + ",127.0.0.1:" + std::to_string(b.port());
  ASSERT_EQ(0, tobasParseSrvListId("shared", list.c_str()));
  std::atomic<int> ok{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        tobasSTATUS st;
        const int rc = (i % 2) ? tobasStatus("shared", 0, 10, &st) : tobasOnline("shared", 0, 10, t, &st);
        ok += rc == 0 && tobasSuccess(&st);
        tobasFreeStatus(&st);
        if (i == 5) tobasSetAuthorization("code");
        if (i == 7 && t == 0) tobasPrepLog(nullptr, LEV0, -1, -1);
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(kThreads * kPerThread, ok.load());
  EXPECT_EQ(kThreads * kPerThread / 2, static_cast<int>(a.requests().size()));  // the round robin alternates
  tobasSetAuthorization(nullptr);
  setenv("TOBAS_LOG_FILE", "/dev/null", 1);  // the level changed mid-run: its traces need not pair up
}
