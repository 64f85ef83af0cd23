// Archive client transport: request bytes, reply readers, redirection, server lists, time-outs.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <tuple>
#include <utility>

#include "tests/tobasCClient/TobasTest.h"

namespace {

struct Exchange {
  tobasHTTP_DATA data{nullptr, 0};
  long len = 0;
  tobasHTTP_RESP resp{};
  tobasHTTP_HDR hdr;
  ~Exchange() { free(data.pdata); }
  int get(const std::string& host, int port) {
    free(std::exchange(data.pdata, nullptr));
    return tobasHttpGet(host.c_str(), port, "TOB/AS C-API", "STATUS", 1, &data, &len, &resp, hdr);
  }
  int post(const std::string& host, int port, const std::string& file, const std::string& mem) {
    free(std::exchange(data.pdata, nullptr));
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
  ~Feed() { close(fds[0]), close(fds[1]); }
};

std::string local(int port) { return "127.0.0.1:" + std::to_string(port); }

using ReadCase = std::tuple<std::string, bool, int>;  // bytes the peer sends, whether it closes, status

}  // namespace

TEST(TobasTransport, RequestBytes) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer srv;
  TempDir dir;
  std::string content(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  const std::string auth(1500, 'k'),
      get = "GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\n",
      disp = "\r\nContent-disposition: attachment; filename=\"x\"",
      post = "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: image/fits\r\n";
  for (int i = 0; i < 4; ++i) srv.push({kOk});
  const size_t mark = logText().size();
  Exchange ex;
  ASSERT_EQ(0, ex.get("127.0.0.1", srv.port()));
  ASSERT_EQ(0, ex.post("127.0.0.1", srv.port(), dir.write("big.fits", content), ""));
  tobasSetAuthorization(auth.c_str());
  ASSERT_EQ(0, ex.get("localhost", srv.port()));
  const size_t inUse = heapInUse();
  ASSERT_EQ(0, ex.post("127.0.0.1", srv.port(), dir.write("small", "hello"), ""));
  EXPECT_NO_GROWTH(inUse, 65536);  // sending a file leaves no buffer behind
  tobasSetAuthorization(nullptr);
  EXPECT_EQ(nullptr, tobasGetAuthorization());
  const std::vector<std::string> sent{
      get + "\n", post + "Content-length: " + std::to_string(content.size()) + disp + "\r\n\n" + content,
      get + "Authorization: Basic%20" + auth + "\r\n\n",  // longer than any fixed buffer
      post + "Content-length: 5" + disp + "\r\nAuthorization: Basic " + auth + "\r\n\nhello"};
  EXPECT_EQ(sent, srv.requests());
  EXPECT_EQ(std::string::npos, logText().find("[ERROR]", mark));  // a clean exchange logs no error
  EXPECT_EQ(std::string::npos, logText().find("Error calling connect", mark));  // nor a failed attempt
  EXPECT_EQ(std::string::npos, logText().find(auth, mark));  // the access code is masked in the log
  EXPECT_HAS(logText().substr(mark), "\r\nAuthorization: Basic ****\r\n\n to host/port");
  EXPECT_HAS(logText().substr(mark), "Submitting request with URL: http://" + local(srv.port()) + "/STATUS");
}

TEST(TobasTransport, ReplyHeaderAndBodyReaders) {
  std::string manyRows = "HTTP/1.0 200 OK\r\n";
  for (int i = 0; i < 600; ++i) manyRows += "x-row: " + std::to_string(i) + "\r\n";
  const ReadCase cases[] = {
      {"HTTP/1.0 200 OK Fine\r\nContent-Length: 12\r\nX-Mixed: Keep Case\r\n\r\nbody", true, 0},
      {std::string(130, 'x') + " 200 OK\r\n\r\n", true, tobasERR_INV_REPLY},  // first blank too far
      {"no reply\r\n\r\n", true, tobasERR_INV_REPLY},                         // not HTTP at all
      {"HTTP/1.0 20x OK\r\n\r\n", true, tobasERR_INV_REPLY},                  // no three-digit status
      {"HTTP/1.0 2000\r\n\r\n", true, tobasERR_INV_REPLY},
      {"HTTP/1.0 200 OK\r\nContent-Length: -5\r\n\r\n", true, tobasERR_INV_REPLY},
      {manyRows + "\r\n", true, tobasERR_INV_REPLY},
      {"HTTP/1.0 200 OK\r\nx: a\0b\r\n\r\n"s, true, tobasERR_INV_REPLY},  // a NUL byte
      {"HTTP/1.0 200 OK\r\nx: a\r\n", true, tobasERR_INV_REPLY},          // closed within the header
      {"", false, tobasERR_TIMEOUT},                                      // nothing arrives
  };
  _setReplyTimeoutFromFloat(0.2f);
  const size_t inUse = heapInUse();  // the header reads below hold no memory after them either
  for (const auto& [bytes, closed, stat] : cases) {
    Feed f(bytes, closed);
    Exchange ex;
    int fd = f.fds[0];
    EXPECT_EQ(stat, tobasRecvHttpHdr(&fd, ex.hdr, &ex.resp, &ex.data, &ex.len)) << bytes.substr(0, 40);
    if (stat != 0) continue;
    EXPECT_EQ(12, ex.len);
    EXPECT_STREQ("ok fine", ex.resp.message);
    EXPECT_STREQ("x-mixed: Keep Case\r\n", ex.hdr[2]);  // only the name is lower-cased
    char rest[8] = {};
    EXPECT_EQ(4, read(fd, rest, sizeof rest));  // the body is left in the socket
  }
  EXPECT_HAS(logText(), "[ERROR] Invalid status line in reply");
  for (const char* line :
       {"[ERROR] Invalid content length in reply: -5", "[ERROR] Reply header line holds a NUL byte",
        "[ERROR] Reply header has more than ", "[ERROR] Reply ended within its header"})
    EXPECT_HAS(logText(), line);
  // Each read clears the rows of the one before; a field is looked for in the first 32 rows only.
  Exchange ex;
  for (const char* bytes :
       {"HTTP/1.0 200 OK\r\nX-A: 1\r\nX-B: 2\r\nX-Old: 3\r\n\r\n", "HTTP/1.0 200 OK\r\n\r\n"}) {
    Feed f(bytes);
    int fd = f.fds[0];
    EXPECT_EQ(0, tobasRecvHttpHdr(&fd, ex.hdr, &ex.resp, &ex.data, &ex.len));
  }
  tobasBIG_BUF value;
  EXPECT_NE(0, tobasGetHttpHdrEntry(ex.hdr, "x-old", nullptr, value));
  for (int row = 0; row < 33; ++row) snprintf(ex.hdr[row], sizeof ex.hdr[row], "x-%d: %d\r\n", row, row);
  EXPECT_EQ(0, tobasGetHttpHdrEntry(ex.hdr, "x-31", nullptr, value));
  EXPECT_NE(0, tobasGetHttpHdrEntry(ex.hdr, "x-32", nullptr, value));

  Feed lines("ab\ncdefgh");
  char buf[5];
  // Newline kept; one more than stored when stopped at the limit or by the end of the input.
  for (int n : {3, 5, 3, 0}) EXPECT_EQ(n, tobasReadLine(&lines.fds[0], buf, 5));
  int p[2], none = -1;
  ASSERT_EQ(0, pipe(p));
  ASSERT_EQ(8, write(p[1], "a\nbcdefg", 8));
  for (int* fd : {&none, &p[1]}) EXPECT_EQ(-1, tobasReadLine(fd, buf, 5));  // no socket, write-only pipe
  EXPECT_STREQ("", buf);
  close(p[1]);
  for (int n : {2, 5, 3, 0}) EXPECT_EQ(n, tobasReadLine(&p[0], buf, 5));  // not a socket: byte by byte
  close(p[0]);

  const ReadCase bodies[] = {
      {"0123456789", true, 0},
      {"", true, 0},                       // an empty body is an empty string
      {"short", true, tobasERR_RD_DATA},   // closed before the announced length
      {"short", false, tobasERR_TIMEOUT},  // stops before it: one wait, not eleven
  };
  _setReplyTimeoutFromFloat(0.5f);
  for (const auto& [bytes, closed, stat] : bodies) {
    Feed f(bytes, closed);
    const int sock = std::exchange(f.fds[0], -1);
    int fd = sock;
    char* data = nullptr;
    EXPECT_EQ(stat, tobasRecvData(&data, stat == 0 ? long(bytes.size()) : 1 << 20,
                                  &fd));  // a failed read frees its buffer
    EXPECT_EQ(0, fd);
    EXPECT_EQ(-1, fcntl(sock, F_GETFD));  // closed by the reader
    EXPECT_STREQ(stat == 0 ? bytes.c_str() : nullptr, data);
    free(data);
  }
  EXPECT_NO_GROWTH(inUse, 65536);
}

TEST(TobasTransport, RedirectionKeepsThePath) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer first, second, bad;
  const std::string to2 = "Location: http://" + local(second.port()) + "/x\r\n";
  first.push({httpReply(303, "moved", to2)});
  second.push({httpReply(303, "", "Location: http://" + local(first.port()) + "/y\r\n")});
  first.push({httpReply(303, "", to2)});
  second.push({kOk});
  Exchange ex;
  ASSERT_EQ(0, ex.get("127.0.0.1", first.port()));
  EXPECT_EQ(200, ex.resp.status);
  const std::vector<std::string> twice(2, "GET STATUS HTTP/1.0\nUser-Agent: TOB/AS C-API\r\n\n");
  EXPECT_EQ(twice, first.requests());
  EXPECT_EQ(twice, second.requests());
  EXPECT_HAS(logText(), "[INFO] Redirected to " + local(second.port()));
  ArchiveServer named;  // in another field's value only: no redirection to it
  named.push({kOk});
  bad.push(
      {httpReply(303, "", "X-B: location: http://" + local(named.port()) + "/\r\nLocation: nowhere\r\n")});
  EXPECT_EQ(tobasERR_INV_REPLY, ex.get("127.0.0.1", bad.port()));

  // The access code goes to the first server and to registered ones only.
  ArchiveServer listed;
  ASSERT_EQ(0, tobasParseSrvListId("redirect-targets", local(listed.port()).c_str()));
  for (auto [from, to] : {std::pair{&first, &second}, {&second, &listed}})
    from->push({httpReply(303, "", "Location: http://" + local(to->port()) + "/\r\n")});
  // Back to the first server under another name: by name, not the first server.
  listed.push({httpReply(303, "", "Location: http://localhost:" + std::to_string(first.port()) + "/\r\n")});
  first.push({kOk});
  tobasSetAuthorization("code");
  ASSERT_EQ(0, ex.get("127.0.0.1", first.port()));
  const std::string code = twice[0].substr(0, 46) + "Authorization: Basic%20code\r\n\n";
  EXPECT_EQ((std::vector<std::string>{code, twice[0], code, twice[0]}),
            (std::vector<std::string>{first.requests()[2], second.requests()[2], listed.requests()[0],
                                      first.requests()[3]}));
  // A server redirecting to itself: 20 redirections are followed, then the request fails; no body is kept.
  const size_t inUse = heapInUse();
  for (int i = 0; i < 25; ++i)
    bad.push({httpReply(303, std::string(10000, 'b'), "Location: http://" + local(bad.port()) + "/\r\n")});
  EXPECT_EQ(tobasERR_INV_REPLY, ex.get("127.0.0.1", bad.port()));
  EXPECT_NO_GROWTH(inUse, 65536);
  EXPECT_EQ(1u + 21u, bad.requests().size());
  EXPECT_HAS(logText(), "[ERROR] Too many redirections. URL: 127.0.0.1:" + std::to_string(bad.port()));
  tobasSetAuthorization(nullptr);
}

TEST(TobasTransport, ServerListsRoundRobinFailOverAndBounds) {
  _setReplyTimeoutFromFloat(5);
  ArchiveServer h1, h2, h3;
  const int down = ArchiveServer().port();
  ASSERT_EQ(0, tobasParseSrvListId(
                   "rr", (local(h1.port()) + ",," + local(h2.port()) + "," + local(h3.port())).c_str()));
  const size_t mark = logText().size();
  ASSERT_EQ(0, tobasParseSrvListId("down", local(down).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("post", (local(down) + "," + local(h1.port())).c_str()));
  for (auto* s : {&h1, &h2, &h3, &h1}) s->push({kOk});
  Exchange ex;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0, ex.get("rr", 0));  // starts at h1, h2, h3
  EXPECT_EQ(tobasSTAT_FAILURE, ex.get("down", 0));
  const size_t tried = logText().size();
  EXPECT_EQ(tobasERR_CON, ex.get("127.0.0.1", down));  // a single host keeps its code, after six refusals
  size_t n = 0;
  for (size_t at = tried; (at = logText().find("calling connect()", at)) != std::string::npos; ++at) ++n;
  EXPECT_EQ(n, 6u);
  const long fds = testsupport::openFdCount();
  for (int i = 0; i < 200; ++i) ASSERT_EQ(tobasERR_CON, tobasPrepSock("127.0.0.1", down));
  EXPECT_LE(testsupport::openFdCount(), fds);   // a refused connect closes its socket
  EXPECT_EQ(0, ex.post("post", 0, "", "abc"));  // starts at the closed one, moves on
  EXPECT_EQ((std::vector<size_t>{2, 1, 1}),
            (std::vector<size_t>{h1.requests().size(), h2.requests().size(), h3.requests().size()}));
  EXPECT_HAS(h1.requests().back(), "\r\n\nabc");

  // The default list, selected by the empty host, and not replaced by a later list.
  ASSERT_EQ(0, tobasParseSrvList(local(h3.port()).c_str()));
  ASSERT_EQ(0, tobasParseSrvListId("after-default", local(h1.port()).c_str()));
  h3.push({kOk});
  EXPECT_EQ(0, ex.get("", 0));
  EXPECT_EQ(2u, h3.requests().size());
  // Servers that all fail (closed unanswered, refused, a body cut short): each tried once, none again.
  ASSERT_EQ(0, tobasParseSrvListId("all-fail",
                                   (local(h1.port()) + "," + local(down) + "," + local(h2.port())).c_str()));
  h2.push({kOk, kOk.size() - 1});
  EXPECT_EQ(tobasSTAT_FAILURE, ex.get("all-fail", 0));
  EXPECT_EQ((std::vector<size_t>{3, 2}), (std::vector<size_t>{h1.requests().size(), h2.requests().size()}));
  h1.push({httpReply(400, "bad")});  // its body dropped when the next server is asked
  h3.push({kOk});
  ASSERT_EQ(0, tobasParseSrvListId("400-first", (local(h1.port()) + "," + local(h3.port())).c_str()));
  EXPECT_EQ(0, ex.get("400-first", 0));

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

  EXPECT_EQ(1, tobasParseSrvListId(std::string(128, 'i').c_str(), "a:1"));  // too long an ID
  int added = 0;
  while (added < 40 && tobasParseSrvListId(("fill" + std::to_string(added)).c_str(), "a:1") == 0) ++added;
  EXPECT_GE(added, tobasMAX_SRV_LISTS / 2);  // the other tests of a run take a few slots at most
  EXPECT_LT(added, tobasMAX_SRV_LISTS);
  for (const std::string& line :
       {"[ERROR] Server list ID or server list too long"s,
        "[ERROR] Illegal Server List ID or no more free slots"s,
        "tobasParseSrvListId(): listId=down, servers=" + local(down), "Next server: " + local(h2.port()),
        "[ERROR] Illegal server address in list partial: broken"s,
        "[ERROR] Too many servers in list many (at most 32): h32:1032 refused"s})
    EXPECT_HAS(logText().substr(mark), line);
  EXPECT_EQ(0, tobasParseSrvListId("partial", "a:1"));  // re-parsing a known list still works
}

// SIGALRM to the calling thread every `ms` (0: none), without SA_RESTART.
static void interruptEvery(int ms) {
  struct sigaction sa {};
  sa.sa_handler = [](int) {};
  sigaction(SIGALRM, &sa, nullptr);
  const itimerval t{{0, ms * 1000}, {0, ms * 1000}};
  setitimer(ITIMER_REAL, &t, nullptr);
}

TEST(TobasTransport, TimeOutsHoldThroughSignals) {
  const int full = archivetest::fullBacklogPort(), sock = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in to{AF_INET, htons(static_cast<in_port_t>(full)), {htonl(INADDR_LOOPBACK)}, {}};
  _setReplyTimeoutFromFloat(100);
  for (int ms : {60, 0}) {  // with signals meanwhile and without
    const auto start = std::chrono::steady_clock::now();
    interruptEvery(ms);
    EXPECT_EQ(tobasSTAT_FAILURE, _tobasConnect(sock, &to));
    interruptEvery(0);
    // Not accepted within the bound, whatever the reply time-out; a signal does not end it early.
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(secs, 0.45);
    EXPECT_LT(secs, 3.0);
  }
  EXPECT_EQ(0, (fcntl(sock, F_GETFL) & O_NONBLOCK) + close(sock));  // left blocking, as it came
  for (const auto& [set, got] : {std::pair{0.0f, 1e8f}, {-3.0f, 1e8f}, {2.5f, 2.5f}}) {
    _setReplyTimeoutFromFloat(set);
    EXPECT_FLOAT_EQ(got, _getTimeOut());
  }
  Feed ready("x");
  const size_t mark = logText().size();
  EXPECT_EQ(0, _pollFd(ready.fds[0], 0));  // no time-out of its own: the default
  EXPECT_HAS(logText().substr(mark), "Requested timeout: 2.500000s");
  EXPECT_HAS(logText().substr(mark), "Polling for ready fd's. Timeout: 2500ms");
  Feed silent("", false);
  interruptEvery(60);
  const int rc = _pollFd(silent.fds[0], 5.0f);
  interruptEvery(0);
  EXPECT_EQ(tobasERR_COM, rc);  // the fourth interrupted poll
  EXPECT_HAS(logText().substr(mark), "(interrupted system call). Iteration: 3");
  // A peer that takes no more bytes (never accepted, it has the kernel's buffers only): the send times out.
  int port = 0;
  const int quiet = archivetest::listenLoopback(4, port);
  const std::string big(32 << 20, 'x');
  tobasSTATUS st{};
  EXPECT_EQ(tobasERR_TIMEOUT,
            tobasArchiveFromMem("127.0.0.1", port, 0.2f, "f", big.data(), big.size(), "", 0, 1, &st));
  tobasFreeStatus(&st), close(quiet);
}
