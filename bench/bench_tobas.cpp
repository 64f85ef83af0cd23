// The archive client against the tools users would otherwise pick, each in one
// run against the same loopback server:
//   - retrieval of a 1 GiB file: tobasRetrieve2File, `curl -o`, and a raw
//     socket loop writing the same bytes into a file (the machine's limit);
//   - the same retrieval checking a SHA-256 and a CRC-32 while the bytes arrive
//     (tobasRetrieve2FileOpts), against the plain one, round by round: once at
//     loopback's full speed, where the server's own sendfile takes one of the
//     machine's cores, and once paced by the kernel as over a 10 Gbit/s link;
//   - archive push of a 1 GiB file: tobasArchive, curl's streamed upload, and
//     a raw socket loop sending the same bytes;
//   - STATUS commands per second: tobasStatus against a raw connect-send-
//     receive loop replaying the library's own request bytes.
// After the rounds, two single runs of the retry machinery:
//   - resume after cuts: the server closes the connection at 10 random points
//     of the 1 GiB (fixed seed, in file order) and answers "Range: bytes=N-";
//     one checked retrieval with short retry waits goes through, and the figure
//     is the body bytes the server sent in all over the file's size;
//   - spread of retries: 100 threads released together each ask a server that
//     answers every request "503, Retry-After: 1" for its STATUS, under a policy
//     of 20 attempts, 2 to 4 s of random wait and a 30 s deadline; the figure is
//     the largest share of all retries that fell into one second (about 30 s).
// Files live in /dev/shm when it is there, so that the disk does not set the pace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nettle/sha2.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tobasCClient/tobasCClientLib.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchUtil.h"

extern char** environ;

namespace {

const long long kBig = 1LL << 30;
const unsigned kLinkBytesPerSecond = 1250000000;  // 10 Gbit/s
const size_t kChunk = 1 << 20;
std::string g_dir, g_source, g_target;

const std::string kStatusDoc =
    "<?xml version=\"1.0\"?>\n<Status Date=\"2026-11-22T10:30:00.000\" HostId=\"bench\" Message=\"ok\" "
    "State=\"ONLINE\" SubState=\"IDLE\" Status=\"SUCCESS\" Version=\"v3.1\"/>\n";
const std::string kStatusReply =
    "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(kStatusDoc.size()) +
    "\r\n\r\n" + kStatusDoc;

bool sendAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool writeAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Where a request header ends (after its blank line), or npos.
size_t headerEnd(const std::string& s) {
  size_t best = std::string::npos;
  for (const char* t : {"\r\n\r\n", "\r\n\n", "\n\n"}) {
    size_t p = s.find(t);
    if (p != std::string::npos) best = std::min(best, p + std::strlen(t));
  }
  return best;
}

// Reads from `fd` until `got` holds a whole header (and maybe the start of the
// body); returns where the header ends, or npos when the peer stopped first.
size_t readHeader(int fd, std::vector<char>& buf, std::string& got) {
  size_t end = std::string::npos;
  while (end == std::string::npos) {
    ssize_t n = ::read(fd, buf.data(), 65536);
    if (n <= 0) break;
    got.append(buf.data(), static_cast<size_t>(n));
    end = headerEnd(got);
  }
  return end;
}

// The number after `name` (lower case, up to the number's start) in a
// request header, or 0 when it is not there.
long long headerNumber(const std::string& header, const char* name) {
  std::string lower(header);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  size_t p = lower.find(name);
  return p == std::string::npos ? 0 : std::atoll(lower.c_str() + p + std::strlen(name));
}

// A loopback listener with its own thread and accept loop, one connection at a
// time: it reads the request header, hands the connection to `serve` (with
// the bytes read so far and where the header ends), then ends it with a FIN.
// With `awaitPeerClose` it then waits for the peer to close, so that no reply
// is cut by a reset while the peer still sends; without, it closes at once and
// a peer that keeps its end open does not hold up the next connection.
class LoopbackServer {
 public:
  using Serve = std::function<void(int fd, const std::string& req, size_t end, std::vector<char>& buf)>;
  LoopbackServer(int backlog, bool awaitPeerClose, Serve serve)
      : serve_(std::move(serve)), awaitPeerClose_(awaitPeerClose) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(listenFd_, backlog) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      std::abort();
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~LoopbackServer() {
    stop_ = true;
    ::shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    ::close(listenFd_);
  }
  int port() const { return port_; }

 private:
  void run() {
    std::vector<char> buf(kChunk);
    while (!stop_) {
      int fd = ::accept(listenFd_, nullptr, nullptr);
      if (fd < 0) continue;
      std::string req;
      const size_t end = readHeader(fd, buf, req);
      if (end != std::string::npos) {
        serve_(fd, req, end, buf);
        ::shutdown(fd, SHUT_WR);
        while (awaitPeerClose_ && ::read(fd, buf.data(), 65536) > 0) {
        }
      }
      ::close(fd);
    }
  }

  Serve serve_;
  bool awaitPeerClose_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A RETRIEVE gets the 1 GiB file (sendfile), from the offset of its
// "Range: bytes=N-" when it has one; a POST has its body read and dropped;
// anything else gets a status document. With cut points set, a RETRIEVE whose
// reply would pass the next one stops there and the connection closes: each
// point cuts once, in file order.
class BenchServer {
 public:
  BenchServer()
      : server_(128, true, [this](int fd, const std::string& req, size_t end, std::vector<char>& buf) {
          serve(fd, req, end, buf);
        }) {}
  int port() const { return server_.port(); }
  // The bytes of the first STATUS request received.
  std::string statusRequest() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statusRequest_;
  }
  // Sets the file offsets (increasing) to cut RETRIEVE replies at, and
  // restarts the count of body bytes sent.
  void cutAt(std::vector<long long> offsets) {
    std::lock_guard<std::mutex> lock(mutex_);
    cuts_ = std::move(offsets);
    nextCut_ = 0;
    bodyBytes_ = 0;
  }
  size_t cutsLeft() {
    std::lock_guard<std::mutex> lock(mutex_);
    return cuts_.size() - nextCut_;
  }
  // The file bytes sent in RETRIEVE replies since the last cutAt().
  long long bodyBytes() const { return bodyBytes_; }

 private:
  void serve(int fd, const std::string& req, size_t end, std::vector<char>& buf) {
    const std::string header = req.substr(0, end);
    if (header.find("RETRIEVE") != std::string::npos) {
      // The file "paced" comes as over a 10 Gbit/s link: the kernel's TCP pacing spaces the packets.
      if (header.find("file_id=\"paced\"") != std::string::npos) {
        const unsigned rate = kLinkBytesPerSecond;
        ::setsockopt(fd, SOL_SOCKET, SO_MAX_PACING_RATE, &rate, sizeof rate);
      }
      retrieve(fd, headerNumber(header, "range: bytes="));
    } else if (header.compare(0, 5, "POST ") == 0) {
      long long left = headerNumber(header, "content-length:") - static_cast<long long>(req.size() - end);
      while (left > 0) {
        ssize_t n = ::read(fd, buf.data(), std::min<long long>(left, static_cast<long long>(buf.size())));
        if (n <= 0) break;
        left -= n;
      }
      sendAll(fd, kStatusReply.data(), kStatusReply.size());
    } else {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (statusRequest_.empty() && header.find("STATUS") != std::string::npos) statusRequest_ = header;
      }
      sendAll(fd, kStatusReply.data(), kStatusReply.size());
    }
  }

  void retrieve(int fd, long long from) {
    const std::string size = std::to_string(kBig);
    if (from < 0 || from >= kBig) {
      const std::string h = "HTTP/1.0 416 Range Not Satisfiable\r\nContent-Range: bytes */" + size +
                            "\r\nContent-Length: 0\r\n\r\n";
      sendAll(fd, h.data(), h.size());
      return;
    }
    long long to = kBig;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      while (nextCut_ < cuts_.size() && cuts_[nextCut_] <= from) ++nextCut_;
      if (nextCut_ < cuts_.size()) to = cuts_[nextCut_++];
    }
    const std::string status = from == 0
                                   ? "200 OK\r\n"
                                   : "206 Partial Content\r\nContent-Range: bytes " + std::to_string(from) +
                                         "-" + std::to_string(kBig - 1) + "/" + size + "\r\n";
    const std::string h = "HTTP/1.0 " + status +
                          "Content-Type: application/octet-stream\r\n"
                          "Content-Disposition: attachment; filename=\"big.fits\"\r\nContent-Length: " +
                          std::to_string(kBig - from) + "\r\n\r\n";
    sendAll(fd, h.data(), h.size());
    int src = ::open(g_source.c_str(), O_RDONLY);
    off_t off = from;
    while (off < to) {
      ssize_t n = ::sendfile(fd, src, &off, static_cast<size_t>(to - off));
      if (n <= 0) break;
      bodyBytes_ += n;
    }
    ::close(src);
  }

  std::mutex mutex_;
  std::string statusRequest_;
  std::vector<long long> cuts_;
  size_t nextCut_ = 0;
  std::atomic<long long> bodyBytes_{0};
  LoopbackServer server_;  // last: its thread stops before the members above go
};

// Answers every request "503 Service Unavailable" with "Retry-After: 1" and
// notes when each arrived. Its backlog holds a hundred clients at once, and it
// closes right after each reply: the arrival times must not wait on clients
// that keep the refused connection open while they wait to retry.
class BusyServer {
 public:
  BusyServer()
      : server_(256, false, [this](int fd, const std::string&, size_t, std::vector<char>&) {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            arrivals_.push_back(std::chrono::steady_clock::now());
          }
          static const char kReply[] =
              "HTTP/1.0 503 Service Unavailable\r\nRetry-After: 1\r\nContent-Length: 0\r\n\r\n";
          sendAll(fd, kReply, sizeof kReply - 1);
        }) {}
  int port() const { return server_.port(); }
  std::vector<std::chrono::steady_clock::time_point> arrivals() {
    std::lock_guard<std::mutex> lock(mutex_);
    return arrivals_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::chrono::steady_clock::time_point> arrivals_;
  LoopbackServer server_;  // last: its thread stops before the members above go
};

BenchServer* g_server = nullptr;

int connectLoopback() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(g_server->port()));
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
  return fd;
}

int runCurl(const std::vector<std::string>& args) {
  std::vector<char*> argv{const_cast<char*>("curl")};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

std::string url(const std::string& path) {
  return "http://127.0.0.1:" + std::to_string(g_server->port()) + path;
}

long long fileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// Checks a pass moved the whole file, then removes the target (after the
// measured part).
void finishRetrieval(benchutil::Pass& pass) {
  if (fileSize(g_target) != kBig) pass.fail("retrieved file has the wrong size");
  ::unlink(g_target.c_str());
}

void retrieveRaw(benchutil::Pass& pass) {
  std::vector<char> buf(kChunk);
  pass.measure([&] {
    int fd = connectLoopback();
    const std::string req = "GET RETRIEVE?file_id=\"big\" HTTP/1.0\r\nUser-agent: raw\r\n\n";
    sendAll(fd, req.data(), req.size());
    int out = ::open(g_target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0664);
    std::string head;
    const size_t end = readHeader(fd, buf, head);
    if (end == std::string::npos) {
      ::close(out);
      ::close(fd);
      pass.fail("no reply header");
      return;
    }
    long long left =
        headerNumber(head.substr(0, end), "content-length:") - static_cast<long long>(head.size() - end);
    writeAll(out, head.data() + end, head.size() - end);
    while (left > 0) {
      ssize_t n = ::read(fd, buf.data(), static_cast<size_t>(std::min<long long>(left, kChunk)));
      if (n <= 0) break;
      writeAll(out, buf.data(), static_cast<size_t>(n));
      left -= n;
    }
    ::close(out);
    ::close(fd);
  });
  finishRetrieval(pass);
}

void retrieveCurl(benchutil::Pass& pass) {
  pass.measure([&] {
    if (runCurl({"-s", "-o", g_target, url("/RETRIEVE?file_id=big")}) != 0) pass.fail("curl failed");
  });
  finishRetrieval(pass);
}

// The file's checksums, computed once at start-up, and the options that
// check them while the bytes arrive.
std::string g_sha256, g_crc32;
tobasRETRIEVE_OPTS g_sha256Opts{0, "sha256", ""}, g_crc32Opts{0, "crc32", ""};

// tobasRetrieve2File, or tobasRetrieve2FileOpts when there are options, of the file `id`.
void retrieveWith(benchutil::Pass& pass, const tobasRETRIEVE_OPTS* opts, const char* id = "big") {
  pass.measure([&] {
    tobasSTATUS st;
    tobasInitStatus(&st);
    tobasBIG_BUF final;
    const int rc = opts ? tobasRetrieve2FileOpts("127.0.0.1", g_server->port(), 60, id, -1, "", "",
                                                 g_target.c_str(), final, opts, &st)
                        : tobasRetrieve2File("127.0.0.1", g_server->port(), 60, id, -1, "", "",
                                             g_target.c_str(), final, &st);
    if (rc != 0) pass.fail(st.message[0] ? st.message : "retrieval failed");
    tobasFreeStatus(&st);
  });
  finishRetrieval(pass);
}

void retrieveOurs(benchutil::Pass& pass) { retrieveWith(pass, nullptr); }
void retrieveSha256(benchutil::Pass& pass) { retrieveWith(pass, &g_sha256Opts); }
void retrieveCrc32(benchutil::Pass& pass) { retrieveWith(pass, &g_crc32Opts); }
void retrievePaced(benchutil::Pass& pass) { retrieveWith(pass, nullptr, "paced"); }
void retrievePacedSha256(benchutil::Pass& pass) { retrieveWith(pass, &g_sha256Opts, "paced"); }
void retrievePacedCrc32(benchutil::Pass& pass) { retrieveWith(pass, &g_crc32Opts, "paced"); }

void archiveRaw(benchutil::Pass& pass) {
  std::vector<char> buf(kChunk);
  pass.measure([&] {
    int fd = connectLoopback();
    const std::string h =
        "POST /ARCHIVE HTTP/1.0\r\nUser-agent: raw\r\nContent-type: "
        "kest/archive-request\r\nContent-length: " +
        std::to_string(kBig) + "\r\nContent-disposition: attachment; filename=\"big.fits\"\r\n\r\n";
    sendAll(fd, h.data(), h.size());
    int in = ::open(g_source.c_str(), O_RDONLY);
    for (;;) {
      ssize_t n = ::read(in, buf.data(), kChunk);
      if (n <= 0) break;
      sendAll(fd, buf.data(), static_cast<size_t>(n));
    }
    ::close(in);
    while (::read(fd, buf.data(), 65536) > 0) {
    }
    ::close(fd);
  });
}

// `curl --data-binary @FILE` reads the whole file into memory first and refuses
// one of 1 GiB ("out of memory", curl 7.88), so curl streams it as an upload
// (-T) sent as a POST, with the same content type and no 100-continue wait.
void archiveCurl(benchutil::Pass& pass) {
  pass.measure([&] {
    if (runCurl({"-s", "-o", "/dev/null", "-H", "Expect:", "-H", "Content-Type: kest/archive-request", "-X",
                 "POST", "-T", g_source, url("/ARCHIVE")}) != 0)
      pass.fail("curl failed");
  });
}

void archiveOurs(benchutil::Pass& pass) {
  pass.measure([&] {
    tobasSTATUS st;
    tobasInitStatus(&st);
    if (tobasArchive("127.0.0.1", g_server->port(), 60, g_source.c_str(), "", 0, 1, &st) != 0 ||
        !tobasSuccess(&st))
      pass.fail(st.message);
    tobasFreeStatus(&st);
  });
}

const int kStatusCommands = 3000;

void statusOurs(benchutil::Pass& pass) {
  pass.measure([&] {
    for (int i = 0; i < kStatusCommands; ++i) {
      tobasSTATUS st;
      tobasInitStatus(&st);
      if (tobasStatus("127.0.0.1", g_server->port(), 10, &st) != 0) pass.fail(st.message);
      tobasFreeStatus(&st);
    }
  });
}

void statusRaw(benchutil::Pass& pass) {
  const std::string req = g_server->statusRequest();
  if (req.empty()) {
    pass.fail("no STATUS request recorded");
    return;
  }
  char buf[4096];
  pass.measure([&] {
    for (int i = 0; i < kStatusCommands; ++i) {
      int fd = connectLoopback();
      sendAll(fd, req.data(), req.size());
      size_t got = 0;
      for (;;) {
        pollfd p{fd, POLLIN, 0};
        ::poll(&p, 1, 10000);
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
      }
      if (got != kStatusReply.size()) pass.fail("short STATUS reply");
      ::close(fd);
    }
  });
}

// One checked retrieval through 10 cuts at random points of the file, one in
// each tenth (fixed seed), with waits of 1 to 10 ms between attempts: the body
// bytes sent in all over the file's size. A resumed retrieval sends each byte
// once; starting over would send about half the file again per cut.
void resumeAfterCuts() {
  const int kCuts = 10;
  const long long span = kBig / kCuts;
  std::mt19937_64 rng(20261122);
  std::uniform_int_distribution<long long> within(1, span - 1);
  std::vector<long long> cuts;
  for (int i = 0; i < kCuts; ++i) cuts.push_back(i * span + within(rng));
  g_server->cutAt(cuts);
  tobasSetRetryPolicy(20, 1, 10, 0);
  benchutil::Pass pass(nullptr, false);
  retrieveSha256(pass);
  tobasSetRetryPolicy(1, 0, 0, 0);
  const long long sent = g_server->bodyBytes();
  const size_t left = g_server->cutsLeft();
  g_server->cutAt({});
  if (left > 0) pass.fail("not every cut was made");
  std::printf("resume after cuts: %zu of %d cuts made, %lld body bytes sent for a file of %lld%s\n",
              static_cast<size_t>(kCuts) - left, kCuts, sent, kBig, pass.failed() ? " (failed)" : "");
  benchutil::printRatio("tobas_resume_1GiB_10cuts_bytes", {pass.failed() ? 0.0 : static_cast<double>(sent)},
                        {static_cast<double>(kBig)}, "1.05");
}

// 100 threads released together, each asking a server that only answers 503
// (Retry-After: 1) for its STATUS once, under 20 attempts, random waits of up
// to 2 s doubling to 4 s and a 30 s deadline: the largest share of the retries
// that arrived within one second, counted from the release. Randomised waits
// keep the clients from coming back in step.
void retrySpread() {
  const int kClients = 100;
  BusyServer busy;
  tobasSetRetryPolicy(20, 2000, 4000, 30000);
  pthread_barrier_t gate;
  pthread_barrier_init(&gate, nullptr, kClients + 1);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back([&] {
      pthread_barrier_wait(&gate);
      tobasSTATUS st;
      tobasInitStatus(&st);
      tobasStatus("127.0.0.1", busy.port(), 5, &st);
      tobasFreeStatus(&st);
    });
  pthread_barrier_wait(&gate);
  const auto released = std::chrono::steady_clock::now();
  for (auto& t : clients) t.join();
  pthread_barrier_destroy(&gate);
  tobasSetRetryPolicy(1, 0, 0, 0);

  // Every first request leaves at the release and every retry at least the
  // Retry-After second later, so the first kClients arrivals are the firsts.
  std::vector<std::chrono::steady_clock::time_point> arrivals = busy.arrivals();
  std::sort(arrivals.begin(), arrivals.end());
  std::map<long long, int> perSecond;
  for (size_t i = kClients; i < arrivals.size(); ++i)
    ++perSecond[std::chrono::duration_cast<std::chrono::seconds>(arrivals[i] - released).count()];
  const size_t retries = arrivals.size() > kClients ? arrivals.size() - kClients : 0;
  std::pair<long long, int> busiest{0, 0};
  for (const auto& b : perSecond)
    if (b.second > busiest.second) busiest = b;
  const auto sinceRelease = [&](size_t i) {
    return i < arrivals.size() ? std::chrono::duration<double>(arrivals[i] - released).count() : 0.0;
  };
  std::printf(
      "503 retries: %zu retries from %d clients over %.1f s (first requests within %.0f ms of the "
      "release); busiest second %lld..%lld s: %d\n",
      retries, kClients, sinceRelease(arrivals.size() - 1), sinceRelease(kClients - 1) * 1e3, busiest.first,
      busiest.first + 1, busiest.second);
  benchutil::printRatio("tobas_503_retries_busiest_second_share", {static_cast<double>(busiest.second)},
                        {static_cast<double>(retries)}, "0.10");
}

}  // namespace

int main(int argc, char** argv) {
  unsetenv("TOBAS_LOG_FILE");
  unsetenv("TOBAS_VERBOSE_LEVEL");
  char tmpl[] = "/dev/shm/bench-tobas-XXXXXX";
  char tmpl2[] = "/tmp/bench-tobas-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  if (dir == nullptr) dir = mkdtemp(tmpl2);
  if (dir == nullptr) return 1;
  g_dir = dir;
  g_source = g_dir + "/source.fits";
  g_target = g_dir + "/target.fits";
  {
    int fd = ::open(g_source.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char> block(kChunk);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    const auto* bytes = reinterpret_cast<const uint8_t*>(block.data());
    sha256_ctx sha;
    sha256_init(&sha);
    uLong crc = crc32(0, nullptr, 0);
    for (long long done = 0; done < kBig; done += static_cast<long long>(kChunk)) {
      writeAll(fd, block.data(), block.size());
      sha256_update(&sha, block.size(), bytes);
      crc = crc32(crc, bytes, static_cast<uInt>(block.size()));
    }
    ::close(fd);
    uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&sha, sizeof digest, digest);
    char hex[2 * SHA256_DIGEST_SIZE + 1];
    for (size_t i = 0; i < sizeof digest; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    g_sha256 = hex;
    std::snprintf(hex, sizeof hex, "0x%08lx", crc);
    g_crc32 = hex;
    g_sha256Opts.checksum = g_sha256.c_str();
    g_crc32Opts.checksum = g_crc32.c_str();
  }
  {
    // The first writes into fresh memory are slowed by the host faulting pages
    // in; write and drop one more file of the same size before timing anything.
    const std::string warm = g_dir + "/warm-up";
    int fd = ::open(warm.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char> block(kChunk, 'w');
    for (long long done = 0; done < kBig; done += static_cast<long long>(kChunk))
      writeAll(fd, block.data(), block.size());
    ::close(fd);
    ::unlink(warm.c_str());
  }
  BenchServer server;
  g_server = &server;

  // Seven rounds, each running every side once; ours goes first in the STATUS
  // pair: it records the request bytes the raw loop replays. The single runs
  // of the retry machinery follow the rounds.
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  rounds.side("BM_retrieve_raw", retrieveRaw)
      .side("BM_retrieve_curl", retrieveCurl)
      .side("BM_retrieve_ours", retrieveOurs)
      .side("BM_retrieve_sha256", retrieveSha256)
      .side("BM_retrieve_crc32", retrieveCrc32)
      .side("BM_retrieve_10gbit", retrievePaced)
      .side("BM_retrieve_10gbit_sha256", retrievePacedSha256)
      .side("BM_retrieve_10gbit_crc32", retrievePacedCrc32)
      .side("BM_archive_raw", archiveRaw)
      .side("BM_archive_curl", archiveCurl)
      .side("BM_archive_ours", archiveOurs)
      .side("BM_status_ours", statusOurs)
      .side("BM_status_raw", statusRaw)
      .run();
  benchmark::Shutdown();

  const double gib = static_cast<double>(kBig) / (1 << 30);
  for (const char* name :
       {"BM_retrieve_raw", "BM_retrieve_curl", "BM_retrieve_ours", "BM_retrieve_sha256", "BM_retrieve_crc32",
        "BM_retrieve_10gbit", "BM_retrieve_10gbit_sha256", "BM_retrieve_10gbit_crc32", "BM_archive_raw",
        "BM_archive_curl", "BM_archive_ours"}) {
    const std::vector<double> t = rounds.times(name);
    if (t.empty()) continue;
    const double best = *std::min_element(t.begin(), t.end()), median = benchutil::median(t);
    std::printf("%-18s median %8.1f ms  %6.2f GiB/s   best %8.1f ms  %6.2f GiB/s\n", name, median,
                gib * 1e3 / median, best, gib * 1e3 / best);
  }
  for (const char* name : {"BM_status_ours", "BM_status_raw"}) {
    const std::vector<double> t = rounds.times(name);
    if (t.empty()) continue;
    const double best = *std::min_element(t.begin(), t.end()) * 1e3 / kStatusCommands,
                 median = benchutil::median(t) * 1e3 / kStatusCommands;
    std::printf("%-18s median %8.1f us  %8.0f commands/s   best %8.1f us  %8.0f commands/s\n", name, median,
                1e6 / median, best, 1e6 / best);
  }
  rounds.ratio("tobas_retrieve_1GiB_vs_curl", "BM_retrieve_ours", "BM_retrieve_curl", "1.0");
  rounds.ratio("tobas_retrieve_1GiB_vs_raw", "BM_retrieve_ours", "BM_retrieve_raw", "1.25");
  rounds.ratio("tobas_retrieve_sha256_vs_plain", "BM_retrieve_sha256", "BM_retrieve_ours", "1.15");
  rounds.ratio("tobas_retrieve_crc32_vs_plain", "BM_retrieve_crc32", "BM_retrieve_ours", "1.05");
  rounds.ratio("tobas_retrieve_10gbit_sha256_vs_plain", "BM_retrieve_10gbit_sha256", "BM_retrieve_10gbit",
               "1.15");
  rounds.ratio("tobas_retrieve_10gbit_crc32_vs_plain", "BM_retrieve_10gbit_crc32", "BM_retrieve_10gbit",
               "1.05");
  rounds.ratio("tobas_archive_1GiB_vs_curl", "BM_archive_ours", "BM_archive_curl", "1.0");
  rounds.ratio("tobas_archive_1GiB_vs_raw", "BM_archive_ours", "BM_archive_raw", "1.25");
  rounds.ratio("tobas_status_vs_raw", "BM_status_ours", "BM_status_raw", "1.25");
  std::fflush(stdout);
  resumeAfterCuts();
  retrySpread();
  g_server = nullptr;
  ::unlink(g_source.c_str());
  ::unlink(g_target.c_str());
  ::rmdir(g_dir.c_str());
  return 0;
}
