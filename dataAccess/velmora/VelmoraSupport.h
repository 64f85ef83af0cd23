#ifndef DATAACCESS_VELMORA_VELMORASUPPORT_H
#define DATAACCESS_VELMORA_VELMORASUPPORT_H

// Helpers shared by the archive and retrieval halves of Velmora.

#include <string>
#include <vector>

namespace velmora {

// Fills the "%s" placeholders of `tpl` in order with `args` (no length limit).
std::string fillTemplate(const std::string& tpl, const std::vector<std::string>& args);

// Writes `text` under a fresh temporary name created exclusively beside
// `path` and renames it to `path` (dataAccess::replaceFile). False on failure.
bool writeThenRename(const std::string& path, const std::string& text);

enum class ErrorLine { Blank, Entry, Malformed };
// Reads one line of a retrieval error status file: "<encoded key> <text>",
// separated by one or more blanks, the text running to the end of the line
// (a trailing "\r" is dropped). A line of blanks only is Blank; a line
// without both key and text is Malformed.
ErrorLine parseErrorLine(const std::string& line, std::string& key, std::string& text);

}  // namespace velmora

#endif
