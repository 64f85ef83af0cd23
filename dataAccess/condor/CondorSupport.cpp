#include <daLog/Log.h>
#include <dataAccess/condor/CondorSupport.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace dataAccess {
namespace condor {

namespace {

// "/" when the folder cannot be named (it was removed, or is out of reach).
std::string currentDirectory() {
  std::error_code ec;
  std::filesystem::path here = std::filesystem::current_path(ec);
  return ec ? "/" : here.string();
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

bool fileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int reportSave(const std::string& path, FileReplace result, const char* kind) {
  switch (result) {
    case FileReplace::Written:
      return 0;
    case FileReplace::CannotCreate:
      DA_LOG_ERROR("Can't open condor %s file %s for writing", kind, path.c_str());
      break;
    case FileReplace::CannotWrite:
      DA_LOG_ERROR("Can't write condor %s file %s", kind, path.c_str());
      break;
  }
  return -1;
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

int runSubmitCommand(const std::string& command, const std::string& file, const std::string& dir) {
  const std::string line =
      (dir.empty() ? "" : "cd " + shellWord(dir) + " && ") + command + " " + shellWord(file);
  DA_LOG_DEBUG("Executing shell command: %s", line.c_str());
  return std::system(line.c_str());
}

}  // namespace condor
}  // namespace dataAccess
