#include "tests/support/TempDir.h"

#include <stcrypt/stcrypt.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir() : path_((std::filesystem::temp_directory_path() / "da-test-XXXXXX").string()) {
  // No test writes near 1 GiB: a write loop gone wrong ends by SIGXFSZ instead of filling the disk.
  static const rlimit limit{1L << 30, 1L << 30};
  [[maybe_unused]] static const int bounded = ::setrlimit(RLIMIT_FSIZE, &limit);
  if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed for " + path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

std::string TempDir::write(const std::string& name, const std::string& content, int mode) const {
  const std::string p = file(name);
  std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
  ::chmod(p.c_str(), static_cast<mode_t>(mode));
  return p;
}

void TempDir::scribble(const std::string& name, long offset, long length) const {
  std::fstream io(file(name), std::ios::binary | std::ios::in | std::ios::out);
  io.seekp(offset).write(std::string(static_cast<size_t>(length), '\xff').data(), length);
}

std::string readFile(const std::string& path) {
  return std::string(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}

long openFdCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
long threadCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); }

std::string TempDir::sealHome(const std::string& password) const {
  setenv("HOME", path_.c_str(), 1);
  setenv("STCRYPT_KEY_FILE", file("key").c_str(), 1);
  char sealed[STCRYPT_BUF_SIZE] = "";
  if (stcreatekey(file("key").c_str()) != 0 || stencrypt(password.c_str(), sealed) != 0)
    throw std::runtime_error("cannot seal a password under " + file("key"));
  return sealed;
}

}  // namespace testsupport
