// Transport of the archive client: request bytes, reply readers, redirection, fail-over,
// server lists and time-outs, against a scripted loopback peer.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"
#include "tests/support/TempDir.h"

using archivetest::ArchiveServer;
using archivetest::httpReply;
using archivetest::statusDoc;

namespace {

const std::string kOk = httpReply(200, statusDoc("SUCCESS", "ok"));

struct Exchange {
  tobasHTTP_DATA data{nullptr, 0};
  long len = 0;
  tobasHTTP_RESP resp{};
  std::unique_ptr<tobasHTTP_HDR> box{reinterpret_cast<tobasHTTP_HDR*>(new char[sizeof(tobasHTTP_HDR)])};
  tobasHTTP_HDR& hdr = *box;
  ~Exchange() { reset(); }
  void reset() {  // what the previous request left
    free(data.pdata);
    data.pdata = nullptr;
    if (data.fd > 0) close(data.fd);
    data.fd = 0;
  }
  int get(const std::string& host, int port, const std::string& path = "STATUS") {
    reset();
    return tobasHttpGet(host.c_str(), port, "TOB/AS C-API", path.c_str(), 1, &data, &len, &resp, hdr);
  }
  int post(const std::string& host, int port, const std::string& file, const std::string& mem) {
    reset();
    return tobasHttpPost(host.c_str(), port, "ignored", "ARCHIVE", "image/fits", "attachment; filename=\"x\"",
                         file.c_str(), mem.data(), static_cast<long>(mem.size()), &data, &len, &resp, hdr);
  }
};

// Bytes for the reply readers through a socket pair; the writer stays open unless closed.
struct Feed {
  int fds[2];
  explicit Feed(const std::string& bytes, bool closeWriter = true) {
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fds[1], bytes.data(), bytes.size()));
    if (closeWriter) close(std::exchange(fds[1], -1));
  }
  ~Feed() {  // -1: already closed
    close(fds[0]);
    close(fds[1]);
  }
};

std::string local(int port) { return "127.0.0.1:" + std::to_string(port); }

// What the client log gained while `f` ran.
template <class F>
std::string logged(F f) {
  std::string log = getenv("TOBAS_LOG_FILE");
  size_t before = archivetest::readFile(log).size();
  f();
  return archivetest::readFile(log).substr(before);
}

// Bytes the peer sends, whether it then closes, and the status expected.
struct ReadCase {
  std::string bytes;
  bool closed;
  int stat;
};

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
  return n;
}

}  // namespace

TEST(TobasTransport, RequestBytesAndReplies) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer srv;
  testsupport::TempDir dir;
  std::string doc = statusDoc("SUCCESS", "fine"), bad = statusDoc("FAILURE", "X:4003:ERROR: bad");
  std::string content(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  dir.write("big.fits", content);
  for (int i = 0; i < 5; ++i) srv.push(httpReply(200, doc));
  srv.push(httpReply(400, bad));
  Exchange a, b, c, d, e, f;
  ASSERT_EQ(0, a.get("127.0.0.1", srv.port()));
  EXPECT_EQ(doc, a.data.pdata);
  ASSERT_EQ(0, b.post("127.0.0.1", srv.port(), "", "hello"));
  EXPECT_EQ(doc, b.data.pdata);
  ASSERT_EQ(0, c.post("127.0.0.1", srv.port(), dir.file("big.fits"), ""));
  const std::string auth(1500, 'k');  // beyond any fixed header buffer
  tobasSetAuthorization(auth.c_str());
  ASSERT_EQ(0, d.get("localhost", srv.port()));
  ASSERT_EQ(0, e.post("127.0.0.1", srv.port(), "", ""));
  tobasSetAuthorization(nullptr);
  EXPECT_EQ(nullptr, tobasGetAuthorization());
  EXPECT_EQ(400, f.get("127.0.0.1", srv.port()));  // the server's document is kept
  EXPECT_EQ(bad, f.data.pdata);
  EXPECT_EQ(tobasERR_FILE, a.post("127.0.0.1", srv.port(), dir.file("none"), ""));

  const std::string post =
      "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: image/fits\r\nContent-length: ";
  const std::string disp = "\r\nContent-disposition: attachment; filename=\"x\"";
  auto reqs = srv.requests();
  ASSERT_EQ(6u, reqs.size());
  EXPECT_EQ("GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\n\n", reqs[0]);
  EXPECT_EQ(post + "5" + disp + "\r\n\nhello", reqs[1]);
  EXPECT_EQ(post + std::to_string(content.size()) + disp + "\r\n\n" + content, reqs[2]);
  EXPECT_EQ("GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\nAuthorization: Basic%20" + auth + "\r\n\n",
            reqs[3]);
  EXPECT_EQ(post + "0" + disp + "\r\nAuthorization: Basic " + auth + "\r\n\n", reqs[4]);
}

TEST(TobasTransport, ReplyHeaderAndBodyReaders) {
  const char nul[] = "HTTP/1.0 200 OK\r\nx: a\0b\r\n\r\n";
  const std::string manyRows = [] {
    std::string s = "HTTP/1.0 200 OK\r\n";
    for (int i = 0; i < 600; ++i) s += "x-row: " + std::to_string(i) + "\r\n";
    return s + "\r\n";
  }();
  const ReadCase cases[] = {
      {"HTTP/1.0 200 OK Fine\r\nContent-Length: 12\r\nX-Mixed: Keep Case\r\n\r\nbody", true, 0},
      {std::string(130, 'x') + " 200 OK\r\n\r\n", true, tobasERR_INV_REPLY},  // first blank too far
      {manyRows, true, tobasERR_INV_REPLY},
      {"HTTP/1.0 200 OK\r\nContent-Le", true, tobasERR_INV_REPLY},   // closed within the header
      {std::string(nul, sizeof nul - 1), true, tobasERR_INV_REPLY},  // a NUL byte
      {"", false, tobasERR_TIMEOUT},                                 // nothing arrives
      {"HTTP/1.0 200 OK\r\nContent-Le", false, tobasERR_TIMEOUT},    // stops within the header
  };
  archivetest::HangGuard guard(20);
  _setReplyTimeoutFromFloat(0.2f);
  for (const auto& c : cases) {
    Feed f(c.bytes, c.closed);
    Exchange ex;
    int fd = f.fds[0];
    EXPECT_EQ(c.stat, tobasRecvHttpHdr(&fd, ex.hdr, &ex.resp, &ex.data, &ex.len)) << c.bytes.substr(0, 40);
    if (c.stat != 0) continue;
    EXPECT_EQ(12, ex.len);
    EXPECT_STREQ("ok fine", ex.resp.message);
    EXPECT_STREQ("x-mixed: Keep Case\r\n", ex.hdr[2]);  // only the name is lower-cased
    char rest[8] = {};
    EXPECT_EQ(4, read(fd, rest, sizeof rest));  // the body is left in the socket
  }

  Feed lines("ab\ncdefgh");
  char buf[5];
  // Newline kept; one more than stored when stopped at the limit or by the end of the input.
  for (int n : {3, 5, 3, 0}) EXPECT_EQ(n, tobasReadLine(&lines.fds[0], buf, 5));
  int p[2], none = -1;
  ASSERT_EQ(0, pipe(p));
  ASSERT_EQ(4, write(p[1], "a\nbc", 4));
  for (int* fd : {&none, &p[1]}) EXPECT_EQ(-1, tobasReadLine(fd, buf, 5));  // no socket, write-only pipe
  EXPECT_STREQ("", buf);
  close(p[1]);
  for (int n : {2, 3, 0}) EXPECT_EQ(n, tobasReadLine(&p[0], buf, 5));  // not a socket: byte by byte
  close(p[0]);

  const ReadCase bodies[] = {
      {"0123456789", true, 0},
      {"short", true, tobasERR_RD_DATA},   // closed before the announced length
      {"short", false, tobasERR_TIMEOUT},  // stops before it: one wait, not eleven
  };
  _setReplyTimeoutFromFloat(0.5f);
  for (const auto& c : bodies) {
    Feed f(c.bytes, c.closed);
    int fd = f.fds[0];
    char* data = nullptr;
    EXPECT_EQ(c.stat, tobasRecvData(&data, 10, &fd));
    EXPECT_EQ(0, fd);
    f.fds[0] = -1;
    if (c.stat == 0) {
      EXPECT_STREQ("0123456789", data);
    }
    free(data);
  }
}

TEST(TobasTransport, RedirectionKeepsThePathAndTracesEachHop) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer first, second, bad;
  std::string to2 = "Location: http://127.0.0.1:" + std::to_string(second.port()) + "/x\r\n";
  std::string to1 = "Location: http://127.0.0.1:" + std::to_string(first.port()) + "/y\r\n";
  first.push(httpReply(303, "moved", to2));
  second.push(httpReply(303, "", to1));
  first.push(httpReply(303, "", to2));
  second.push(kOk);
  Exchange ex;
  std::string log = logged([&] { ASSERT_EQ(0, ex.get("127.0.0.1", first.port())); });
  EXPECT_EQ(200, ex.resp.status);
  EXPECT_EQ(4u, count(log, "Entering _tobasHttpGet()"));
  EXPECT_EQ(4u, count(log, "Leaving _tobasHttpGet()"));
  EXPECT_EQ(1u, count(log, "Entering tobasHttpGet()"));
  EXPECT_EQ(4u, count(log, "Entering tobasPrepSock()"));
  auto a = first.requests(), b = second.requests();
  ASSERT_EQ(2u, a.size());
  ASSERT_EQ(2u, b.size());
  for (const auto& r : {a[0], a[1], b[0], b[1]}) EXPECT_EQ(0u, r.rfind("GET STATUS HTTP/1.0\n", 0)) << r;

  bad.push(httpReply(303, "", "Location: nowhere\r\n"));
  EXPECT_EQ(tobasERR_INV_REPLY, ex.get("127.0.0.1", bad.port()));
}

TEST(TobasTransport, ServerListsRoundRobinAndFailOver) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer h1, h2, h3;
  const int down = ArchiveServer().port();
  ASSERT_EQ(0, tobasParseSrvListId(
                   "rr", (local(h1.port()) + ",," + local(h2.port()) + "," + local(h3.port())).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("fo", (local(down) + "," + local(h2.port())).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("down", local(down).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("post", (local(down) + "," + local(h1.port())).c_str()));
  for (auto* s : {&h1, &h2, &h3, &h2, &h1}) s->push(kOk);
  Exchange ex;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0, ex.get("rr", 0));  // starts at h1, h2, h3
  EXPECT_EQ(0, ex.get("fo", 0));                              // starts at the closed one, moves on
  EXPECT_EQ(tobasSTAT_FAILURE, ex.get("down", 0));
  EXPECT_EQ(tobasERR_CON, ex.get("127.0.0.1", down));  // a single host keeps its code
  EXPECT_EQ(0, ex.post("post", 0, "", "abc"));
  EXPECT_EQ(2u, h1.requests().size());
  EXPECT_EQ(2u, h2.requests().size());
  EXPECT_EQ(1u, h3.requests().size());
  EXPECT_NE(std::string::npos, h1.requests().back().find("\r\n\nabc"));

  // The default list, selected by the empty host, and not replaced by a later list.
  ASSERT_EQ(0, tobasParseSrvList(local(h3.port()).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("after-default", local(h1.port()).c_str()));
  h3.push(kOk);
  EXPECT_EQ(0, ex.get("", 0));
  EXPECT_EQ(2u, h3.requests().size());
}

TEST(TobasTransport, ServerListBounds) {
  char host[256] = "untouched";
  int port = 7;
  EXPECT_EQ(1, tobasSplitSrvAddr("nocolon", host, &port));
  EXPECT_STREQ("untouched", host);

  auto servers = [](const char* id) {
    int found = 0;
    tobasSRV_INFO* info = nullptr;
    _tobasGetSrvInfoObj(id, &found, &info);
    return found ? info->numberOfSrvs : -1;
  };
  EXPECT_EQ(1, tobasParseSrvListId("partial", "a:1,b:2,broken,c:3"));
  EXPECT_EQ(2, servers("partial"));  // the entries before the broken one stay
  std::string many;
  for (int i = 0; i < 33; ++i) many += "h" + std::to_string(i) + ":" + std::to_string(1000 + i) + ",";
  EXPECT_EQ(1, tobasParseSrvListId("many", many.c_str()));
  EXPECT_EQ(32, servers("many"));

  int added = 0;
  while (added < 40 && tobasParseSrvListId(("fill" + std::to_string(added)).c_str(), "a:1") == 0) ++added;
  EXPECT_GE(added, tobasMAX_SRV_LISTS / 2);  // the other tests of a run take a few slots at most
  EXPECT_LT(added, tobasMAX_SRV_LISTS);
  std::string log = logged([] { EXPECT_EQ(1, tobasParseSrvListId("one-too-many", "a:1")); });
  EXPECT_NE(std::string::npos, log.find("[ERROR] Illegal Server List ID or no more free slots"));
  EXPECT_EQ(0, tobasParseSrvListId("partial", "a:1"));  // re-parsing a known list still works
}

namespace {
void onSignal(int) {}

// Interrupts the calling thread with SIGALRM every `ms` while alive (no SA_RESTART).
struct Interrupter {
  struct sigaction old {};
  explicit Interrupter(int ms) {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGALRM, &sa, &old);
    itimerval t{{0, ms * 1000}, {0, ms * 1000}};
    setitimer(ITIMER_REAL, &t, nullptr);
  }
  ~Interrupter() {
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
  }
};
}  // namespace

TEST(TobasTransport, TimeOutsHoldThroughSignals) {
  archivetest::FullBacklogListener full;
  _setReplyTimeoutFromFloat(100);
  for (bool signals : {false, true}) {
    auto start = std::chrono::steady_clock::now();
    {
      Interrupter alarms(signals ? 60 : 0);
      EXPECT_EQ(tobasERR_CON, tobasPrepSock("127.0.0.1", full.port));
    }
    // Not accepted within the bound, whatever the reply time-out; a signal does not end it early.
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(secs, 0.45) << (signals ? "with signals" : "");
    EXPECT_LT(secs, 3.0);
  }

  const std::pair<float, float> settings[] = {{0, 1e8f}, {-3, 1e8f}, {2.5f, 2.5f}};
  for (const auto& s : settings) {
    _setReplyTimeoutFromFloat(s.first);
    EXPECT_FLOAT_EQ(s.second, _getTimeOut());
  }

  int p[2];
  ASSERT_EQ(0, pipe(p));
  int rc;
  {
    Interrupter alarms(60);
    rc = _pollFd(p[0], 5.0f);
  }
  EXPECT_EQ(tobasERR_COM, rc);  // the fourth interrupted poll
  close(p[0]);
  close(p[1]);
}
