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
// mode 0666 less the umask, like any file the process creates.
FileReplace replaceFile(const std::string& path, const std::string& text);

}  // namespace dataAccess

#endif
