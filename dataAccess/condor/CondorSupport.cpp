#include <daLog/Log.h>
#include <dataAccess/condor/CondorSupport.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace dataAccess {
namespace condor {

namespace {

std::string currentDirectory() {
  std::vector<char> buf(4096);
  while (::getcwd(buf.data(), buf.size()) == nullptr) {
    if (errno != ERANGE) return "/";
    buf.resize(buf.size() * 2);
  }
  return buf.data();
}

// Taken while the library is loaded, before the host program can chdir.
const bool g_captured = !initialWorkingDirectory().empty();

}  // namespace

const std::string& initialWorkingDirectory() {
  static const std::string dir = currentDirectory();
  (void)g_captured;
  return dir;
}

bool validPathName(const std::string& name) { return !name.empty() && name.find('\0') == std::string::npos; }

bool validFileName(const std::string& name) {
  if (!validPathName(name)) return false;
  const std::string leaf = leafName(name);
  return !leaf.empty() && leaf != "." && leaf != "..";
}

std::string completePath(const std::string& name) {
  if (!name.empty() && name[0] == '/') return name;
  const std::string& base = initialWorkingDirectory();
  return base == "/" ? "/" + name : base + "/" + name;
}

std::string leafName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string directoryName(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool pathExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

int openForWriting(const std::string& path, bool& existed) {
  // O_EXCL first: the common case of a new file costs no extra stat.
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  existed = fd < 0 && errno == EEXIST;
  if (existed) fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  return fd;
}

bool writeAndClose(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return ::close(fd) == 0 && done == text.size();
}

std::string shellWord(const std::string& word) {
  static const char plain[] = "_./+-,:=@%";
  bool quote = word.empty();
  for (const char c : word)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) &&
        std::strchr(plain, c) == nullptr)
      quote = true;
  if (!quote) return word;
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

int runSubmitCommand(const std::string& command, const std::string& file) {
  const std::string line = command + " " + shellWord(file);
  DA_LOG_DEBUG("Executing shell command: %s", line.c_str());
  return std::system(line.c_str());
}

}  // namespace condor
}  // namespace dataAccess
