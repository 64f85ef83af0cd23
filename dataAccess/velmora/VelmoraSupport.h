#ifndef DATAACCESS_VELMORA_VELMORASUPPORT_H
#define DATAACCESS_VELMORA_VELMORASUPPORT_H

// Helpers shared by the archive and retrieval halves of Velmora.

#include <cstddef>
#include <string>
#include <vector>

namespace velmora {

// Fills the "%s" placeholders of `tpl` in order with `args` (no length limit).
std::string fillTemplate(const std::string& tpl, const std::vector<std::string>& args);

// Writes `text` under a fresh temporary name created exclusively beside
// `path` and renames it to `path` (dataAccess::replaceFile). False on failure.
bool writeThenRename(const std::string& path, const std::string& text);

// Whether `s` holds a byte below 0x20 or 0x7f (a line feed among them).
bool hasControl(const std::string& s);
// Whether `s` names one entry of a folder: not empty, "." or "..", and
// without "/" or control characters.
bool plainName(const std::string& s);
// Logs `why` at ERROR and returns it: the status text of a refused request.
std::string refuse(const std::string& why);

// Reads at most `limit` bytes of the file at `path` into `text`, if it is a
// regular file: a link is not followed and a FIFO or device is never waited
// on. False (and `text` empty) when it is not a readable regular file.
bool readRegularFile(const std::string& path, size_t limit, std::string& text);

enum class ErrorLine { Blank, Entry, Malformed };
// Reads one line of a retrieval error status file: "<encoded key> <text>",
// separated by one or more blanks, the text running to the end of the line
// (a trailing "\r" is dropped). A line of blanks only is Blank; a line
// without both key and text is Malformed.
ErrorLine parseErrorLine(const std::string& line, std::string& key, std::string& text);

struct ErrorEntry {
  std::string key;  // encoded, as the file has it
  std::string text;
};
// Sorts the lines of a whole error status file (split at "\n"): appends its
// entries in file order to `entries` and skips blank lines, up to the first
// malformed line, which ends the reading: it is returned through `malformed`
// and the result is false. True when every line is blank or an entry.
bool parseErrorFile(const std::string& file, std::vector<ErrorEntry>& entries, std::string& malformed);

}  // namespace velmora

#endif
