// Threads sending through one server list while another is parsed; a command's own time-out (TSan too).
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "tests/tobasCClient/TobasTest.h"

TEST(TobasConcurrency, ThreadsShareOneServerList) {
  _tobasInitSrvInfo();
  _tobasLockSrvInfoSem();  // a reader of the lists waits while another thread holds their lock
  int found;
  tobasSRV_INFO* info = nullptr;
  auto reader = std::async(std::launch::async, [&] { _tobasGetSrvInfoObj("no such list", &found, &info); });
  EXPECT_EQ(std::future_status::timeout, reader.wait_for(std::chrono::milliseconds(100)));
  _tobasUnlockSrvInfoSem();
  reader.get();
  tobasSRV_INFO none{};  // a list without servers: no next one, and the lock let go for the lookups below
  tobasMED_BUF host;
  int idx = -1, port = 0;
  EXPECT_NE(0, _tobasGetNextSrv(&idx, &none, host, &port));
  constexpr int kThreads = 4, kPerThread = 10;
  ArchiveServer a, b;
  for (int i = 0; i < kThreads * kPerThread; ++i)
    for (auto* s : {&a, &b}) s->push({kOk});
  const std::string list = "127.0.0.1:" + std::to_string(a.port()) + ",127.0.0.1:" + std::to_string(b.port());
  for (const char* id : {"other", "shared"}) ASSERT_EQ(0, tobasParseSrvListId(id, list.c_str()));
  _setReplyTimeoutFromFloat(50);  // only the default: each command carries its own time-out
  ArchiveServer silent;
  silent.push({"", std::string::npos, 0, true});
  std::atomic<int> ok{0}, running{kThreads};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    tobasSTATUS st;
    EXPECT_EQ(tobasERR_TIMEOUT, tobasStatus("127.0.0.1", silent.port(), 0.2f, &st));
    EXPECT_HAS(st.message, "Timeout: 0.200s");
    tobasFreeStatus(&st);
  });
  threads.emplace_back([&] {  // the list before "shared" parsed again while the lookups pass it
    while (running > 0) EXPECT_EQ(0, tobasParseSrvListId("other", list.c_str()));
  });
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
      --running;
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(kThreads * kPerThread, ok.load());
  EXPECT_EQ(kThreads * kPerThread / 2, static_cast<int>(a.requests().size()));  // the round robin alternates
  EXPECT_FLOAT_EQ(50, _getTimeOut());
  tobasSetAuthorization(nullptr);
  setenv("TOBAS_LOG_FILE", "/dev/null", 1);  // the level changed mid-run: its traces need not pair up
}
