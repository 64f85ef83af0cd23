#ifndef DATAACCESS_CONDOR_CONDORSUPPORT_H
#define DATAACCESS_CONDOR_CONDORSUPPORT_H

// Pieces the Condor classes share: path names completed against the
// process's initial working directory, file tests and shell quoting.

#include <dataAccess/common/FileReplace.h>

#include <string>

namespace dataAccess {
namespace condor {

// The working directory of the process when the library was loaded.
const std::string& initialWorkingDirectory();

// A usable path name: not empty and free of NUL bytes.
bool validPathName(const std::string& name);

// `name` as it stands when absolute, else the initial working directory,
// "/" and `name`.
std::string completePath(const std::string& name);
// The last component of a path ("x.cmd" of "/a/x.cmd").
std::string leafName(const std::string& path);
// Everything before the last component ("/a" of "/a/x.cmd", "/" of "/x.cmd").
std::string directoryName(const std::string& path);

bool pathExists(const std::string& path);
// True when a regular file (or a link to one) stands at `path`.
bool fileExists(const std::string& path);

// 0 when `result` is Written; else logs "Can't open condor <kind> file <path>
// for writing" (CannotCreate) or "Can't write condor <kind> file <path>" and
// returns -1.
int reportSave(const std::string& path, FileReplace result, const char* kind);

// `word` for a shell command line: as it stands when it holds only letters,
// digits and _ . / + - , : = @ %, else in single quotes.
std::string shellWord(const std::string& word);

// Logs the shell command and runs `command` + " " + the quoted `file`
// through the shell, from the folder `dir` when it is not empty; returns the
// result of system().
int runSubmitCommand(const std::string& command, const std::string& file, const std::string& dir);

}  // namespace condor
}  // namespace dataAccess

#endif
