// Exclusive creation of a temporary beside the target, then rename.
#include <dataAccess/common/FileReplace.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace dataAccess {
namespace {

// Twelve random lowercase letters and digits: 62 bits, so a name that an
// attacker planted in advance is hit with negligible chance, and a retry on
// EEXIST settles the rest. A request of at most 256 bytes is answered whole
// and never interrupted; should getrandom fail all the same, the tag is
// predictable but still safe, since O_EXCL alone keeps links out.
std::string randomTag() {
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char bytes[12] = {};
  (void)::getrandom(bytes, sizeof bytes, 0);
  std::string tag;
  for (const unsigned char b : bytes) tag += alphabet[b % (sizeof alphabet - 1)];
  return tag;
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

FileReplacement::FileReplacement(const std::string& path) : path_(path) {
  const std::string leaf = path.substr(path.rfind('/') + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") return;
  for (int attempt = 0; attempt < 16 && fd_ < 0; ++attempt) {
    tmp_ = path + "." + randomTag() + ".tmp";
    // O_NOFOLLOW adds nothing to O_EXCL (which already refuses a link) but
    // states the intent.
    fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd_ < 0 && errno != EEXIST) break;
  }
}

FileReplacement::~FileReplacement() {
  if (fd_ < 0) return;
  ::close(fd_);
  ::unlink(tmp_.c_str());
}

FileReplace FileReplacement::commit(const std::string& text) {
  if (fd_ < 0) return FileReplace::CannotCreate;
  const bool written = writeAll(fd_, text);
  const bool closed = ::close(fd_) == 0;
  fd_ = -1;
  if (!closed || !written || std::rename(tmp_.c_str(), path_.c_str()) != 0) {
    ::unlink(tmp_.c_str());
    return FileReplace::CannotWrite;
  }
  return FileReplace::Written;
}

FileReplace replaceFile(const std::string& path, const std::string& text) {
  return FileReplacement(path).commit(text);
}

}  // namespace dataAccess
