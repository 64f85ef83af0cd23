// Transport of the archive client: request bytes, reply readers, redirection, fail-over,
// server lists and time-outs, against a scripted loopback peer.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"

using archivetest::ArchiveServer;
using archivetest::httpReply;
using archivetest::Reply;
using archivetest::statusDoc;

namespace {

struct Exchange {
  tobasHTTP_DATA data{nullptr, 0};
  long len = 0;
  tobasHTTP_RESP resp{};
  struct HdrBox {
    tobasHTTP_HDR rows;
  };
  std::unique_ptr<HdrBox> box{new HdrBox};
  tobasHTTP_HDR& hdr = box->rows;
  ~Exchange() {
    free(data.pdata);
    if (data.fd > 0) close(data.fd);
  }
  int get(const std::string& host, int port, const std::string& path, int receive = 1) {
    return tobasHttpGet(host.c_str(), port, "TOB/AS C-API", path.c_str(), receive, &data, &len, &resp, hdr);
  }
  int post(int port, const std::string& path, const std::string& file, const std::string& mem) {
    return tobasHttpPost("127.0.0.1", port, "ignored", path.c_str(), "image/fits",
                         "attachment; filename=\"x\"", file.c_str(), mem.data(),
                         static_cast<long>(mem.size()), &data, &len, &resp, hdr);
  }
};

// Feeds bytes to the reply readers through a socket pair.
struct Feed {
  int fds[2];
  explicit Feed(const std::string& bytes, bool closeWriter = true) {
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fds[1], bytes.data(), bytes.size()));
    if (closeWriter) {
      close(fds[1]);
      fds[1] = -1;
    }
  }
  ~Feed() {
    if (fds[0] > 0) close(fds[0]);
    if (fds[1] > 0) close(fds[1]);
  }
};

}  // namespace

TEST(TobasTransport, GetRequestBytesWithAndWithoutAuthorization) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer srv;
  std::string doc = statusDoc("SUCCESS", "fine");
  srv.push(httpReply(200, doc));
  srv.push(httpReply(200, doc));
  {
    Exchange ex;
    ASSERT_EQ(0, ex.get("127.0.0.1", srv.port(), "STATUS"));
    EXPECT_EQ(doc, std::string(ex.data.pdata));
    EXPECT_EQ(static_cast<long>(doc.size()), ex.len);
    EXPECT_EQ(200, ex.resp.status);
    EXPECT_STREQ("http/1.0", ex.resp.version);
    EXPECT_STREQ("reply text", ex.resp.message);  // the whole status line is lower-cased
    EXPECT_STREQ("content-type: text/xml\r\n", ex.hdr[1]);
  }
  tobasSetAuthorization("c2VjcmV0");
  {
    Exchange ex;
    ASSERT_EQ(0, ex.get("localhost", srv.port(), "STATUS"));
  }
  tobasSetAuthorization(nullptr);
  auto reqs = srv.requests();
  ASSERT_EQ(2u, reqs.size());
  EXPECT_EQ("GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\n\n", reqs[0]);
  EXPECT_EQ("GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\nAuthorization: Basic%20c2VjcmV0\r\n\n",
            reqs[1]);
  EXPECT_EQ(nullptr, tobasGetAuthorization());
}

TEST(TobasTransport, PostRequestBytesFromMemoryAndFile) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer srv;
  archivetest::ScratchDir dir;
  std::string doc = statusDoc("SUCCESS", "archived");
  std::string content(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  archivetest::writeFile(dir.file("big.fits"), content);
  for (int i = 0; i < 3; ++i) srv.push(httpReply(200, doc));
  {
    Exchange ex;
    ASSERT_EQ(0, ex.post(srv.port(), "ARCHIVE", "", "hello"));
    EXPECT_EQ(doc, std::string(ex.data.pdata));
  }
  {
    Exchange ex;
    ASSERT_EQ(0, ex.post(srv.port(), "ARCHIVE", dir.file("big.fits"), ""));
  }
  tobasSetAuthorization("code");
  {
    Exchange ex;
    ASSERT_EQ(0, ex.post(srv.port(), "ARCHIVE", "", ""));
  }
  tobasSetAuthorization(nullptr);
  auto reqs = srv.requests();
  ASSERT_EQ(3u, reqs.size());
  const std::string head =
      "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: image/fits\r\nContent-length: ";
  EXPECT_EQ(head + "5\r\nContent-disposition: attachment; filename=\"x\"\r\n\nhello", reqs[0]);
  EXPECT_EQ(head + std::to_string(content.size()) +
                "\r\nContent-disposition: attachment; filename=\"x\"\r\n\n" + content,
            reqs[1]);
  EXPECT_EQ(head + "0\r\nContent-disposition: attachment; filename=\"x\"\r\nAuthorization: Basic code\r\n\n",
            reqs[2]);

  Exchange missing;
  EXPECT_EQ(tobasERR_FILE, missing.post(srv.port(), "ARCHIVE", dir.file("none"), ""));
}

TEST(TobasTransport, ReplyHeaderReader) {
  _setReplyTimeoutFromFloat(2);
  tobasHTTP_HDR hdr;
  tobasHTTP_RESP resp;
  tobasHTTP_DATA data{nullptr, 0};
  long len = 0;
  {
    Feed f("HTTP/1.0 200 OK Fine\r\nContent-Length: 12\r\nX-Mixed: Keep Case\r\n\r\nbody");
    int fd = f.fds[0];
    ASSERT_EQ(0, tobasRecvHttpHdr(&fd, hdr, &resp, &data, &len));
    EXPECT_EQ(12, len);
    EXPECT_STREQ("ok fine", resp.message);
    EXPECT_STREQ("x-mixed: Keep Case\r\n", hdr[2]);  // only the name is lower-cased
    char rest[8] = {};
    EXPECT_EQ(4, read(fd, rest, sizeof rest));  // the body is left in the socket
  }
  {
    len = 0;
    std::string doc = statusDoc("FAILURE", "X:4003:ERROR: bad");
    Feed f(httpReply(400, doc));
    int fd = f.fds[0];
    EXPECT_EQ(400, tobasRecvHttpHdr(&fd, hdr, &resp, &data, &len));
    ASSERT_NE(nullptr, data.pdata);
    EXPECT_EQ(doc, data.pdata);
    EXPECT_EQ(0, fd);  // closed after the body
    f.fds[0] = -1;
    free(data.pdata);
    data.pdata = nullptr;
  }
  {
    std::string longVersion(130, 'x');
    Feed f(longVersion + " 200 OK\r\n\r\n");
    int fd = f.fds[0];
    EXPECT_EQ(tobasERR_INV_REPLY, tobasRecvHttpHdr(&fd, hdr, &resp, &data, &len));
  }
  {
    std::string many = "HTTP/1.0 200 OK\r\n";
    for (int i = 0; i < 600; ++i) many += "x-row: " + std::to_string(i) + "\r\n";
    Feed f(many + "\r\n");
    int fd = f.fds[0];
    EXPECT_EQ(tobasERR_INV_REPLY, tobasRecvHttpHdr(&fd, hdr, &resp, &data, &len));
  }
  {
    Feed f("", false);  // nothing arrives
    int fd = f.fds[0];
    _setReplyTimeoutFromFloat(0.1f);
    EXPECT_EQ(tobasERR_TIMEOUT, tobasRecvHttpHdr(&fd, hdr, &resp, &data, &len));
  }
  // Lines: newline kept, limit, end of input.
  {
    Feed f("ab\ncdefgh");
    int fd = f.fds[0];
    char buf[5];
    EXPECT_EQ(3, tobasReadLine(&fd, buf, 5));
    EXPECT_STREQ("ab\n", buf);
    EXPECT_EQ(5, tobasReadLine(&fd, buf, 5));  // stopped at the limit: one more than stored
    EXPECT_STREQ("cdef", buf);
    EXPECT_EQ(3, tobasReadLine(&fd, buf, 5));  // end of input after two bytes
    EXPECT_EQ(0, tobasReadLine(&fd, buf, 5));
  }
}

TEST(TobasTransport, BodyReaderGivesUpAfterElevenReads) {
  _setReplyTimeoutFromFloat(2);
  {
    Feed f("0123456789");
    int fd = f.fds[0];
    char* data = nullptr;
    ASSERT_EQ(0, tobasRecvData(&data, 10, &fd));
    EXPECT_STREQ("0123456789", data);
    EXPECT_EQ(0, fd);
    f.fds[0] = -1;
    free(data);
  }
  {
    Feed f("short");  // the peer closes before the announced length: every read brings nothing
    int fd = f.fds[0];
    char* data = nullptr;
    EXPECT_EQ(tobasERR_RD_DATA, tobasRecvData(&data, 100, &fd));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0, fd);
    f.fds[0] = -1;
  }
}

TEST(TobasTransport, HeaderFieldLookup) {
  tobasHTTP_HDR hdr;
  memset(hdr, 0, sizeof hdr);
  strcpy(hdr[0], "http/1.0 200 ok\r\n");
  strcpy(hdr[1], "location: http://otherhost:8888/x\r\n");
  strcpy(hdr[2], "content-disposition: attachment; filename=\"x.fits\"\r\n");
  strcpy(hdr[3], "x-empty: filename=\"\"\r\n");
  tobasMED_BUF v;
  ASSERT_EQ(0, tobasGetHttpHdrEntry(hdr, "location", "", v));
  EXPECT_STREQ("http://otherhost:8888/x", v);
  ASSERT_EQ(0, tobasGetHttpHdrEntry(hdr, "content-disposition", "filename", v));
  EXPECT_STREQ("x.fits", v);
  ASSERT_EQ(0, tobasGetHttpHdrEntry(hdr, "x-empty", "filename", v));
  EXPECT_STREQ("", v);
  EXPECT_EQ(tobasERR_INV_REPLY, tobasGetHttpHdrEntry(hdr, "content-disposition", "size", v));
  EXPECT_EQ(tobasERR_INV_REPLY, tobasGetHttpHdrEntry(hdr, "missing", "", v));
  memset(hdr[40], 'a', sizeof hdr[40]);  // only the first 32 rows are searched, rows need no NUL
  memcpy(hdr[40], "late:", 5);
  EXPECT_EQ(tobasERR_INV_REPLY, tobasGetHttpHdrEntry(hdr, "late", "", v));
  memset(hdr[5], 'b', sizeof hdr[5]);
  memcpy(hdr[5], "full: ", 6);
  ASSERT_EQ(0, tobasGetHttpHdrEntry(hdr, "full", "", v));
  EXPECT_EQ(250u, strlen(v));  // the row's 256 bytes, less the name
}

TEST(TobasTransport, RedirectionKeepsThePathAndLoops) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer first, second;
  std::string to2 = "Location: http://127.0.0.1:" + std::to_string(second.port()) + "/x\r\n";
  std::string to1 = "Location: http://127.0.0.1:" + std::to_string(first.port()) + "/y\r\n";
  first.push(httpReply(303, "moved", to2));
  second.push(httpReply(303, "", to1));
  first.push(httpReply(303, "", to2));
  second.push(httpReply(200, statusDoc("SUCCESS", "here")));
  Exchange ex;
  ASSERT_EQ(0, ex.get("127.0.0.1", first.port(), "STATUS"));
  EXPECT_EQ(200, ex.resp.status);
  auto a = first.requests(), b = second.requests();
  ASSERT_EQ(2u, a.size());
  ASSERT_EQ(2u, b.size());
  for (const auto& r : {a[0], a[1], b[0], b[1]}) EXPECT_EQ(0u, r.rfind("GET STATUS HTTP/1.0\n", 0)) << r;

  ArchiveServer bad;
  bad.push(httpReply(303, "", "Location: nowhere\r\n"));
  Exchange ex2;
  EXPECT_EQ(tobasERR_INV_REPLY, ex2.get("127.0.0.1", bad.port(), "STATUS"));
}

TEST(TobasTransport, InvalidQueryKeepsTheServersDocument) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer srv;
  std::string doc = statusDoc("FAILURE", "TOBAS_ER_DAPI:4003:ERROR: bad file");
  srv.push(httpReply(400, doc));
  Exchange ex;
  EXPECT_EQ(400, ex.get("127.0.0.1", srv.port(), "RETRIEVE?file_id=\"x\""));
  ASSERT_NE(nullptr, ex.data.pdata);
  EXPECT_EQ(doc, ex.data.pdata);
}

TEST(TobasTransport, ServerListsRoundRobinAndFailOver) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer h1, h2, h3;
  // A closed port for the failing server.
  int closedPort;
  {
    ArchiveServer gone;
    closedPort = gone.port();
  }
  std::string list = "127.0.0.1:" + std::to_string(h1.port()) + ",,127.0.0.1:" + std::to_string(h2.port()) +
                     ",127.0.0.1:" + std::to_string(h3.port());
  ASSERT_EQ(0, tobasParseSrvListId("rr", list.c_str()));
  for (auto* s : {&h1, &h2, &h3}) s->push(httpReply(200, statusDoc("SUCCESS", "ok")));
  for (int i = 0; i < 3; ++i) {
    Exchange ex;
    ASSERT_EQ(0, ex.get("rr", 0, "STATUS"));
  }
  EXPECT_EQ(1u, h1.requests().size());
  EXPECT_EQ(1u, h2.requests().size());
  EXPECT_EQ(1u, h3.requests().size());

  std::string failing = "127.0.0.1:" + std::to_string(closedPort) + ",127.0.0.1:" + std::to_string(h2.port());
  ASSERT_EQ(0, tobasParseSrvListId("fo", failing.c_str()));
  h2.push(httpReply(200, statusDoc("SUCCESS", "ok")));
  {
    Exchange ex;
    EXPECT_EQ(0, ex.get("fo", 0, "STATUS"));  // starts at the closed one and moves on
  }
  EXPECT_EQ(2u, h2.requests().size());
  std::string allDown = "127.0.0.1:" + std::to_string(closedPort);
  ASSERT_EQ(0, tobasParseSrvListId("down", allDown.c_str()));
  {
    Exchange ex;
    EXPECT_EQ(tobasSTAT_FAILURE, ex.get("down", 0, "STATUS"));
    EXPECT_EQ(tobasERR_CON, ex.get("127.0.0.1", closedPort, "STATUS"));  // a single host keeps its code
  }

  // POST fails over the same way.
  std::string postList =
      "127.0.0.1:" + std::to_string(closedPort) + ",127.0.0.1:" + std::to_string(h1.port());
  ASSERT_EQ(0, tobasParseSrvListId("post", postList.c_str()));
  h1.push(httpReply(200, statusDoc("SUCCESS", "ok")));
  {
    Exchange ex;
    EXPECT_EQ(0, tobasHttpPost("post", 0, "", "ARCHIVE", "t", "d", "", "abc", 3, &ex.data, &ex.len, &ex.resp,
                               ex.hdr));
    EXPECT_NE(nullptr, ex.data.pdata);
  }
  EXPECT_NE(std::string::npos, h1.requests().back().find("\r\n\nabc"));

  // The default list, selected by the empty host.
  std::string def = "127.0.0.1:" + std::to_string(h3.port());
  ASSERT_EQ(0, tobasParseSrvList(def.c_str()));
  h3.push(httpReply(200, statusDoc("SUCCESS", "ok")));
  {
    Exchange ex;
    EXPECT_EQ(0, ex.get("", 0, "STATUS"));
  }
  EXPECT_EQ(2u, h3.requests().size());
  // A later list does not take the default list's place.
  ASSERT_EQ(0, tobasParseSrvListId("after-default", def.c_str()));
  int found = 0;
  tobasSRV_INFO* info = nullptr;
  _tobasGetSrvInfoObj("", &found, &info);
  ASSERT_EQ(1, found);
  EXPECT_EQ(1, info->numberOfSrvs);
}

TEST(TobasTransport, ServerListBounds) {
  char host[256] = "untouched";
  int port = 7;
  EXPECT_EQ(1, tobasSplitSrvAddr("nocolon", host, &port));
  EXPECT_STREQ("untouched", host);
  EXPECT_EQ(0, tobasSplitSrvAddr("h:81", host, &port));
  EXPECT_STREQ("h", host);
  EXPECT_EQ(81, port);

  EXPECT_EQ(1, tobasParseSrvListId("partial", "a:1,b:2,broken,c:3"));
  int found = 0;
  tobasSRV_INFO* info = nullptr;
  _tobasGetSrvInfoObj("partial", &found, &info);
  ASSERT_EQ(1, found);
  EXPECT_EQ(2, info->numberOfSrvs);

  std::string many;
  for (int i = 0; i < 33; ++i) many += "h" + std::to_string(i) + ":" + std::to_string(1000 + i) + ",";
  EXPECT_EQ(1, tobasParseSrvListId("many", many.c_str()));
  _tobasGetSrvInfoObj("many", &found, &info);
  EXPECT_EQ(32, info->numberOfSrvs);
  EXPECT_STREQ("h31", info->hosts[31]);
  EXPECT_EQ(1, tobasParseSrvListId("long", (std::string(300, 'h') + ":1").c_str()));

  // Fill the table: the identifiers used so far plus fresh ones up to 32, then one more.
  int added = 0;
  for (int i = 0; i < 40; ++i) {
    if (tobasParseSrvListId(("fill" + std::to_string(i)).c_str(), "a:1") != 0) break;
    ++added;
  }
  EXPECT_LT(added, 32);
  EXPECT_EQ(1, tobasParseSrvListId("one-too-many", "a:1"));
  EXPECT_EQ(0, tobasParseSrvListId("partial", "a:1"));  // re-parsing a known list still works
}

TEST(TobasTransport, ConnectBoundWithFullBacklog) {
  archivetest::FullBacklogListener full;
  _setReplyTimeoutFromFloat(100);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(tobasERR_CON, tobasPrepSock("127.0.0.1", full.port()));
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(secs, 0.45);
  EXPECT_LT(secs, 3.0);
  // An IPv6 literal has no IPv4 address: the lookup fails without asking any resolver.
  EXPECT_EQ(tobasERR_HOST, tobasPrepSock("::1", 80));
}

TEST(TobasTransport, ReplyTimeoutSettingsAndPolling) {
  _setReplyTimeoutFromFloat(0);
  EXPECT_FLOAT_EQ(1e8f, _getTimeOut());
  _setReplyTimeoutFromFloat(-3);
  EXPECT_FLOAT_EQ(1e8f, _getTimeOut());
  _setReplyTimeoutFromFloat(2.5f);
  EXPECT_FLOAT_EQ(2.5f, _getTimeOut());

  ArchiveServer srv;
  Reply slow{httpReply(200, statusDoc("SUCCESS", "late"))};
  slow.delayMs = 800;
  srv.push(slow);
  _setReplyTimeoutFromFloat(0.2f);
  Exchange ex;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(tobasERR_TIMEOUT, ex.get("127.0.0.1", srv.port(), "STATUS"));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 0.7);
}

namespace {
void onSignal(int) {}
}  // namespace

TEST(TobasTransport, FourInterruptedPollsGiveACommunicationError) {
  struct sigaction sa {};
  sa.sa_handler = onSignal;  // no SA_RESTART: poll returns EINTR
  struct sigaction old {};
  sigaction(SIGUSR1, &sa, &old);
  int p[2];
  ASSERT_EQ(0, pipe(p));
  pthread_t self = pthread_self();
  std::thread killer([self] {
    for (int i = 0; i < 6; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
      pthread_kill(self, SIGUSR1);
    }
  });
  int rc = _pollFd(p[0], 5.0f);
  killer.join();
  sigaction(SIGUSR1, &old, nullptr);
  close(p[0]);
  close(p[1]);
  EXPECT_EQ(tobasERR_COM, rc);
}
