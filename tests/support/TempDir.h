#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <string>
#include <utility>

namespace testsupport {

// A fresh folder under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  explicit TempDir(std::string existing) : path_(std::move(existing)) {}  // adopts a folder made earlier
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  void keep() { path_.clear(); }  // the folder outlives the object
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& content, int mode = 0644) const;
  // Overwrites `length` bytes of file(name) from `offset` with 0xFF bytes: a damaged file.
  void scribble(const std::string& name, long offset, long length) const;
  std::string sealHome(const std::string& password) const;  // $HOME here, a new key; password sealed in it

 private:
  std::string path_;
};

std::string readFile(const std::string& path);  // the whole file; "" when it cannot be read
long openFdCount();                             // descriptors this process holds open
long threadCount();                             // threads this process runs

}  // namespace testsupport

#endif
