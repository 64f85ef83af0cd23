#include "tests/support/TdsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sybconn/drivers/SqliteDialect.h"

namespace tdstest {
namespace {

using Bytes = std::string;

enum : uint8_t {
  kLogin50 = 0x02,
  kNormal50 = 0x0f,
  kSqlBatch = 0x01,
  kReply = 0x04,
  kAttention = 0x06,
  kLogin7 = 0x10,
  kPrelogin = 0x12
};
enum : uint16_t { kDoneMore = 0x0001, kDoneError = 0x0002, kDoneCount = 0x0010, kDoneAttn = 0x0020 };
const size_t kPacketSize = 4096;

bool readAll(int fd, void* buf, size_t n) {
  char* p = static_cast<char*>(buf);
  while (n > 0) {
    ssize_t r = ::recv(fd, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool writeAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// Reads one whole message (all packets up to end-of-message).
bool readMessage(int fd, uint8_t& type, Bytes& payload) {
  payload.clear();
  for (;;) {
    unsigned char h[8];
    if (!readAll(fd, h, 8)) return false;
    type = h[0];
    size_t len = (static_cast<size_t>(h[2]) << 8) | h[3];
    if (len < 8) return false;
    Bytes part(len - 8, '\0');
    if (len > 8 && !readAll(fd, &part[0], len - 8)) return false;
    payload += part;
    if (h[1] & 0x01) return true;
  }
}

// Little-endian writers of a token stream.
struct Out {
  Bytes b;
  void u8(unsigned v) { b.push_back(static_cast<char>(v & 0xff)); }
  void u16(unsigned v) {
    u8(v);
    u8(v >> 8);
  }
  void u32(uint32_t v) {
    u16(v & 0xffff);
    u16(v >> 16);
  }
  void u64(uint64_t v) {
    u32(static_cast<uint32_t>(v));
    u32(static_cast<uint32_t>(v >> 32));
  }
  void raw(const Bytes& s) { b += s; }
};

// UTF-8 to UTF-16LE (surrogate pairs for characters beyond the BMP).
Bytes toUcs2(const std::string& s) {
  Bytes out;
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    uint32_t cp;
    size_t n;
    if (c < 0x80) {
      cp = c;
      n = 1;
    } else if ((c >> 5) == 6) {
      cp = c & 0x1f;
      n = 2;
    } else if ((c >> 4) == 14) {
      cp = c & 0x0f;
      n = 3;
    } else {
      cp = c & 0x07;
      n = 4;
    }
    for (size_t k = 1; k < n && i + k < s.size(); ++k)
      cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3f);
    i += n;
    auto put = [&out](uint32_t u) {
      out.push_back(static_cast<char>(u & 0xff));
      out.push_back(static_cast<char>(u >> 8));
    };
    if (cp >= 0x10000) {
      cp -= 0x10000;
      put(0xd800 + (cp >> 10));
      put(0xdc00 + (cp & 0x3ff));
    } else {
      put(cp);
    }
  }
  return out;
}

std::string fromUcs2(const char* p, size_t bytes) {
  std::string out;
  for (size_t i = 0; i + 1 < bytes; i += 2) {
    uint32_t cp = static_cast<unsigned char>(p[i]) | (static_cast<unsigned char>(p[i + 1]) << 8);
    if (cp >= 0xd800 && cp < 0xdc00 && i + 3 < bytes) {
      uint32_t lo = static_cast<unsigned char>(p[i + 2]) | (static_cast<unsigned char>(p[i + 3]) << 8);
      cp = 0x10000 + ((cp - 0xd800) << 10) + (lo - 0xdc00);
      i += 2;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xc0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xe0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    } else {
      out.push_back(static_cast<char>(0xf0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
    }
  }
  return out;
}

void bVarchar(Out& o, const std::string& s) {
  Bytes u = toUcs2(s);
  o.u8(static_cast<unsigned>(u.size() / 2));
  o.raw(u);
}

void usVarchar(Out& o, const std::string& s) {
  Bytes u = toUcs2(s);
  o.u16(static_cast<unsigned>(u.size() / 2));
  o.raw(u);
}

void done(Out& o, uint16_t status, uint16_t curcmd, uint64_t count) {
  o.u8(0xfd);
  o.u16(status);
  o.u16(curcmd);
  o.u64(count);
}

void message(Out& o, bool error, int number, int severity, const std::string& text) {
  Out body;
  body.u32(static_cast<uint32_t>(number));
  body.u8(1);
  body.u8(static_cast<unsigned>(severity));
  usVarchar(body, text);
  bVarchar(body, "tdstest");
  bVarchar(body, "");
  body.u32(1);
  o.u8(error ? 0xaa : 0xab);
  o.u16(static_cast<unsigned>(body.b.size()));
  o.raw(body.b);
}

void envChange(Out& o, unsigned type, const std::string& now, const std::string& before) {
  Out body;
  body.u8(type);
  bVarchar(body, now);
  bVarchar(body, before);
  o.u8(0xe3);
  o.u16(static_cast<unsigned>(body.b.size()));
  o.raw(body.b);
}

// Sends a token stream as reply packets.
bool sendReply(int fd, const Bytes& data, bool endOfMessage = true) {
  size_t off = 0;
  uint8_t id = 1;
  do {
    size_t chunk = std::min(kPacketSize - 8, data.size() - off);
    bool last = off + chunk == data.size();
    unsigned char h[8] = {kReply,
                          static_cast<unsigned char>(last && endOfMessage ? 1 : 0),
                          static_cast<unsigned char>((chunk + 8) >> 8),
                          static_cast<unsigned char>((chunk + 8) & 0xff),
                          0,
                          1,
                          id++,
                          0};
    if (!writeAll(fd, reinterpret_cast<char*>(h), 8) || !writeAll(fd, data.data() + off, chunk)) return false;
    off += chunk;
  } while (off < data.size());
  return true;
}

bool lowerStartsWith(const std::string& s, const char* prefix) {
  size_t n = std::strlen(prefix);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[i])) != prefix[i]) return false;
  return true;
}

std::string trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t\r\n");
  if (a == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(a, e - a + 1);
}

// Splits a batch on ';' outside quotes.
std::vector<std::string> splitStatements(const std::string& sql) {
  std::vector<std::string> out;
  std::string cur;
  char quote = 0;
  for (char c : sql) {
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else if (c == ';') {
      if (!trim(cur).empty()) out.push_back(trim(cur));
      cur.clear();
      continue;
    }
    cur.push_back(c);
  }
  if (!trim(cur).empty()) out.push_back(trim(cur));
  return out;
}

// The statement in SQLite's dialect. A name X..table refers to the sibling
// file X.db of the server's database file, attached as X on first use.
bool toSqlite(sqlite3* db, const std::string& dbPath, std::vector<std::string>& attached,
              const std::string& stmt, std::string& sql) {
  sybconn::DialectResult r = sybconn::rewriteSybaseToSqlite(stmt);
  sql = r.sql;
  const size_t slash = dbPath.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : dbPath.substr(0, slash);
  const std::string leaf = slash == std::string::npos ? dbPath : dbPath.substr(slash + 1);
  const std::string stem = leaf.substr(0, leaf.rfind('.'));
  for (const std::string& name : r.databases) {
    std::string lower;
    for (char c : name) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    if (name == stem || lower == "main" || lower == "temp") continue;
    bool known = false;
    for (const std::string& a : attached) known = known || a == name;
    if (known) continue;
    std::string attach = "attach database '" + dir + "/" + name + ".db' as \"" + name + "\"";
    if (sqlite3_exec(db, attach.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) return false;
    attached.push_back(name);
  }
  return true;
}

// Days since 1900-01-01 of a civil date.
long daysFrom1900(int y, int m, int d) {
  y -= m <= 2;
  long era = (y >= 0 ? y : y - 399) / 400;
  long yoe = y - era * 400;
  long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468 - (-25567);  // 1970-01-01 is day 25567
}

// "YYYY-MM-DD[ HH:MM:SS[.fff]]" or "YYYYMMDD HH:MM:SS[.fff]" to days and 1/300 s ticks.
bool parseDateText(const std::string& t, int32_t& days, uint32_t& ticks) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  char frac[16] = {0};
  int n = std::sscanf(t.c_str(), "%4d-%2d-%2d%*[ T]%2d:%2d:%2d.%9[0-9]", &y, &mo, &d, &h, &mi, &s, frac);
  if (n < 3) {
    frac[0] = 0;
    n = std::sscanf(t.c_str(), "%4d%2d%2d %2d:%2d:%2d.%9[0-9]", &y, &mo, &d, &h, &mi, &s, frac);
    if (n < 4) return false;
  }
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 59) return false;
  double ms = 0;
  if (frac[0]) ms = std::atof((std::string("0.") + frac).c_str()) * 1000.0;
  long long tick =
      (static_cast<long long>(h) * 3600 + mi * 60 + s) * 300 + static_cast<long long>(ms * 0.3 + 0.5);
  long dd = daysFrom1900(y, mo, d);
  if (tick >= 300LL * 86400) {
    tick -= 300LL * 86400;
    ++dd;
  }
  days = static_cast<int32_t>(dd);
  ticks = static_cast<uint32_t>(tick);
  return true;
}

enum class ColType { Int, Float, Date, Text };

ColType typeOf(sqlite3_stmt* st, int i) {
  const char* decl = sqlite3_column_decltype(st, i);
  std::string d;
  for (const char* p = decl ? decl : ""; *p; ++p) d.push_back(static_cast<char>(std::toupper(*p)));
  if (d.find("DATE") != std::string::npos || d.find("TIME") != std::string::npos) return ColType::Date;
  if (d.find("INT") != std::string::npos) return ColType::Int;
  if (d.find("REAL") != std::string::npos || d.find("FLOA") != std::string::npos ||
      d.find("DOUB") != std::string::npos)
    return ColType::Float;
  if (!d.empty()) return ColType::Text;
  switch (sqlite3_column_type(st, i)) {
    case SQLITE_INTEGER:
      return ColType::Int;
    case SQLITE_FLOAT:
      return ColType::Float;
    case SQLITE_TEXT: {
      int32_t days;
      uint32_t ticks;
      const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
      if (t && std::strlen(t) >= 10 && parseDateText(t, days, ticks)) return ColType::Date;
      return ColType::Text;
    }
    default:
      return ColType::Text;
  }
}

const unsigned char kCollation[5] = {0x09, 0x04, 0xd0, 0x00, 0x34};

void colMetadata(Out& o, sqlite3_stmt* st, const std::vector<ColType>& types) {
  o.u8(0x81);
  o.u16(static_cast<unsigned>(types.size()));
  for (size_t i = 0; i < types.size(); ++i) {
    o.u32(0);       // user type
    o.u16(0x0001);  // nullable
    switch (types[i]) {
      case ColType::Int:
        o.u8(0x26);
        o.u8(8);
        break;
      case ColType::Float:
        o.u8(0x6d);
        o.u8(8);
        break;
      case ColType::Date:
        o.u8(0x6f);
        o.u8(8);
        break;
      case ColType::Text:
        o.u8(0xe7);
        o.u16(8000);
        for (unsigned char c : kCollation) o.u8(c);
        break;
    }
    const char* name = sqlite3_column_name(st, static_cast<int>(i));
    bVarchar(o, name ? name : "");
  }
}

void rowValues(Out& o, sqlite3_stmt* st, const std::vector<ColType>& types) {
  o.u8(0xd1);
  for (size_t i = 0; i < types.size(); ++i) {
    int c = static_cast<int>(i);
    bool null = sqlite3_column_type(st, c) == SQLITE_NULL;
    switch (types[i]) {
      case ColType::Int:
        if (null) {
          o.u8(0);
        } else {
          o.u8(8);
          o.u64(static_cast<uint64_t>(sqlite3_column_int64(st, c)));
        }
        break;
      case ColType::Float:
        if (null) {
          o.u8(0);
        } else {
          double v = sqlite3_column_double(st, c);
          uint64_t bits;
          std::memcpy(&bits, &v, 8);
          o.u8(8);
          o.u64(bits);
        }
        break;
      case ColType::Date: {
        int32_t days = 0;
        uint32_t ticks = 0;
        const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
        if (null || !t || !parseDateText(t, days, ticks)) {
          o.u8(0);
        } else {
          o.u8(8);
          o.u32(static_cast<uint32_t>(days));
          o.u32(ticks);
        }
        break;
      }
      case ColType::Text:
        if (null) {
          o.u16(0xffff);
        } else {
          const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
          Bytes u = toUcs2(t ? t : "");
          if (u.size() > 8000) u.resize(8000);
          o.u16(static_cast<unsigned>(u.size()));
          o.raw(u);
        }
        break;
    }
  }
}

}  // namespace

TdsServer::TdsServer(std::string dbPath, std::string user, std::string password, Mode mode)
    : dbPath_(std::move(dbPath)), user_(std::move(user)), password_(std::move(password)), mode_(mode) {}

TdsServer::~TdsServer() { stop(); }

std::string TdsServer::address() const { return "127.0.0.1:" + std::to_string(port_); }

int TdsServer::start() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
  if (listenFd_ < 0) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof a;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(listenFd_, 16) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    ::close(listenFd_);
    listenFd_ = -1;
    return 0;
  }
  port_ = ntohs(a.sin_port);
  acceptThread_ = std::thread([this] { acceptLoop(); });
  return port_;
}

void TdsServer::stop() {
  if (stopping_.exchange(true)) return;
  if (listenFd_ >= 0) ::shutdown(listenFd_, SHUT_RDWR);
  if (acceptThread_.joinable()) acceptThread_.join();
  if (listenFd_ >= 0) ::close(listenFd_);
  listenFd_ = -1;
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : clients_) ::shutdown(fd, SHUT_RDWR);
    workers.swap(workers_);
  }
  for (auto& t : workers) t.join();
}

void TdsServer::acceptLoop() {
  while (!stopping_) {
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    int fd = ::accept(listenFd_, nullptr, nullptr);
    if (fd < 0) continue;
    // Replies go out in several writes; without this each command waits for
    // the client's delayed acknowledgement.
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::lock_guard<std::mutex> lock(mutex_);
    clients_.push_back(fd);
    workers_.emplace_back([this, fd] { serve(fd); });
  }
}

void TdsServer::serve(int fd) {
  auto finish = [this, fd] {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = clients_.begin(); it != clients_.end(); ++it)
      if (*it == fd) {
        clients_.erase(it);
        break;
      }
    ::close(fd);
  };
  if (mode_ == Mode::Silent) {
    char buf[512];
    while (!stopping_ && ::recv(fd, buf, sizeof buf, 0) > 0) {
    }
    finish();
    return;
  }
  sqlite3* db = nullptr;
  std::vector<std::string> attachedDbs;
  bool loggedIn = false;
  uint8_t type;
  Bytes msg;
  while (!stopping_ && readMessage(fd, type, msg)) {
    Out o;
    if (type == kLogin50 && !loggedIn) {
      serve50(fd, msg);
      break;
    }
    if (type == kPrelogin) {
      // VERSION, ENCRYPTION (not supported), INSTOPT, THREADID, MARS.
      const unsigned char opts[][2] = {{0, 6}, {1, 1}, {2, 1}, {3, 4}, {4, 1}};
      unsigned off = 5 * 5 + 1;
      for (auto& op : opts) {
        o.u8(op[0]);
        o.u8(off >> 8);
        o.u8(off & 0xff);
        o.u8(0);
        o.u8(op[1]);
        off += op[1];
      }
      o.u8(0xff);
      o.raw(Bytes("\x0c\x00\x07\xd0\x00\x00", 6));
      o.u8(0x02);
      o.u8(0);
      o.u32(0);
      o.u8(0);
    } else if (type == kLogin7) {
      auto field = [&msg](size_t pos) {
        if (msg.size() < pos + 4) return std::string();
        size_t off = static_cast<unsigned char>(msg[pos]) | (static_cast<unsigned char>(msg[pos + 1]) << 8);
        size_t n =
            (static_cast<unsigned char>(msg[pos + 2]) | (static_cast<unsigned char>(msg[pos + 3]) << 8)) * 2u;
        if (off + n > msg.size()) return std::string();
        return std::string(msg.data() + off, n);
      };
      std::string user = fromUcs2(field(40).data(), field(40).size());
      Bytes pw = field(44);
      for (char& c : pw) {
        unsigned char b = static_cast<unsigned char>(c) ^ 0xa5;
        c = static_cast<char>(((b & 0x0f) << 4) | (b >> 4));
      }
      std::string password = fromUcs2(pw.data(), pw.size());
      if (!user_.empty() && (user != user_ || password != password_)) {
        message(o, true, 18456, 14, "Login failed for user '" + user + "'.");
        done(o, kDoneError, 0, 0);
        sendReply(fd, o.b);
        break;
      }
      if (sqlite3_open(dbPath_.c_str(), &db) != SQLITE_OK) {
        message(o, true, 4060, 11, "Cannot open database");
        done(o, kDoneError, 0, 0);
        sendReply(fd, o.b);
        break;
      }
      sqlite3_busy_timeout(db, 2000);
      envChange(o, 1, "main", "master");
      message(o, false, 5701, 0, "Changed database context to 'main'.");
      envChange(o, 4, std::to_string(kPacketSize), "4096");
      Out ack;
      ack.u8(1);
      ack.raw(Bytes("\x74\x00\x00\x04", 4));
      bVarchar(ack, "tdstest");
      ack.u32(0x01000000);
      o.u8(0xad);
      o.u16(static_cast<unsigned>(ack.b.size()));
      o.raw(ack.b);
      done(o, 0, 0, 0);
      loggedIn = true;
      ++logins;
    } else if (type == kAttention) {
      done(o, kDoneAttn, 0, 0);
    } else if (type == kSqlBatch && loggedIn && mode_ == Mode::SilentAfterLogin) {
      continue;
    } else if (type == kSqlBatch && loggedIn) {
      size_t skip = 0;
      if (msg.size() >= 4)
        skip = static_cast<unsigned char>(msg[0]) | (static_cast<unsigned char>(msg[1]) << 8) |
               (static_cast<unsigned char>(msg[2]) << 16) |
               (static_cast<unsigned>(static_cast<unsigned char>(msg[3])) << 24);
      if (skip > msg.size()) skip = 0;
      std::string sql = fromUcs2(msg.data() + skip, msg.size() - skip);
      std::vector<std::string> stmts = splitStatements(sql);
      if (stmts.empty()) stmts.push_back("");
      bool dropped = false;
      for (size_t si = 0; si < stmts.size() && !dropped; ++si) {
        const std::string& s = stmts[si];
        uint16_t more = si + 1 < stmts.size() ? kDoneMore : 0;
        if (s.empty() || lowerStartsWith(s, "set ") || lowerStartsWith(s, "use ")) {
          done(o, more, 0, 0);
          continue;
        }
        std::string text;
        const bool attached = toSqlite(db, dbPath_, attachedDbs, s, text);
        if (lowerStartsWith(s, "select @@spid")) text = "select 1";
        sqlite3_stmt* st = nullptr;
        int rc = attached ? sqlite3_prepare_v2(db, text.c_str(), -1, &st, nullptr) : SQLITE_ERROR;
        if (rc != SQLITE_OK) {
          message(o, true, 102, 16, sqlite3_errmsg(db));
          done(o, static_cast<uint16_t>(more | kDoneError), 0, 0);
          continue;
        }
        int cols = sqlite3_column_count(st);
        rc = sqlite3_step(st);
        uint64_t rows = 0;
        bool failed = rc != SQLITE_ROW && rc != SQLITE_DONE;
        if (cols > 0 && !failed) {
          std::vector<ColType> types;
          for (int i = 0; i < cols; ++i) types.push_back(rc == SQLITE_ROW ? typeOf(st, i) : ColType::Text);
          colMetadata(o, st, types);
          while (rc == SQLITE_ROW) {
            rowValues(o, st, types);
            ++rows;
            if (mode_ == Mode::DropMidResult && rows > static_cast<uint64_t>(dropAfterRows)) {
              dropped = true;
              break;
            }
            rc = sqlite3_step(st);
          }
          failed = !dropped && rc != SQLITE_DONE;
        }
        if (failed) {
          message(o, true, 3621, 16, sqlite3_errmsg(db));
          done(o, static_cast<uint16_t>(more | kDoneError), 0, 0);
        } else if (!dropped) {
          uint64_t count = cols > 0 ? rows : static_cast<uint64_t>(sqlite3_changes(db));
          done(o, static_cast<uint16_t>(more | kDoneCount), cols > 0 ? 0xc1 : 0xc3, count);
        }
        sqlite3_finalize(st);
      }
      if (dropped) {
        // Part of the rows, then the connection goes.
        sendReply(fd, o.b.substr(0, o.b.size() - 3), false);
        break;
      }
    } else {
      message(o, true, 4002, 16, "Unexpected packet");
      done(o, kDoneError, 0, 0);
    }
    if (!sendReply(fd, o.b)) break;
  }
  if (db) sqlite3_close(db);
  finish();
}

}  // namespace tdstest

namespace tdstest {
namespace {

void done50(Out& o, uint16_t status, uint32_t count) {
  o.u8(0xfd);
  o.u16(status);
  o.u16(0);
  o.u32(count);
}

void eed(Out& o, int number, int severity, const std::string& text) {
  Out b;
  b.u32(static_cast<uint32_t>(number));
  b.u8(1);
  b.u8(static_cast<unsigned>(severity));
  b.u8(5);
  b.raw("ZZZZZ");
  b.u8(0);
  b.u16(0);
  b.u16(static_cast<unsigned>(text.size()));
  b.raw(text);
  b.u8(7);
  b.raw("tdstest");
  b.u8(0);
  b.u16(1);
  o.u8(0xe5);
  o.u16(static_cast<unsigned>(b.b.size()));
  o.raw(b.b);
}

void loginAck50(Out& o, bool ok) {
  o.u8(0xad);
  o.u16(1 + 4 + 1 + 7 + 4);
  o.u8(ok ? 5 : 6);
  o.raw(Bytes("\x05\x00\x00\x00", 4));
  o.u8(7);
  o.raw("tdstest");
  o.raw(Bytes("\x01\x00\x00\x00", 4));
}

void rowFormat50(Out& o, sqlite3_stmt* st, const std::vector<ColType>& types) {
  Out b;
  b.u16(static_cast<unsigned>(types.size()));
  for (size_t i = 0; i < types.size(); ++i) {
    const char* name = sqlite3_column_name(st, static_cast<int>(i));
    std::string n = name ? name : "";
    b.u8(static_cast<unsigned>(n.size()));
    b.raw(n);
    b.u8(0x20);  // nullable
    b.u32(0);
    switch (types[i]) {
      case ColType::Int:
        b.u8(0x26);
        b.u8(8);
        break;
      case ColType::Float:
        b.u8(0x6d);
        b.u8(8);
        break;
      case ColType::Date:
        b.u8(0x6f);
        b.u8(8);
        break;
      case ColType::Text:
        b.u8(0xaf);
        b.u32(32768);
        break;
    }
    b.u8(0);  // no locale
  }
  o.u8(0xee);
  o.u16(static_cast<unsigned>(b.b.size()));
  o.raw(b.b);
}

void row50(Out& o, sqlite3_stmt* st, const std::vector<ColType>& types) {
  o.u8(0xd1);
  for (size_t i = 0; i < types.size(); ++i) {
    int c = static_cast<int>(i);
    bool null = sqlite3_column_type(st, c) == SQLITE_NULL;
    switch (types[i]) {
      case ColType::Int:
        if (null) {
          o.u8(0);
        } else {
          o.u8(8);
          o.u64(static_cast<uint64_t>(sqlite3_column_int64(st, c)));
        }
        break;
      case ColType::Float:
        if (null) {
          o.u8(0);
        } else {
          double v = sqlite3_column_double(st, c);
          uint64_t bits;
          std::memcpy(&bits, &v, 8);
          o.u8(8);
          o.u64(bits);
        }
        break;
      case ColType::Date: {
        int32_t days = 0;
        uint32_t ticks = 0;
        const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
        if (null || !t || !parseDateText(t, days, ticks)) {
          o.u8(0);
        } else {
          o.u8(8);
          o.u32(static_cast<uint32_t>(days));
          o.u32(ticks);
        }
        break;
      }
      case ColType::Text: {
        if (null) {
          o.u32(0);
          break;
        }
        const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
        std::string v = t ? t : "";
        if (v.empty()) v = " ";  // an empty string travels as one blank
        if (v.size() > 32768) v.resize(32768);
        o.u32(static_cast<uint32_t>(v.size()));
        o.raw(v);
        break;
      }
    }
  }
}

bool sendReply50(int fd, const Bytes& data, bool endOfMessage = true) {
  size_t off = 0;
  do {
    size_t chunk = std::min(size_t{512} - 8, data.size() - off);
    bool last = off + chunk == data.size();
    unsigned char h[8] = {kReply,
                          static_cast<unsigned char>(last && endOfMessage ? 1 : 0),
                          static_cast<unsigned char>((chunk + 8) >> 8),
                          static_cast<unsigned char>((chunk + 8) & 0xff),
                          0,
                          0,
                          0,
                          0};
    if (!writeAll(fd, reinterpret_cast<char*>(h), 8) || !writeAll(fd, data.data() + off, chunk)) return false;
    off += chunk;
  } while (off < data.size());
  return true;
}

}  // namespace

void TdsServer::serve50(int fd, const std::string& login) {
  auto text = [&login](size_t at, size_t lenAt) {
    if (login.size() <= lenAt) return std::string();
    size_t n = std::min<size_t>(static_cast<unsigned char>(login[lenAt]), 30);
    return login.substr(at, n);
  };
  Out o;
  sqlite3* db = nullptr;
  if ((!user_.empty() && (text(31, 61) != user_ || text(62, 92) != password_)) ||
      sqlite3_open(dbPath_.c_str(), &db) != SQLITE_OK) {
    eed(o, 4002, 14, "Login failed.");
    loginAck50(o, false);
    done50(o, kDoneError, 0);
    sendReply50(fd, o.b);
    if (db) sqlite3_close(db);
    return;
  }
  sqlite3_busy_timeout(db, 2000);
  std::vector<std::string> attachedDbs;
  eed(o, 5701, 0, "Changed database context to 'main'.");
  loginAck50(o, true);
  done50(o, 0, 0);
  ++logins;
  sendReply50(fd, o.b);
  uint8_t type;
  Bytes msg;
  while (!stopping_ && readMessage(fd, type, msg)) {
    Out r;
    if (type == kAttention) {
      done50(r, kDoneAttn, 0);
      if (!sendReply50(fd, r.b)) break;
      continue;
    }
    if (type != kNormal50 || msg.size() < 6 || static_cast<unsigned char>(msg[0]) != 0x21) {
      eed(r, 4002, 16, "Unexpected packet");
      done50(r, kDoneError, 0);
      if (!sendReply50(fd, r.b)) break;
      continue;
    }
    if (mode_ == Mode::SilentAfterLogin) continue;
    std::vector<std::string> stmts = splitStatements(msg.substr(6));
    if (stmts.empty()) stmts.push_back("");
    bool dropped = false;
    for (size_t si = 0; si < stmts.size() && !dropped; ++si) {
      const std::string& s = stmts[si];
      uint16_t more = si + 1 < stmts.size() ? kDoneMore : 0;
      if (s.empty() || lowerStartsWith(s, "set ") || lowerStartsWith(s, "use ")) {
        done50(r, more, 0);
        continue;
      }
      if (lowerStartsWith(s, "select @@spid")) {
        // One INT column, as the client checks after its login.
        r.raw(Bytes("\xee\x0b\x00\x01\x00\x00\x00\x00\x00\x00\x00\x26\x04\x00", 14));
        r.raw(Bytes("\xd1\x04\x07\x00\x00\x00", 6));
        done50(r, static_cast<uint16_t>(more | kDoneCount), 1);
        continue;
      }
      std::string sql;
      sqlite3_stmt* st = nullptr;
      if (!toSqlite(db, dbPath_, attachedDbs, s, sql) ||
          sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        eed(r, 102, 16, sqlite3_errmsg(db));
        done50(r, static_cast<uint16_t>(more | kDoneError), 0);
        continue;
      }
      int cols = sqlite3_column_count(st);
      int rc = sqlite3_step(st);
      uint32_t rows = 0;
      bool failed = rc != SQLITE_ROW && rc != SQLITE_DONE;
      if (cols > 0 && !failed) {
        std::vector<ColType> types;
        for (int i = 0; i < cols; ++i) types.push_back(rc == SQLITE_ROW ? typeOf(st, i) : ColType::Text);
        rowFormat50(r, st, types);
        while (rc == SQLITE_ROW) {
          row50(r, st, types);
          ++rows;
          if (mode_ == Mode::DropMidResult && rows > static_cast<uint32_t>(dropAfterRows)) {
            dropped = true;
            break;
          }
          rc = sqlite3_step(st);
        }
        failed = !dropped && rc != SQLITE_DONE;
      }
      if (failed) {
        eed(r, 3621, 16, sqlite3_errmsg(db));
        done50(r, static_cast<uint16_t>(more | kDoneError), 0);
      } else if (!dropped) {
        done50(r, static_cast<uint16_t>(more | kDoneCount),
               cols > 0 ? rows : static_cast<uint32_t>(sqlite3_changes(db)));
      }
      sqlite3_finalize(st);
    }
    if (dropped) {
      sendReply50(fd, r.b.substr(0, r.b.size() - 3), false);
      break;
    }
    if (!sendReply50(fd, r.b)) break;
  }
  sqlite3_close(db);
}

}  // namespace tdstest
