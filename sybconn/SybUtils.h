#ifndef SYBCONN_SYBUTILS_H
#define SYBCONN_SYBUTILS_H

#include <sys/time.h>

#include <string>

namespace SybUtils {

// Thread safety: both functions keep no state and may be called from several threads at once.

// The date text a statement uses for a datetime value, in local time, to the
// millisecond: "YYYYMMDD HH:MM:SS.mmm" (e.g. "20261122 13:05:09.250"). Sybase
// ASE, SQL Server and the embedded SQLite backend all read this form.
std::string convertFromUnixTimeval(const timeval& tv);

// Reads a date text back into a timeval (local time). Accepts the form above,
// "YYYY-MM-DD HH:MM:SS[.fff]", "YYYY-MM-DDTHH:MM:SS[.fff]" and a date alone.
// Returns false, leaving `out` untouched, when the text is not a date.
bool parseDate(const std::string& text, timeval& out);

}  // namespace SybUtils

#endif
