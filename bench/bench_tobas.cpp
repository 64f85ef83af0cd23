// The archive client against the tools users would otherwise pick, each in one
// run against the same loopback server:
//   - retrieval of a 1 GiB file: tobasRetrieve2File, `curl -o`, and a raw
//     socket loop writing the same bytes into a file (the machine's limit);
//   - archive push of a 1 GiB file: tobasArchive, curl's streamed upload, and
//     a raw socket loop sending the same bytes;
//   - STATUS commands per second: tobasStatus against a raw connect-send-
//     receive loop replaying the library's own request bytes.
// Files live in /dev/shm when it is there, so that the disk does not set the pace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tobasCClient/tobasCClientLib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchUtil.h"

extern char** environ;

namespace {

const long long kBig = 1LL << 30;
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

long long contentLength(const std::string& header) {
  std::string lower(header);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  size_t p = lower.find("content-length:");
  return p == std::string::npos ? 0 : std::atoll(lower.c_str() + p + 15);
}

// One connection at a time: a RETRIEVE gets the 1 GiB file (sendfile), a POST
// has its body read and dropped, anything else gets a status document.
class BenchServer {
 public:
  BenchServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
      std::abort();
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~BenchServer() {
    stop_ = true;
    ::shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    ::close(listenFd_);
  }
  int port() const { return port_; }
  // The bytes of the first STATUS request received.
  std::string statusRequest() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statusRequest_;
  }

 private:
  void run() {
    std::vector<char> buf(kChunk);
    while (!stop_) {
      int fd = ::accept(listenFd_, nullptr, nullptr);
      if (fd < 0) continue;
      std::string req;
      const size_t end = readHeader(fd, buf, req);
      if (end == std::string::npos) {
        ::close(fd);
        continue;
      }
      const std::string header = req.substr(0, end);
      if (header.find("RETRIEVE") != std::string::npos) {
        const std::string h =
            "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\n"
            "Content-Disposition: attachment; filename=\"big.fits\"\r\nContent-Length: " +
            std::to_string(kBig) + "\r\n\r\n";
        sendAll(fd, h.data(), h.size());
        int src = ::open(g_source.c_str(), O_RDONLY);
        off_t off = 0;
        while (off < kBig) {
          ssize_t n = ::sendfile(fd, src, &off, static_cast<size_t>(kBig - off));
          if (n <= 0) break;
        }
        ::close(src);
      } else if (header.compare(0, 5, "POST ") == 0) {
        long long left = contentLength(header) - static_cast<long long>(req.size() - end);
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
      ::shutdown(fd, SHUT_WR);
      while (::read(fd, buf.data(), 65536) > 0) {
      }
      ::close(fd);
    }
  }

  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::string statusRequest_;
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
    long long left = contentLength(head.substr(0, end)) - static_cast<long long>(head.size() - end);
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

void retrieveOurs(benchutil::Pass& pass) {
  pass.measure([&] {
    tobasSTATUS st;
    tobasInitStatus(&st);
    tobasBIG_BUF final;
    if (tobasRetrieve2File("127.0.0.1", g_server->port(), 60, "big", -1, "", "", g_target.c_str(), final,
                           &st) != 0)
      pass.fail(st.message);
    tobasFreeStatus(&st);
  });
  finishRetrieval(pass);
}

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
    for (long long done = 0; done < kBig; done += static_cast<long long>(kChunk))
      writeAll(fd, block.data(), block.size());
    ::close(fd);
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
  // pair: it records the request bytes the raw loop replays.
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  rounds.side("BM_retrieve_raw", retrieveRaw)
      .side("BM_retrieve_curl", retrieveCurl)
      .side("BM_retrieve_ours", retrieveOurs)
      .side("BM_archive_raw", archiveRaw)
      .side("BM_archive_curl", archiveCurl)
      .side("BM_archive_ours", archiveOurs)
      .side("BM_status_ours", statusOurs)
      .side("BM_status_raw", statusRaw)
      .run();
  benchmark::Shutdown();

  const double gib = static_cast<double>(kBig) / (1 << 30);
  for (const char* name : {"BM_retrieve_raw", "BM_retrieve_curl", "BM_retrieve_ours", "BM_archive_raw",
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
  rounds.ratio("tobas_archive_1GiB_vs_curl", "BM_archive_ours", "BM_archive_curl", "1.0");
  rounds.ratio("tobas_archive_1GiB_vs_raw", "BM_archive_ours", "BM_archive_raw", "1.25");
  rounds.ratio("tobas_status_vs_raw", "BM_status_ours", "BM_status_raw", "1.25");
  g_server = nullptr;
  ::unlink(g_source.c_str());
  ::unlink(g_target.c_str());
  ::rmdir(g_dir.c_str());
  return 0;
}
