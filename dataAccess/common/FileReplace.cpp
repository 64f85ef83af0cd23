// Exclusive creation of a temporary beside the target, then rename.
#include <dataAccess/common/FileReplace.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace dataAccess {
namespace {

// Twelve random lowercase letters and digits: 62 bits, so a name that an
// attacker planted in advance is hit with negligible chance, and a retry on
// EEXIST settles the rest. libsodium's generator sets itself up on first use
// and cannot fail; O_EXCL alone would keep links out all the same.
std::string randomTag() {
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char bytes[12] = {};
  ::randombytes_buf(bytes, sizeof bytes);
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

// Renames `from` to `to`, telling whether something stood at `to`. Trying
// RENAME_NOREPLACE first answers that without a separate look-up (a stat of a
// missing name costs as much as the rest of a small file's write); a file
// system without it falls back to a look-up and a plain rename.
bool renameOver(const std::string& from, const std::string& to, bool& replaced) {
  replaced = false;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EEXIST) {
    replaced = true;
  } else if (errno == EINVAL || errno == ENOSYS) {
    struct stat st {};
    replaced = ::lstat(to.c_str(), &st) == 0;
  } else {
    return false;
  }
  return std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace

FileReplacement::FileReplacement(const std::string& path) : path_(path) {
  const std::string leaf = path.substr(path.rfind('/') + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") return;
  // A name taken by another writer is drawn again; any other failure (no
  // such folder, no right to write it) fails every attempt alike.
  for (int attempt = 0; attempt < 16 && fd_ < 0; ++attempt) {
    tmp_ = path + "." + randomTag() + ".tmp";
    // O_NOFOLLOW adds nothing to O_EXCL (which already refuses a link) but
    // states the intent.
    fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  }
}

FileReplacement::~FileReplacement() {
  if (fd_ < 0) return;
  ::close(fd_);
  ::unlink(tmp_.c_str());
}

FileReplace FileReplacement::commit(const std::string& text, bool* replaced) {
  if (fd_ < 0) return FileReplace::CannotCreate;
  const bool written = writeAll(fd_, text);
  const bool closed = ::close(fd_) == 0;
  fd_ = -1;
  bool existed = false;
  if (!closed || !written || !renameOver(tmp_, path_, existed)) {
    ::unlink(tmp_.c_str());
    return FileReplace::CannotWrite;
  }
  if (replaced) *replaced = existed;
  return FileReplace::Written;
}

FileReplace replaceFile(const std::string& path, const std::string& text, bool* replaced) {
  return FileReplacement(path).commit(text, replaced);
}

}  // namespace dataAccess
