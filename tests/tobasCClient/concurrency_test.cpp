// Several threads issuing commands through one server list (run under ThreadSanitizer).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"

using archivetest::ArchiveServer;
using archivetest::httpReply;
using archivetest::statusDoc;

TEST(TobasConcurrency, ThreadsShareOneServerList) {
  constexpr int kThreads = 4, kPerThread = 10;
  ArchiveServer a, b;
  for (int i = 0; i < kThreads * kPerThread; ++i) {
    a.push(httpReply(200, statusDoc("SUCCESS", "a")));
    b.push(httpReply(200, statusDoc("SUCCESS", "b")));
  }
  std::string list = "127.0.0.1:" + std::to_string(a.port()) + ",127.0.0.1:" + std::to_string(b.port());
  ASSERT_EQ(0, tobasParseSrvListId("shared", list.c_str()));
  std::atomic<int> ok{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        tobasSTATUS st;
        int rc = (i % 2) ? tobasStatus("shared", 0, 10, &st) : tobasOnline("shared", 0, 10, t, &st);
        if (rc == 0 && tobasSuccess(&st)) ++ok;
        tobasFreeStatus(&st);
        if (i == 5) tobasSetAuthorization("code");
        if (i == 7 && t == 0) tobasPrepLog(nullptr, LEV0, -1, -1);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(kThreads * kPerThread, ok.load());
  // The round robin spread the requests over both servers.
  EXPECT_EQ(static_cast<size_t>(kThreads * kPerThread), a.requests().size() + b.requests().size());
  EXPECT_GT(a.requests().size(), 0u);
  EXPECT_GT(b.requests().size(), 0u);
  tobasSetAuthorization(nullptr);
}

// Connects abandoned after the bound leave their detached threads behind; those must not touch
// the caller's (closed, possibly reused) descriptors or freed memory.
TEST(TobasConcurrency, AbandonedConnectsAreSafe) {
  int lfd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  ASSERT_EQ(0, listen(lfd, 0));
  socklen_t alen = sizeof addr;
  getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &alen);
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    fillers.push_back(c);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ArchiveServer live;
  for (int i = 0; i < 6; ++i) live.push(httpReply(200, statusDoc("SUCCESS", "ok")));
  std::atomic<int> refused{0}, served{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      if (tobasPrepSock("127.0.0.1", ntohs(addr.sin_port)) == tobasERR_CON) ++refused;
      // Descriptors closed above are reused at once by the next requests.
      for (int i = 0; i < 2; ++i) {
        tobasSTATUS st;
        if (tobasStatus("127.0.0.1", live.port(), 10, &st) == 0) ++served;
        tobasFreeStatus(&st);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(3, refused.load());
  EXPECT_EQ(6, served.load());
  for (int c : fillers) close(c);
  close(lfd);
}
