#include <dataAccess/db/ParametersFile.h>
#include <stcrypt/stcrypt.h>

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include <daLog/Log.h>

namespace dataAccess {

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

// One parameters file as read, the key file that deciphers its passwords,
// and the passwords deciphered so far.
struct ParsedParameters {
  FileStamp file;
  std::string keyPath;
  std::vector<ParameterLine> lines;
  std::map<std::string, std::string> clearPasswords;  // guarded by the cache's mutex
  long long checkedAt = 0;  // monotonic time of the last stamp that matched; guarded by the cache's mutex
};

long long monotonicNanos() {
  timespec t{0, 0};
  ::clock_gettime(CLOCK_MONOTONIC, &t);
  return nanos(t);
}

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

  // The entry of `path` for `keyPath` when its file was found unchanged less
  // than kParametersRecheckMs ago (monotonic `now`), else null.
  std::shared_ptr<ParsedParameters> recent(const std::string& path, const std::string& keyPath,
                                           long long now) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = files_.find(path);
    if (it == files_.end() || it->second->keyPath != keyPath ||
        now - it->second->checkedAt >= kParametersRecheckMs * 1000000LL)
      return nullptr;
    return it->second;
  }

  // The entry of `path` when `file`, stamped at monotonic time `checkedAt`,
  // is the version it was read from under the same key file; else the entry
  // is dropped and null returned.
  std::shared_ptr<ParsedParameters> find(const std::string& path, const FileStamp& file,
                                         const std::string& keyPath, long long checkedAt) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = files_.find(path);
    if (it == files_.end()) return nullptr;
    ParsedParameters& p = *it->second;
    if (!(p.file == file) || p.keyPath != keyPath) {
      files_.erase(it);
      return nullptr;
    }
    p.checkedAt = std::max(p.checkedAt, checkedAt);
    return it->second;
  }

  void keep(const std::string& path, const std::shared_ptr<ParsedParameters>& parsed, const timespec& readAt,
            long long checkedAt) {
    const long long newest = std::max(nanos(parsed->file.mtim), nanos(parsed->file.ctim));
    if (nanos(readAt) - newest <= settledNanos()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    parsed->checkedAt = checkedAt;
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

long readParameterLines(std::istream& in, std::vector<ParameterLine>& lines) {
  // Each line is read in bulk into a buffer of the bound: a longer line stops
  // the read before it is held whole.
  std::string buffer(kMaxParameterLine + 1, '\0');
  long number = 0;
  for (;;) {
    in.getline(&buffer[0], static_cast<std::streamsize>(buffer.size()));
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got == 0 && in.fail()) return 0;  // nothing left
    ++number;
    if (in.fail() && !in.eof()) return number;  // the bound reached before a line feed
    const std::string_view line(buffer.data(), in.eof() ? got : got - 1);
    ParameterLine entry;
    std::size_t pos = 0;
    while (entry.count < 5) {
      const auto isBlank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
      while (pos < line.size() && isBlank(line[pos])) ++pos;
      if (pos == line.size()) break;
      const std::size_t fieldEnd = std::find_if(line.begin() + pos, line.end(), isBlank) - line.begin();
      entry.field[entry.count++] = line.substr(pos, fieldEnd - pos);
      pos = fieldEnd;
    }
    if (entry.count >= 4 && entry.field[0][0] != '#') lines.push_back(std::move(entry));
    if (in.eof()) return 0;
  }
}

const ParameterLine* findParameterLine(const std::vector<ParameterLine>& lines, const std::string& alias) {
  const ParameterLine* found = nullptr;
  for (const ParameterLine& entry : lines) {
    if (entry.count == 4) {
      found = &entry;  // a default entry; a later one, or an alias entry, replaces it
    } else if (entry.field[4] == alias) {
      return &entry;  // the first matching alias wins
    }
  }
  return found;
}

int readServiceParameters(const std::string& alias, ServiceParameters& out) {
  out = ServiceParameters();
  const char* home = std::getenv("HOME");
  const std::string path = std::string(home ? home : "") + "/.dbrc";
  char keyPathBuffer[4096];
  const std::string keyPath = stkeyfile(keyPathBuffer, sizeof keyPathBuffer) == 0 ? keyPathBuffer : "";
  ParametersCache& cache = ParametersCache::instance();
  // Taken before the file is stamped: the stamp holds at least from then on.
  const long long checkedAt = monotonicNanos();
  std::shared_ptr<ParsedParameters> parsed = cache.recent(path, keyPath, checkedAt);
  FileStamp fileStamp;
  if (!parsed) {
    fileStamp = stampOf(path);
    parsed = cache.find(path, fileStamp, keyPath, checkedAt);
  }
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
    if (const long tooLong = readParameterLines(in, parsed->lines)) {
      DA_LOG_ERROR("Could not read %s: line %ld is longer than %zu characters", path.c_str(), tooLong,
                   kMaxParameterLine);
      return -1;
    }
    if (fileStamp.present) cache.keep(path, parsed, readAt, checkedAt);
  }
  const ParameterLine* entry = findParameterLine(parsed->lines, alias);
  if (entry == nullptr) {
    DA_LOG_ERROR("Could not get all connection parameters");
    return -1;
  }
  const std::string& enciphered = entry->field[3];
  std::string clearText;
  if (!cache.clearPassword(*parsed, enciphered, clearText)) {
    char sealed[STCRYPT_BUF_SIZE];
    char clear[STCRYPT_BUF_SIZE];
    // An over-long field is cut to the buffer instead of overrunning it; the
    // cipher then rejects it.
    std::strncpy(sealed, enciphered.c_str(), sizeof sealed - 1);
    sealed[sizeof sealed - 1] = '\0';
    clear[0] = '\0';
    if (stdecrypt(sealed, clear) != 0) {
      // Without the password no login can succeed; leaving the parameters
      // empty makes the later acquire() fail at once instead of at the server.
      DA_LOG_ERROR("Could not decipher the password for %s in %s", alias.c_str(), path.c_str());
      return -1;
    }
    clearText = clear;
    cache.keepClearPassword(*parsed, enciphered, clearText);
  }
  out.server = entry->field[0];
  out.database = entry->field[1];
  out.user = entry->field[2];
  out.password = std::move(clearText);
  DA_LOG_DEBUG("Connection parameters successfully read");
  return 0;
}

}  // namespace dataAccess
