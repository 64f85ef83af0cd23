#ifndef DATAACCESS_COMMON_FILEREPLACE_H
#define DATAACCESS_COMMON_FILEREPLACE_H

// Writing a whole file into a folder that other processes (and users) can
// write to. Thread safety: safe to call from several threads at once, also
// for the same path (the last rename wins; no reader sees a partial file).

#include <string>

namespace dataAccess {

enum class FileReplace {
  Written,       // `path` now holds the text
  CannotCreate,  // no temporary could be created next to `path` (folder missing, no right)
  CannotWrite,   // writing or renaming failed; nothing was left behind
};

// Writes `text` under a fresh temporary name in the folder of `path` and
// renames it to `path`. The temporary, "<path>.<random>.tmp", is created with
// O_CREAT | O_EXCL, so a link or file planted under a predictable name is
// never opened, let alone written through; the rename then replaces whatever
// stands at `path` (a link included) instead of following it. A watcher of
// the folder sees either the old file or the whole new one. The file gets
// mode 0666 less the umask, like any file the process creates. A path whose
// last component is empty, "." or ".." names a folder: CannotCreate, and
// nothing is created.
// When `replaced` is given, it tells whether something stood at `path` before
// (found by the rename itself, at no extra cost).
FileReplace replaceFile(const std::string& path, const std::string& text, bool* replaced = nullptr);

// replaceFile in two steps, for a writer that must know the file can be
// created before it writes anything else: the constructor creates the
// temporary, commit() writes and renames it. A temporary not committed is
// removed by the destructor. One object belongs to one thread.
class FileReplacement {
 public:
  explicit FileReplacement(const std::string& path);
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  bool created() const { return fd_ >= 0; }
  // Writes `text` and renames the temporary to the path; CannotCreate when
  // the temporary was not created (or was committed already).
  FileReplace commit(const std::string& text, bool* replaced = nullptr);

 private:
  std::string path_;
  std::string tmp_;
  int fd_ = -1;
};

}  // namespace dataAccess

#endif
