#include "tests/support/TdsServer.h"

#include <iconv.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

#include "sybconn/drivers/Dialect.h"
#include "tests/support/ArchiveServer.h"

namespace tdstest {
namespace {

using Bytes = std::string;
using namespace std::string_literals;

// Packet types, and the status bits of a DONE token.
enum : uint8_t { kBatch7 = 1, kLogin5 = 2, kReply = 4, kAttention = 6, kNormal5 = 0x0f, kLogin7 = 0x10 };
enum : uint16_t { kDoneMore = 0x01, kDoneError = 0x02, kDoneCount = 0x10, kDoneAttn = 0x20 };

bool transfer(int fd, char* p, size_t n, bool in) {  // receives (`in`) or sends exactly `n` bytes
  for (ssize_t r = 0; n > 0; p += r, n -= static_cast<size_t>(r))
    if ((r = in ? ::recv(fd, p, n, 0) : ::send(fd, p, n, MSG_NOSIGNAL)) <= 0) return false;
  return true;
}

bool readMessage(int fd, uint8_t& type, Bytes& msg) {  // one client message: its packets to the last
  msg.clear();
  for (char h[8]; transfer(fd, h, 8, true);) {
    type = static_cast<uint8_t>(h[0]);
    const size_t len = static_cast<size_t>(static_cast<uint8_t>(h[2]) << 8 | static_cast<uint8_t>(h[3]));
    if (len < 8) return false;
    msg.resize(msg.size() + len - 8);
    if (!transfer(fd, &msg[msg.size() + 8 - len], len - 8, true)) return false;
    if (h[1] & 1) return true;
  }
  return false;
}

// `n` bytes of `v`, least significant first, and back.
Bytes le(uint64_t v, int n) { return n > 0 ? static_cast<char>(v & 0xff) + le(v >> 8, n - 1) : Bytes(); }
uint64_t get(const Bytes& b, size_t i, int n) { return n ? get(b, i + 1, n - 1) << 8 | (b[i] & 0xff) : 0; }

Bytes convert(const Bytes& in, bool toUtf16) {  // UTF-8 to UTF-16LE, TDS 7's form of text, or back
  Bytes out(in.size() * 2 + 4, '\0');
  char *src = const_cast<char*>(in.data()), *dst = &out[0];
  size_t srcLeft = in.size(), dstLeft = out.size();
  const iconv_t cd = toUtf16 ? iconv_open("UTF-16LE", "UTF-8") : iconv_open("UTF-8", "UTF-16LE");
  iconv(cd, &src, &srcLeft, &dst, &dstLeft);
  iconv_close(cd);
  out.resize(out.size() - dstLeft);
  return out;
}
Bytes var16(const Bytes& s, int width = 1) {  // UTF-16 after its length in characters, in `width` bytes
  const Bytes u = convert(s, true);
  return le(u.size() / 2, width) + u;
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The statements of a batch as a server finds them: each ends at ';' or where the next starts, at a top-level
// (outside '' literals, -- comments and parentheses) insert, update, delete, begin, commit, rollback, save or
// select, unless the word before binds it ("on delete", "union select", "or rollback"), or it is the select
// of an "insert ... select" or the verb after a leading "with". An empty batch is one blank statement.
std::vector<std::string> split(const std::string& sql) {
  const auto in = [](const auto& list, const auto& w) { return list.find(" " + w + " ") != list.npos; };
  const std::string wordChars = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_@#";
  const std::string starts = " insert update delete begin commit rollback save select ",
                    binding = " on of do or before after instead union all except intersect conflict ";
  std::vector<std::string> out;
  size_t from = 0, depth = 0;
  std::string first, previous;  // the current statement's first word, and the word before
  bool open = false;            // an insert waiting for its select, or a with for its verb
  const auto cut = [&](size_t at) {
    if (at > from && !first.empty()) out.push_back(sql.substr(from, at - from));
    from = at, first.clear();
  };
  for (size_t i = 0; i < sql.size(); ++i) {  // each branch leaves i on the last character it took
    const char c = sql[i];
    if (c == '\'') {  // '' inside is a quote
      for (++i; i < sql.size(); ++i)
        if (sql[i] == '\'' && !(i + 1 < sql.size() && sql[i + 1] == '\'' && ++i)) break;
      previous = "'";
    } else if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
      i = std::min(sql.find('\n', i), sql.size());
    } else if (c == '(' || c == ')') {
      depth = c == '(' ? depth + 1 : depth > 0 ? depth - 1 : 0;
      previous = c;
    } else if (c == ';' && depth == 0) {
      cut(i), from = i + 1, previous.clear();
    } else if (depth == 0 && wordChars.find(c) != std::string::npos) {  // words in parentheses start nothing
      const size_t end = std::min(sql.find_first_not_of(wordChars, i), sql.size());
      const std::string word = lower(sql.substr(i, end - i));
      const bool verb = in(starts, word) && !in(binding, previous);
      const bool cont = open && (word == "select" || first == "with");
      if (verb && !first.empty() && !cont) cut(i);
      if (first.empty())
        first = word, open = word == "insert" || word == "with";
      else if (verb || word == "values")
        open = cont && word == "insert";  // "with ... insert into t select"
      previous = word, i = end - 1;
    }
  }
  cut(sql.size());
  if (out.empty()) out.emplace_back();
  return out;
}

// "YYYY-MM-DD[ HH:MM:SS[.f]]" or "YYYYMMDD HH:MM:SS[.f]" as days since 1900 and 1/300 s ticks; "" if no date.
Bytes dateValue(const char* t) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0;
  double s = 0;
  if (std::sscanf(t, "%4d-%2d-%2d%*[ T]%2d:%2d:%lf", &y, &mo, &d, &h, &mi, &s) < 3 &&
      std::sscanf(t, "%4d%2d%2d %2d:%2d:%lf", &y, &mo, &d, &h, &mi, &s) < 4)
    return Bytes();
  std::tm day{};
  day.tm_year = y - 1900, day.tm_mon = mo - 1, day.tm_mday = d;
  const long long perDay = 300LL * 86400, days = timegm(&day) / 86400 + 25567;  // 1970-01-01 is day 25567
  const long long ticks = (h * 3600LL + mi * 60) * 300 + static_cast<long long>(s * 300 + 0.5);
  return le(static_cast<uint64_t>(days + ticks / perDay), 4) + le(static_cast<uint64_t>(ticks % perDay), 4);
}

enum class Col { Int, Float, Date, Text };

// Column types under 7.4 and 5.0: INTN, FLTN, DATETIMN of 8 bytes; NVARCHAR(4000) with collation, LONGCHAR.
const Bytes kTypeInfo[][2] = {{"\x26\x08"s, "\x26\x08"s},
                              {"\x6d\x08"s, "\x6d\x08"s},
                              {"\x6f\x08"s, "\x6f\x08"s},
                              {"\xe7\x40\x1f\x09\x04\xd0\x00\x34"s, "\xaf\x00\x80\x00\x00"s}};

Col typeOf(sqlite3_stmt* st, int i) {  // as sent: by declared type, else by the value in the first row
  const char* decl = sqlite3_column_decltype(st, i);
  const std::string d = lower(decl ? decl : "");
  const auto has = [&d](const char* word) { return d.find(word) != std::string::npos; };
  if (has("date") || has("time")) return Col::Date;
  if (has("int")) return Col::Int;
  if (has("real") || has("floa") || has("doub")) return Col::Float;
  const int t = d.empty() ? sqlite3_column_type(st, i) : SQLITE_NULL;
  if (t != SQLITE_TEXT) return t == SQLITE_INTEGER ? Col::Int : t == SQLITE_FLOAT ? Col::Float : Col::Text;
  const char* v = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
  return sqlite3_column_bytes(st, i) >= 10 && !dateValue(v).empty() ? Col::Date : Col::Text;
}

}  // namespace

// One client's session: its SQLite file, SQL Server's transaction state and the reply under way.
struct TdsServer::Session {
  TdsServer& server;
  const int fd;
  sqlite3* db = nullptr;
  bool tds5 = false;
  int trancount = 0;
  std::string outerName;
  std::set<std::string> attached;  // the sibling files attached so far
  Bytes out;

  Session(TdsServer& srv, int socket) : server(srv), fd(socket) {}
  ~Session() { sqlite3_close(db); }

  void token(unsigned type, const Bytes& body) { out += static_cast<char>(type) + le(body.size(), 2) + body; }

  void message(int number, int severity, const std::string& text) {  // 5.0: an EED token; 7.4: INFO or ERROR
    const Bytes head = le(static_cast<uint32_t>(number), 4) + '\x01' + static_cast<char>(severity);
    if (tds5)
      token(0xe5, head + "\x05ZZZZZ\x00\x00\x00"s + le(text.size(), 2) + text + "\x07tdstest\x00\x01\x00"s);
    else
      token(severity > 10 ? 0xaa : 0xab, head + var16(text, 2) + var16("tdstest") + "\x00\x01\x00\x00\x00"s);
  }

  // 5.0: name, nullable, user type, type, no locale; 7.4: user type, nullable, type, name.
  void columns(sqlite3_stmt* st, const std::vector<Col>& types) {
    Bytes b = le(types.size(), 2);
    for (size_t i = 0; i < types.size(); ++i) {
      const std::string name = sqlite3_column_name(st, static_cast<int>(i));
      const Bytes& info = kTypeInfo[static_cast<int>(types[i])][tds5];
      b += tds5 ? le(name.size(), 1) + name + "\x20\x00\x00\x00\x00"s + info + '\x00'
                : "\x00\x00\x00\x00\x01\x00"s + info + var16(name);
    }
    out += tds5 ? '\xee' + le(b.size(), 2) + b : '\x81' + b;
  }

  // Each value after its length; text as UTF-16 (NULL: length 0xffff) under 7.4, under 5.0 "" as " ".
  void row(sqlite3_stmt* st, const std::vector<Col>& types) {
    out += '\xd1';
    for (int c = 0; c < static_cast<int>(types.size()); ++c) {
      const Col type = types[c];
      const bool null = sqlite3_column_type(st, c) == SQLITE_NULL;
      const char* t = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
      const double f = sqlite3_column_double(st, c);  // sent as it lies in memory: little-endian
      const Bytes v = null                 ? ""
                      : type == Col::Text  ? (tds5 ? (*t ? t : " ") : convert(t, true))
                      : type == Col::Int   ? le(static_cast<uint64_t>(sqlite3_column_int64(st, c)), 8)
                      : type == Col::Float ? Bytes(reinterpret_cast<const char*>(&f), 8)
                                           : dateValue(t);
      const int width = type != Col::Text ? 1 : tds5 ? 4 : 2;
      out += (null && width == 2 ? "\xff\xff"s : le(v.size(), width)) + v;
    }
  }

  // Adds a DONE: its status and the current command (0) in two bytes each, then the row count. Returns true.
  bool done(unsigned status, uint64_t count = 0) {
    out += '\xfd' + le(status, 4) + le(count, tds5 ? 4 : 8);
    return true;
  }

  // Sends the reply in packets; `cut` drops its last 3 bytes and end. False when the connection is to end.
  bool send(bool cut = false) {
    const Bytes data = cut ? out.substr(0, out.size() - 3) : out;
    out.clear();
    for (size_t off = 0, n = 0; off < data.size(); off += n) {
      n = std::min<size_t>(4096 - 8, data.size() - off);
      const bool eom = !cut && off + n == data.size();
      const char h[] = {kReply, eom, static_cast<char>((n + 8) >> 8), static_cast<char>(n + 8), 0, 1, 0, 0};
      Bytes packet = Bytes(h, 8) + data.substr(off, n);
      if (!transfer(fd, &packet[0], packet.size(), false)) return false;
    }
    return !cut;
  }

  bool exec(const std::string& sql) { return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == 0; }

  void run() {  // answers until the client leaves or the server stops, then closes the connection
    uint8_t type = 0;
    Bytes msg;
    const bool silent = server.mode_ == Mode::Silent;  // answers nothing
    for (bool open = readMessage(fd, type, msg) && (silent || login(type, msg));
         open && !server.stopping_ && readMessage(fd, type, msg);) {
      std::this_thread::sleep_for(std::chrono::milliseconds(server.roundTripDelayMs.load()));  // none if 0
      open = silent || server.mode_ == Mode::SilentAfterLogin || batch(type, msg);
    }
    std::lock_guard<std::mutex> lock(server.mutex_);
    server.clients_.erase(std::find(server.clients_.begin(), server.clients_.end(), fd));
    ::close(fd);
  }

  bool login(uint8_t type, Bytes msg) {  // false when it failed
    tds5 = type == kLogin5;
    std::string user, password;
    if (tds5) {
      user = msg.substr(31, std::min<size_t>(get(msg, 61, 1), 30));  // 30-byte fields, length after each
      password = msg.substr(62, std::min<size_t>(get(msg, 92, 1), 30));
    } else {
      // PRELOGIN's answer: VERSION, ENCRYPTION (not supported), INSTOPT, THREADID, MARS, then their values.
      out =
          "\x00\x00\x1a\x00\x06\x01\x00\x20\x00\x01\x02\x00\x21\x00\x01\x03\x00\x22\x00\x04\x04"
          "\x00\x26\x00\x01\xff\x0c\x00\x07\xd0\x00\x00\x02\x00\x00\x00\x00\x00\x00"s;
      if (!send() || !readMessage(fd, type, msg) || type != kLogin7) return false;
      server.tdsVersion = static_cast<uint32_t>(get(msg, 4, 4));
      // Offset and length in characters, at `at` in the table of variable fields.
      auto field = [&msg](size_t at) { return msg.substr(get(msg, at, 2), get(msg, at + 2, 2) * 2); };
      Bytes pw = field(44);
      for (char& c : pw)  // each byte XOR 0xA5, its halves swapped: the same as swapped, XOR 0x5A
        c = static_cast<char>(((c & 0x0f) << 4 | (c & 0xf0) >> 4) ^ 0x5a);
      user = convert(field(40), false);
      password = convert(pw, false);
    }
    const bool ok = (server.user_.empty() || (user == server.user_ && password == server.password_)) &&
                    sqlite3_open(server.dbPath_.c_str(), &db) == SQLITE_OK && !sqlite3_busy_timeout(db, 2000);
    ok ? message(5701, 0, "Changed database context to 'main'.")
       : message(tds5 ? 4002 : 18456, 14, "Login failed for user '" + user + "'.");
    if (tds5 || ok)  // LOGINACK: 5.0 says there whether the login failed
      token(0xad, tds5 ? (ok ? "\x05"s : "\x06"s) + "\x05\x00\x00\x00\x07tdstest\x01\x00\x00\x00"s
                       : "\x01\x74\x00\x00\x04"s + var16("tdstest") + "\x00\x00\x00\x01"s);
    done(ok ? 0 : kDoneError);
    if (ok) ++server.logins;
    return send() && ok;
  }

  bool batch(uint8_t type, const Bytes& msg) {  // one client message; false when the connection is to end
    if (type == kAttention) return done(kDoneAttn) && send();
    // 5.0: a LANGUAGE token, its length and status before the text; 7.4: the text after the headers.
    if (tds5 ? type != kNormal5 || msg[0] != '\x21' : type != kBatch7) return false;
    const auto stmts = split(tds5 ? msg.substr(6) : convert(msg.substr(get(msg, 0, 4)), false));
    const size_t n = server.mode_ == Mode::FirstOnly ? 1 : stmts.size();
    for (size_t i = 0; i < n; ++i)
      if (!statement(stmts[i], i + 1 < n ? kDoneMore : 0)) return send(true);
    return send();
  }

  bool statement(const std::string& stmt, unsigned more) {  // false when the connection is to drop
    const size_t at = stmt.find_first_not_of(" \t\r\n");
    if (at == std::string::npos) return done(more);
    if (!tds5 && transaction(stmt, more)) return true;
    const bool echo = server.mode_ == Mode::EchoInserts && lower(stmt.substr(at, 6)) == "insert";
    const bool level = lower(stmt).find("@@trancount") != std::string::npos;
    const std::string sql =
        level ? "select " + std::to_string(trancount) : toSqlite(stmt) + (echo ? " returning *" : "");
    sqlite3_stmt* st = nullptr;
    const bool ready = sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK;
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> finalize(st, &sqlite3_finalize);
    const int cols = sqlite3_column_count(st);
    int rows = 0, rc = ready ? sqlite3_step(st) : SQLITE_ERROR;
    if (cols > 0 && (rc == SQLITE_ROW || rc == SQLITE_DONE)) {
      std::vector<Col> types;
      for (int i = 0; i < cols; ++i) types.push_back(rc == SQLITE_ROW ? typeOf(st, i) : Col::Text);
      columns(st, types);
      for (; rc == SQLITE_ROW; rc = sqlite3_step(st)) {
        row(st, types);
        if (++rows > server.dropAfterRows && server.mode_ == Mode::DropMidResult) return false;
      }
    }
    if (rc == SQLITE_DONE) return done(more | kDoneCount, cols > 0 ? rows : sqlite3_changes(db));
    if (server.mode_ != Mode::QuietRefusal) message(102, 16, sqlite3_errmsg(db));
    return done(more | kDoneError);
  }

  // In SQLite dialect: X..table is in the sibling file X.db (attached once, as X), or in main if X is ours.
  std::string toSqlite(const std::string& stmt) {
    if (!sybconn::mayNeedRewrite(stmt)) return stmt;
    const std::filesystem::path path(server.dbPath_);
    auto r = sybconn::rewriteSybase(stmt, sybconn::DialectTarget::Sqlite, path.stem());
    for (const std::string& name : r.databases)
      if (attached.insert(name).second)
        exec("attach database '" + (path.parent_path() / name).string() + ".db' as \"" + name + "\"");
    return std::move(r.sql);
  }

  // SQL Server's BEGIN / SAVE / COMMIT / ROLLBACK TRAN [name]: ROLLBACK TRAN names the outermost transaction
  // or a savepoint. False when `stmt` is none of these statements.
  bool transaction(const std::string& stmt, unsigned more) {
    std::istringstream in(stmt);
    const std::vector<std::string> wd{std::istream_iterator<std::string>(in), {}};
    const std::string verb = lower(wd[0]);
    const bool tran = wd.size() > 1 && (lower(wd[1]) == "tran" || lower(wd[1]) == "transaction");
    if (verb != "save" && verb != "commit" && verb != "rollback" && !(verb == "begin" && tran)) return false;
    const std::string name = tran && wd.size() > 2 ? wd[2] : "";
    std::string sql;
    if (verb == "begin" && trancount++ == 0)
      outerName = name, sql = "begin";
    else if (verb == "save" || (verb == "rollback" && !name.empty() && name != outerName))
      sql = (verb == "save" ? "savepoint \"" : "rollback to \"") + name + "\"";
    else if (verb == "commit" && trancount > 1)
      --trancount;
    else if (verb != "begin")
      trancount = 0, sql = verb;
    const bool ok = sql.empty() || exec(sql);
    if (!ok) message(3621, 16, sqlite3_errmsg(db));
    return done(more | (ok ? 0 : kDoneError));
  }
};

int TdsServer::start() {
  listenFd_ = archivetest::listenLoopback(16, port_);
  acceptThread_ = std::thread([this] {
    while (!stopping_) {
      const int fd = ::accept(listenFd_, nullptr, nullptr);
      if (fd < 0) continue;
      int one = 1;  // a reply goes out in several writes: none may wait for the client's delayed ACK
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::lock_guard<std::mutex> lock(mutex_);
      clients_.push_back(fd);
      workers_.emplace_back([this, fd] { Session(*this, fd).run(); });
    }
  });
  return port_;
}

void TdsServer::stop() {
  if (stopping_.exchange(true)) return;
  ::shutdown(listenFd_, SHUT_RDWR);  // ends the accept under way
  if (acceptThread_.joinable()) acceptThread_.join();
  ::close(listenFd_);
  std::unique_lock<std::mutex> lock(mutex_);
  for (int fd : clients_) ::shutdown(fd, SHUT_RDWR);
  lock.unlock();
  for (auto& t : workers_) t.join();  // no more are added once the accept thread is gone
}

}  // namespace tdstest
