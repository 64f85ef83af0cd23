#ifndef SYBCONN_ARCSYSUTILS_H
#define SYBCONN_ARCSYSUTILS_H

#include <string>
#include <vector>

namespace ArcSys {

// Thread safety: split may be called from several threads at once, each with its own `out`.
// Splits `text` at every occurrence of `delimiter` and appends the pieces to
// `out` (never cleared). "a|b||c" with "|" gives "a", "b", "", "c"; an empty
// text gives one empty piece; an empty delimiter gives the whole text.
void split(const std::string& text, const std::string& delimiter, std::vector<std::string>& out);

}  // namespace ArcSys

#endif
