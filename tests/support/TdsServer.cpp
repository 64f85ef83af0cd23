#include "tests/support/TdsServer.h"

#include <arpa/inet.h>
#include <iconv.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

// Text between UTF-8 and UTF-16LE, as TDS 7 carries it.
std::string convert(const std::string& in, const char* to, const char* from) {
  std::string out(in.size() * 2 + 4, '\0');
  char* src = const_cast<char*>(in.data());
  char* dst = &out[0];
  size_t srcLeft = in.size(), dstLeft = out.size();
  iconv_t cd = iconv_open(to, from);
  iconv(cd, &src, &srcLeft, &dst, &dstLeft);
  iconv_close(cd);
  out.resize(out.size() - dstLeft);
  return out;
}
Bytes toUcs2(const std::string& s) { return convert(s, "UTF-16LE", "UTF-8"); }
std::string fromUcs2(const Bytes& u) { return convert(u, "UTF-8", "UTF-16LE"); }

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

std::string lower(const std::string& s) {
  std::string out;
  for (char c : s) out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return out;
}

bool lowerStartsWith(const std::string& s, const char* prefix) {
  return lower(s.substr(0, std::strlen(prefix))) == prefix;
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
  std::tm day{};
  day.tm_year = y - 1900;
  day.tm_mon = mo - 1;
  day.tm_mday = d;
  long dd = static_cast<long>(timegm(&day) / 86400) + 25567;  // 1970-01-01 is day 25567 after 1900-01-01
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

}  // namespace

// The token stream of one reply, in TDS 7.4 or 5.0 form.
class TdsServer::Wire {
 public:
  explicit Wire(bool tds5) : tds5_(tds5) {}
  Out o;

  // A server message: INFO / ERROR tokens under 7.4, an EED token under 5.0.
  void message(int number, int severity, const std::string& text) {
    Out b;
    b.u32(static_cast<uint32_t>(number));
    b.u8(1);
    b.u8(static_cast<unsigned>(severity));
    if (tds5_) {
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
    } else {
      usVarchar(b, text);
      bVarchar(b, "tdstest");
      bVarchar(b, "");
      b.u32(1);
    }
    token(tds5_ ? 0xe5 : severity > 10 ? 0xaa : 0xab, b);
  }

  void columns(sqlite3_stmt* st, const std::vector<ColType>& types) {
    Out b;
    b.u16(static_cast<unsigned>(types.size()));
    for (size_t i = 0; i < types.size(); ++i) {
      const char* n = sqlite3_column_name(st, static_cast<int>(i));
      const std::string name = n ? n : "";
      if (tds5_) {
        b.u8(static_cast<unsigned>(name.size()));
        b.raw(name);
        b.u8(0x20);  // nullable
        b.u32(0);
      } else {
        b.u32(0);       // user type
        b.u16(0x0001);  // nullable
      }
      const unsigned fixed[] = {0x26, 0x6d, 0x6f};  // INTN, FLTN, DATETIMN of 8 bytes
      if (types[i] != ColType::Text) {
        b.u8(fixed[static_cast<int>(types[i])]);
        b.u8(8);
      } else if (tds5_) {
        b.u8(0xaf);  // LONGCHAR
        b.u32(kMaxText5);
      } else {
        b.u8(0xe7);  // NVARCHAR
        b.u16(kMaxText7);
        b.raw(Bytes("\x09\x04\xd0\x00\x34", 5));  // collation
      }
      if (tds5_)
        b.u8(0);  // no locale
      else
        bVarchar(b, name);
    }
    if (tds5_) {
      token(0xee, b);
    } else {
      o.u8(0x81);
      o.raw(b.b);
    }
  }

  void row(sqlite3_stmt* st, const std::vector<ColType>& types) {
    o.u8(0xd1);
    for (size_t i = 0; i < types.size(); ++i) {
      const int c = static_cast<int>(i);
      const bool null = sqlite3_column_type(st, c) == SQLITE_NULL;
      const char* t = types[i] == ColType::Text || types[i] == ColType::Date
                          ? reinterpret_cast<const char*>(sqlite3_column_text(st, c))
                          : nullptr;
      int32_t days = 0;
      uint32_t ticks = 0;
      if (types[i] == ColType::Text) {
        text(null ? nullptr : t ? t : "");
      } else if (null || (types[i] == ColType::Date && !parseDateText(t ? t : "", days, ticks))) {
        o.u8(0);
      } else if (types[i] == ColType::Int) {
        o.u8(8);
        o.u64(static_cast<uint64_t>(sqlite3_column_int64(st, c)));
      } else if (types[i] == ColType::Float) {
        const double v = sqlite3_column_double(st, c);
        uint64_t bits;
        std::memcpy(&bits, &v, 8);
        o.u8(8);
        o.u64(bits);
      } else {
        o.u8(8);
        o.u32(static_cast<uint32_t>(days));
        o.u32(ticks);
      }
    }
  }

  void done(uint16_t status, bool select, uint64_t count) {
    o.u8(0xfd);
    o.u16(status);
    if (tds5_) {
      o.u16(0);
      o.u32(static_cast<uint32_t>(count));
    } else {
      o.u16(status & kDoneCount ? (select ? 0xc1 : 0xc3) : 0);
      o.u64(count);
    }
  }

  // Sends the stream as reply packets; without `endOfMessage` the last packet
  // leaves the reply open.
  bool send(int fd, const Bytes& data, bool endOfMessage = true) const {
    const size_t size = tds5_ ? 512 : kPacketSize;
    size_t off = 0;
    uint8_t id = 1;
    do {
      const size_t chunk = std::min(size - 8, data.size() - off);
      const bool last = off + chunk == data.size();
      const unsigned char h[8] = {kReply,
                                  static_cast<unsigned char>(last && endOfMessage ? 1 : 0),
                                  static_cast<unsigned char>((chunk + 8) >> 8),
                                  static_cast<unsigned char>((chunk + 8) & 0xff),
                                  0,
                                  static_cast<unsigned char>(tds5_ ? 0 : 1),
                                  static_cast<unsigned char>(tds5_ ? 0 : id++),
                                  0};
      if (!writeAll(fd, reinterpret_cast<const char*>(h), 8) || !writeAll(fd, data.data() + off, chunk))
        return false;
      off += chunk;
    } while (off < data.size());
    return true;
  }
  bool send(int fd) const { return send(fd, o.b); }

  void token(unsigned type, const Out& body) {
    o.u8(type);
    o.u16(static_cast<unsigned>(body.b.size()));
    o.raw(body.b);
  }

 private:
  static const unsigned kMaxText5 = 32768, kMaxText7 = 8000;

  // Text travels as UCS-2 under 7.4; under 5.0 as bytes, an empty string as
  // one blank, NULL as length 0.
  void text(const char* t) {
    if (tds5_) {
      std::string v = t ? t : "";
      if (t && v.empty()) v = " ";
      o.u32(static_cast<uint32_t>(v.size()));
      o.raw(v);
    } else if (!t) {
      o.u16(0xffff);
    } else {
      Bytes u = toUcs2(t);
      o.u16(static_cast<unsigned>(u.size()));
      o.raw(u);
    }
  }

  bool tds5_;
};

namespace {

std::vector<std::string> words(const std::string& s) {
  std::vector<std::string> out;
  size_t i = 0;
  while ((i = s.find_first_not_of(" \t\r\n", i)) != std::string::npos) {
    const size_t e = s.find_first_of(" \t\r\n", i);
    out.push_back(s.substr(i, e - i));
    i = e;
  }
  return out;
}

}  // namespace

// One client's database session: the SQLite file with its attached siblings
// and, under TDS 7.x, SQL Server's transaction state.
struct TdsServer::Session {
  sqlite3* db = nullptr;
  bool tds5 = false;
  std::vector<std::string> attached;
  int trancount = 0;
  std::string outerName;
  std::vector<std::string> savepoints;

  ~Session() {
    if (db) sqlite3_close(db);
  }

  // The statement in SQLite's dialect. A name X..table refers to the sibling
  // file X.db of the server's database file, attached as X on first use; the
  // server's own file answers to its name without extension.
  bool toSqlite(const std::string& dbPath, const std::string& stmt, std::string& sql) {
    const size_t slash = dbPath.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : dbPath.substr(0, slash);
    const std::string leaf = dbPath.substr(slash == std::string::npos ? 0 : slash + 1);
    sybconn::DialectResult r = sybconn::rewriteSybaseToSqlite(stmt, leaf.substr(0, leaf.rfind('.')));
    sql = r.sql;
    for (const std::string& name : r.databases) {
      if (lower(name) == "main" || lower(name) == "temp") continue;
      if (std::find(attached.begin(), attached.end(), name) != attached.end()) continue;
      const std::string attach = "attach database '" + dir + "/" + name + ".db' as \"" + name + "\"";
      if (sqlite3_exec(db, attach.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) return false;
      attached.push_back(name);
    }
    return true;
  }

  // SQL Server's BEGIN / SAVE / COMMIT / ROLLBACK TRAN and @@trancount. A
  // transaction name needs the TRAN keyword; ROLLBACK TRAN names the outermost
  // transaction or a savepoint. False when `stmt` is none of these.
  bool transaction(const std::string& stmt, TdsServer::Wire& w, uint16_t more) {
    const std::vector<std::string> wd = words(stmt);
    const std::string verb = lower(wd[0]);
    if (verb != "begin" && verb != "save" && verb != "commit" && verb != "rollback") return false;
    const bool tran = wd.size() > 1 && (lower(wd[1]) == "tran" || lower(wd[1]) == "transaction");
    if (verb == "begin" && !tran) return false;
    const std::string name = tran && wd.size() > 2 ? wd[2] : std::string();
    int error = 0;
    std::string text;
    auto run = [this, &error, &text](const std::string& sql) {
      if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return;
      error = 3621;
      text = sqlite3_errmsg(db);
    };
    if (wd.size() > (tran ? 3u : lower(wd.back()) == "work" ? 2u : 1u) || (verb == "save" && name.empty())) {
      error = 102;
      text = "Incorrect syntax near '" + wd.back() + "'.";
    } else if (verb == "begin") {
      if (trancount++ == 0) {
        outerName = name;
        run("begin");
      }
    } else if (trancount == 0) {
      error = verb == "save" ? 628 : verb == "commit" ? 3902 : 3903;
      text = verb == "save"
                 ? "Cannot issue SAVE TRANSACTION when there is no active transaction."
                 : "The " + upper(verb) + " TRANSACTION request has no corresponding BEGIN TRANSACTION.";
    } else if (verb == "save") {
      savepoints.push_back(name);
      run("savepoint \"" + name + "\"");
    } else if (verb == "commit" ? --trancount == 0 : name.empty() || name == outerName) {
      run(verb);
      trancount = 0;
      savepoints.clear();
    } else if (verb == "rollback") {
      auto it = std::find(savepoints.rbegin(), savepoints.rend(), name);
      if (it == savepoints.rend()) {
        error = 6401;
        text = "Cannot roll back " + name + ". No transaction or savepoint of that name was found.";
      } else {
        savepoints.erase(it.base(), savepoints.end());
        run("rollback to \"" + name + "\"");
      }
    }
    if (error) w.message(error, error == 102 ? 15 : 16, text);
    w.done(static_cast<uint16_t>(more | (error ? kDoneError : 0)), false, 0);
    return true;
  }

  static std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
  }
};

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
  uint8_t type = 0;
  Bytes msg;
  if (mode_ == Mode::Silent) {
    while (!stopping_ && ::recv(fd, &type, 1, 0) > 0) {
    }
  } else if (readMessage(fd, type, msg)) {
    Session s;
    s.tds5 = type == kLogin50;
    if (login(fd, type, msg, s)) {
      while (!stopping_ && readMessage(fd, type, msg) && command(fd, type, msg, s)) {
      }
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  clients_.erase(std::find(clients_.begin(), clients_.end(), fd));
  ::close(fd);
}

bool TdsServer::credentials(int fd, uint8_t type, Bytes msg, bool tds5, std::string& user,
                            std::string& password) {
  if (tds5) {
    auto field = [&msg](size_t at, size_t lenAt) {
      return msg.size() <= lenAt
                 ? std::string()
                 : msg.substr(at, std::min<size_t>(static_cast<unsigned char>(msg[lenAt]), 30));
    };
    user = field(31, 61);
    password = field(62, 92);
    return true;
  }
  if (type == kPrelogin) {
    // VERSION, ENCRYPTION (not supported), INSTOPT, THREADID, MARS: offsets
    // and lengths, then the values.
    Wire w(false);
    w.o.raw(
        Bytes("\x00\x00\x1a\x00\x06\x01\x00\x20\x00\x01\x02\x00\x21\x00\x01\x03\x00\x22\x00\x04"
              "\x04\x00\x26\x00\x01\xff\x0c\x00\x07\xd0\x00\x00\x02\x00\x00\x00\x00\x00\x00",
              39));
    if (!w.send(fd) || !readMessage(fd, type, msg)) return false;
  }
  if (type != kLogin7 || msg.size() < 8) return false;
  uint32_t version = 0;
  for (size_t k = 8; k-- > 4;) version = (version << 8) | static_cast<unsigned char>(msg[k]);
  tdsVersion = version;
  auto field = [&msg](size_t pos) {
    if (msg.size() < pos + 4) return Bytes();
    const size_t off = static_cast<unsigned char>(msg[pos]) | (static_cast<unsigned char>(msg[pos + 1]) << 8);
    const size_t n =
        (static_cast<unsigned char>(msg[pos + 2]) | (static_cast<unsigned char>(msg[pos + 3]) << 8)) * 2u;
    return off + n > msg.size() ? Bytes() : msg.substr(off, n);
  };
  Bytes pw = field(44);
  for (char& c : pw) {
    const unsigned char b = static_cast<unsigned char>(c) ^ 0xa5;
    c = static_cast<char>(((b & 0x0f) << 4) | (b >> 4));
  }
  user = fromUcs2(field(40));
  password = fromUcs2(pw);
  return true;
}

bool TdsServer::login(int fd, uint8_t type, const Bytes& msg, Session& s) {
  std::string user, password;
  if (!credentials(fd, type, msg, s.tds5, user, password)) return false;
  Wire w(s.tds5);
  const bool ok = (user_.empty() || (user == user_ && password == password_)) &&
                  sqlite3_open(dbPath_.c_str(), &s.db) == SQLITE_OK;
  if (ok) sqlite3_busy_timeout(s.db, 2000);
  if (s.tds5) {
    w.message(ok ? 5701 : 4002, ok ? 0 : 14, ok ? "Changed database context to 'main'." : "Login failed.");
    Out ack;
    ack.u8(ok ? 5 : 6);
    ack.raw(Bytes("\x05\x00\x00\x00\x07tdstest\x01\x00\x00\x00", 16));
    w.token(0xad, ack);
  } else if (!ok) {
    w.message(18456, 14, "Login failed for user '" + user + "'.");
  } else {
    Out db, size, ack;
    db.u8(1);
    size.u8(4);
    bVarchar(db, "main");
    bVarchar(db, "master");
    bVarchar(size, std::to_string(kPacketSize));
    bVarchar(size, "4096");
    w.token(0xe3, db);
    w.message(5701, 0, "Changed database context to 'main'.");
    w.token(0xe3, size);
    ack.u8(1);
    ack.raw(Bytes("\x74\x00\x00\x04", 4));
    bVarchar(ack, "tdstest");
    ack.u32(0x01000000);
    w.token(0xad, ack);
  }
  w.done(ok ? 0 : kDoneError, false, 0);
  if (ok) ++logins;
  return w.send(fd) && ok;
}

bool TdsServer::command(int fd, uint8_t type, const Bytes& msg, Session& s) {
  Wire w(s.tds5);
  std::string sql;
  if (type == kAttention) {
    w.done(kDoneAttn, false, 0);
    return w.send(fd);
  }
  if (s.tds5 && type == kNormal50 && msg.size() >= 6 && static_cast<unsigned char>(msg[0]) == 0x21) {
    sql = msg.substr(6);  // a language token: length and status first
  } else if (!s.tds5 && type == kSqlBatch && msg.size() >= 4) {
    // Skips the headers, whose total length comes first.
    size_t skip = 0;
    for (int k = 3; k >= 0; --k) skip = (skip << 8) | static_cast<unsigned char>(msg[static_cast<size_t>(k)]);
    if (skip > msg.size()) skip = 0;
    sql = fromUcs2(msg.substr(skip));
  } else {
    return false;
  }
  if (mode_ == Mode::SilentAfterLogin) return true;
  std::vector<std::string> stmts = splitStatements(sql);
  if (stmts.empty()) stmts.push_back("");
  for (size_t i = 0; i < stmts.size(); ++i) {
    if (!statement(stmts[i], i + 1 < stmts.size() ? kDoneMore : 0, w, s)) {
      // Part of the rows, cut inside the last one, then the connection goes.
      w.send(fd, w.o.b.substr(0, w.o.b.size() - 3), false);
      return false;
    }
  }
  return w.send(fd);
}

bool TdsServer::statement(const std::string& stmt, uint16_t more, Wire& w, Session& s) {
  if (stmt.empty() || lowerStartsWith(stmt, "set ") || lowerStartsWith(stmt, "use ")) {
    w.done(more, false, 0);
    return true;
  }
  if (!s.tds5 && s.transaction(stmt, w, more)) return true;
  std::string sql;
  if (lowerStartsWith(stmt, "select @@spid"))
    sql = "select 1";
  else if (lower(stmt) == "select @@trancount")
    sql = "select " + std::to_string(s.trancount);
  sqlite3_stmt* st = nullptr;
  if ((sql.empty() && !s.toSqlite(dbPath_, stmt, sql)) ||
      sqlite3_prepare_v2(s.db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    w.message(102, 16, sqlite3_errmsg(s.db));
    w.done(static_cast<uint16_t>(more | kDoneError), false, 0);
    return true;
  }
  const int cols = sqlite3_column_count(st);
  int rc = sqlite3_step(st);
  uint64_t rows = 0;
  if (cols > 0 && (rc == SQLITE_ROW || rc == SQLITE_DONE)) {
    std::vector<ColType> types;
    for (int i = 0; i < cols; ++i) types.push_back(rc == SQLITE_ROW ? typeOf(st, i) : ColType::Text);
    w.columns(st, types);
    for (; rc == SQLITE_ROW; rc = sqlite3_step(st)) {
      w.row(st, types);
      if (++rows > static_cast<uint64_t>(dropAfterRows) && mode_ == Mode::DropMidResult) {
        sqlite3_finalize(st);
        return false;
      }
    }
  }
  if (rc != SQLITE_DONE) {
    w.message(3621, 16, sqlite3_errmsg(s.db));
    w.done(static_cast<uint16_t>(more | kDoneError), false, 0);
  } else {
    w.done(static_cast<uint16_t>(more | kDoneCount), cols > 0,
           cols > 0 ? rows : static_cast<uint64_t>(sqlite3_changes(s.db)));
  }
  sqlite3_finalize(st);
  return true;
}

}  // namespace tdstest
