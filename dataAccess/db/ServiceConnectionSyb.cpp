#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/SelectList.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <stcrypt/stcrypt.h>

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

#include <daLog/Log.h>

namespace ArcSys {

void SimpleErrorHandler(const SybaseStatus& s) {
  const int severity = s.msgno != 0 ? s.srvSeverity : s.dbLibSeverity;
  if (severity == 0) return;
  DA_LOG_ERROR("%s Error number: %d %s Severity: %d", s.srvname.c_str(), s.msgno != 0 ? s.msgno : s.dberr,
               s.msgno != 0 ? s.msgtext.c_str() : s.dberrstr.c_str(), severity);
}

}  // namespace ArcSys

namespace dataAccess {

void mapSelectList(const std::string& list, std::map<std::string, int>& fields) {
  int position = 1;
  std::string::size_type from = 0;
  for (;;) {
    // The name runs to the next comma; the runs between its blanks are
    // copied whole, not character by character (a select list of a DAO has
    // a dozen names of some thirty characters, per statement).
    const std::string::size_type comma = list.find(',', from);
    const std::string::size_type end = comma == std::string::npos ? list.size() : comma;
    std::string name;
    while (from < end) {
      std::string::size_type blank = list.find(' ', from);
      if (blank == std::string::npos || blank > end) blank = end;
      name.append(list, from, blank - from);
      from = blank + (blank < end ? 1 : 0);
    }
    fields.emplace(std::move(name), position);
    if (comma == std::string::npos) return;
    from = comma + 1;
    ++position;
  }
}

}  // namespace dataAccess

namespace {
const char kNoConnection[] = "KestFileDAOSyb::executeQuery. No connection available";
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string alias)
    : dbAlias_(std::move(alias)), transactionNumber_(0), conn_(nullptr) {
  readDBParameters();
}

ServiceConnectionSyb::ServiceConnectionSyb(std::string server, std::string user, std::string passwd,
                                           std::string dbName)
    : dbServer_(std::move(server)),
      dbName_(std::move(dbName)),
      dbUser_(std::move(user)),
      dbPasswd_(std::move(passwd)),
      transactionNumber_(0),
      conn_(nullptr) {
  SybaseConnection::setErrorHandler(&ArcSys::SimpleErrorHandler);
}

ServiceConnectionSyb::~ServiceConnectionSyb() {
  if (conn_ != nullptr) ConnectionPool::instance()->releaseConnection(conn_);
}

namespace {

// What identifies one version of a file: a rewrite changes the size, the
// modification or change time (nanoseconds) or, when the file is replaced,
// the inode.
struct FileStamp {
  bool present = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtim{0, 0};
  timespec ctim{0, 0};
};

bool sameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool operator==(const FileStamp& a, const FileStamp& b) {
  return a.present == b.present && a.dev == b.dev && a.ino == b.ino && a.size == b.size &&
         sameTime(a.mtim, b.mtim) && sameTime(a.ctim, b.ctim);
}

FileStamp stampOf(const std::string& path) {
  FileStamp s;
  struct stat st {};
  if (path.empty() || ::stat(path.c_str(), &st) != 0) return s;
  s.present = true;
  s.dev = st.st_dev;
  s.ino = st.st_ino;
  s.size = st.st_size;
  s.mtim = st.st_mtim;
  s.ctim = st.st_ctim;
  return s;
}

long long nanos(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec; }

// A line of the parameters file that can serve an alias: four or five fields,
// the first not starting with '#'.
struct ParameterLine {
  std::string field[5];
  int count = 0;
};

// One parameters file as read, the key file that deciphers its passwords,
// and the passwords deciphered so far.
struct ParsedParameters {
  FileStamp file;
  std::string keyPath;
  std::vector<ParameterLine> lines;
  std::map<std::string, std::string> clearPasswords;  // guarded by the cache's mutex
};

// Parameters files read so far, by path, shared by every thread. An entry
// serves while the file is unchanged and the same key file is named. The key
// file itself is not watched: a new key makes every enciphered text invalid,
// so the parameters file is written anew with it, and that change is seen. A
// file changed so recently that a further change could keep its time stamps
// is not kept (file times advance in clock ticks), so no change is missed.
class ParametersCache {
 public:
  static ParametersCache& instance() {
    static ParametersCache cache;
    return cache;
  }

  std::shared_ptr<ParsedParameters> find(const std::string& path, const FileStamp& file,
                                         const std::string& keyPath) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = files_.find(path);
    if (it == files_.end()) return nullptr;
    const ParsedParameters& p = *it->second;
    if (!(p.file == file) || p.keyPath != keyPath) {
      files_.erase(it);
      return nullptr;
    }
    return it->second;
  }

  void keep(const std::string& path, const std::shared_ptr<ParsedParameters>& parsed,
            const timespec& readAt) {
    const long long newest = std::max(nanos(parsed->file.mtim), nanos(parsed->file.ctim));
    if (nanos(readAt) - newest <= settledNanos()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = parsed;
  }

  bool clearPassword(ParsedParameters& p, const std::string& enciphered, std::string& clear) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = p.clearPasswords.find(enciphered);
    if (it == p.clearPasswords.end()) return false;
    clear = it->second;
    return true;
  }

  void keepClearPassword(ParsedParameters& p, const std::string& enciphered, const std::string& clear) {
    std::lock_guard<std::mutex> lock(mutex_);
    p.clearPasswords[enciphered] = clear;
  }

 private:
  // Twice the tick of the clock that stamps file times, and at least 20 ms.
  static long long settledNanos() {
    timespec res{0, 0};
    const long long tick = ::clock_getres(CLOCK_REALTIME_COARSE, &res) == 0 ? nanos(res) : 0;
    return std::max(2 * tick, 20000000LL);
  }

  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ParsedParameters>> files_;
};

}  // namespace

int ServiceConnectionSyb::readDBParameters() {
  const char* home = std::getenv("HOME");
  const std::string path = std::string(home ? home : "") + "/.dbrc";
  char keyPathBuffer[4096];
  const std::string keyPath = stkeyfile(keyPathBuffer, sizeof keyPathBuffer) == 0 ? keyPathBuffer : "";
  const FileStamp fileStamp = stampOf(path);
  ParametersCache& cache = ParametersCache::instance();
  std::shared_ptr<ParsedParameters> parsed = cache.find(path, fileStamp, keyPath);
  if (!parsed) {
    // Taken before the file is read: a change after the stamp was taken shows
    // in the next one.
    timespec readAt{0, 0};
    ::clock_gettime(CLOCK_REALTIME, &readAt);
    std::ifstream in(path.c_str());
    if (!in) {
      DA_LOG_ERROR("Could not open %s", path.c_str());
      return -1;
    }
    parsed = std::make_shared<ParsedParameters>();
    parsed->file = fileStamp;
    parsed->keyPath = keyPath;
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      ParameterLine entry;
      while (entry.count < 5 && (fields >> entry.field[entry.count])) ++entry.count;
      if (entry.count < 4 || entry.field[0][0] == '#') continue;
      parsed->lines.push_back(std::move(entry));
    }
    if (fileStamp.present) cache.keep(path, parsed, readAt);
  }
  dbName_.clear();
  dbUser_.clear();
  dbPasswd_.clear();
  for (const ParameterLine& entry : parsed->lines) {
    const std::string* f = entry.field;
    if (entry.count == 5) {
      if (f[4] != dbAlias_) continue;  // another service's entry
      dbServer_ = f[0];
      dbName_ = f[1];
      dbUser_ = f[2];
      dbPasswd_ = f[3];
      break;  // the first matching alias wins
    }
    // Four fields: a default entry; a later one, or an alias entry, replaces it.
    dbServer_ = f[0];
    dbName_ = f[1];
    dbUser_ = f[2];
    dbPasswd_ = f[3];
  }
  if (dbServer_.empty() || dbUser_.empty() || dbPasswd_.empty()) {
    DA_LOG_ERROR("Could not get all connection parameters");
    return -1;
  }
  std::string clearText;
  if (!cache.clearPassword(*parsed, dbPasswd_, clearText)) {
    char enciphered[STCRYPT_BUF_SIZE];
    char clear[STCRYPT_BUF_SIZE];
    // An over-long field is cut to the buffer instead of overrunning it; the
    // cipher then rejects it.
    std::strncpy(enciphered, dbPasswd_.c_str(), sizeof enciphered - 1);
    enciphered[sizeof enciphered - 1] = '\0';
    clear[0] = '\0';
    if (stdecrypt(enciphered, clear) != 0) {
      dbPasswd_ = clear;
      // Without the password no login can succeed; clearing the parameters
      // makes the later acquire() fail at once instead of at the server.
      dbServer_.clear();
      dbUser_.clear();
      DA_LOG_ERROR("Could not decipher the password for %s in %s", dbAlias_.c_str(), path.c_str());
      return -1;
    }
    clearText = clear;
    cache.keepClearPassword(*parsed, dbPasswd_, clearText);
  }
  dbPasswd_ = std::move(clearText);
  DA_LOG_DEBUG("Connection parameters successfully read");
  return 0;
}

int ServiceConnectionSyb::acquire() {
  if (conn_ != nullptr) return 0;
  conn_ = ConnectionPool::instance()->acquireConnection(dbServer_, dbUser_, dbPasswd_);
  if (conn_ == nullptr) {
    DA_LOG_ERROR("Could not establish a connection");
    return -1;
  }
  return 0;
}

int ServiceConnectionSyb::release() {
  if (conn_ == nullptr) return -1;
  if (ConnectionPool::instance()->releaseConnection(conn_) != 0) return -1;
  conn_ = nullptr;
  transactionNumber_ = 0;
  return 0;
}

ServiceConnectionSyb::ResultSet ServiceConnectionSyb::execute(std::string sql) const {
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return ResultSet();
  }
  DA_LOG_DEBUG("Sql Statement : %s", sql.c_str());
  return conn_->execute(sql);
}

namespace {

// The position of the first occurrence of `word` (upper case) in `text`,
// compared without regard to case; npos if none.
std::string::size_type findIgnoringCase(const std::string& text, const char* word) {
  const auto it = std::search(text.begin(), text.end(), word, word + std::strlen(word), [](char a, char b) {
    return std::toupper(static_cast<unsigned char>(a)) == static_cast<unsigned char>(b);
  });
  return it == text.end() ? std::string::npos : static_cast<std::string::size_type>(it - text.begin());
}

// True when the n-th blank-separated word of `text` (from 0) is `upper`,
// compared without regard to case. The n-th word is read no further than one
// character past the length of `upper`: a select list without blanks is one
// long word.
bool wordIs(const std::string& text, int n, const char* upper) {
  const size_t len = std::strlen(upper);
  const auto blank = [&text](std::string::size_type at) {
    return std::isspace(static_cast<unsigned char>(text[at])) != 0;
  };
  std::string::size_type pos = 0, end = 0;
  for (int i = 0; i <= n; ++i) {
    pos = end;
    while (pos < text.size() && blank(pos)) ++pos;
    end = pos;
    while (end < text.size() && !blank(end) && (i < n || end - pos <= len)) ++end;
  }
  if (end - pos != len) return false;
  for (size_t k = 0; k < len; ++k)
    if (std::toupper(static_cast<unsigned char>(text[pos + k])) != static_cast<unsigned char>(upper[k]))
      return false;
  return true;
}

}  // namespace

int ServiceConnectionSyb::executeSelect(std::string sql, ResultSet& res, ListOfFieldIndex& fields) const {
  int result = -1;
  std::string::size_type listStart;
  if (wordIs(sql, 1, "DISTINCT")) {
    listStart = findIgnoringCase(sql, "DISTINCT") + 8;
  } else if (wordIs(sql, 0, "SELECT")) {
    listStart = findIgnoringCase(sql, "SELECT") + 6;
  } else {
    return result;
  }
  res = execute(sql);
  if (res.commandSucceeded() != 1) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return result;
  }
  result = 0;
  std::string::size_type from = sql.find("from");
  if (from == std::string::npos) from = sql.find("FROM");
  if (from == std::string::npos || listStart >= from) return result;
  dataAccess::mapSelectList(sql.substr(listStart, from - listStart), fields);
  return result;
}

int ServiceConnectionSyb::beginTransaction() const {
  if (conn_ == nullptr) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ++transactionNumber_;
  ResultSet res = execute("begin Tran A" + std::to_string(transactionNumber_));
  return res.commandSucceeded() != 0 ? 0 : -1;
}

int ServiceConnectionSyb::commitTransaction() const {
  if (conn_ == nullptr || transactionNumber_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ResultSet res = execute("commit A" + std::to_string(transactionNumber_));
  if (res.commandSucceeded() == 0) return -1;
  --transactionNumber_;
  return 0;
}

int ServiceConnectionSyb::rollbackTransaction() const {
  if (conn_ == nullptr || transactionNumber_ == 0) {
    DA_LOG_ERROR("%s", kNoConnection);
    return -1;
  }
  ResultSet res = execute("rollback A" + std::to_string(transactionNumber_));
  if (res.commandSucceeded() == 0) return -1;
  --transactionNumber_;
  return 0;
}

long ServiceConnectionSyb::rowCount() const { return conn_ ? conn_->rowCount() : -1; }

std::string ServiceConnectionSyb::getStringValue(ResultSet& res, int col) const {
  return res.getStringValue(col);
}
std::string ServiceConnectionSyb::getDateStringValue(ResultSet& res, int col) const {
  return res.getStringValue(col);
}
timeval ServiceConnectionSyb::getDateTimevalValue(ResultSet& res, int col) const {
  return res.getDateAsTimevalValue(col);
}
double ServiceConnectionSyb::getDoubleValue(ResultSet& res, int col) const { return res.getDoubleValue(col); }
long ServiceConnectionSyb::getLongValue(ResultSet& res, int col) const { return res.getLongValue(col); }
