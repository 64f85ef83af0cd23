#include "tests/support/TempDir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace testsupport {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/da-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed for " + tmpl);
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string TempDir::write(const std::string& name, const std::string& content, int mode) const {
  std::string p = file(name);
  {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
  }
  ::chmod(p.c_str(), static_cast<mode_t>(mode));
  return p;
}

void TempDir::scribble(const std::string& name, long offset, long length) const {
  std::fstream io(file(name), std::ios::binary | std::ios::in | std::ios::out);
  io.seekp(offset);
  const std::string garbage(static_cast<size_t>(length), '\xff');
  io.write(garbage.data(), length);
}

}  // namespace testsupport
