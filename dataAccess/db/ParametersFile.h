#ifndef DATAACCESS_DB_PARAMETERSFILE_H
#define DATAACCESS_DB_PARAMETERSFILE_H

// The database parameters file $HOME/.dbrc: one entry a line, fields
// separated by white space: server, database, user, enciphered password and,
// on an alias entry, the alias. A line whose first field starts with '#' is a
// comment; one with four fields serves every alias not named before it.
// Internal to the library.

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

namespace dataAccess {

// The longest line the file may hold, line feed excluded: room for a server
// named by a long path, a sealed password and the other fields.
constexpr std::size_t kMaxParameterLine = 4096;

// A line that can serve an alias: four or five fields (further ones are
// dropped), the first not starting with '#'.
struct ParameterLine {
  std::string field[5];
  int count = 0;
};

// Appends the lines of `in` that can serve an alias to `lines`. Returns 0, or
// the number (from 1) of the first line longer than kMaxParameterLine; reading
// stops there, so no more than that bound of a line is ever held.
long readParameterLines(std::istream& in, std::vector<ParameterLine>& lines);

// The line that serves `alias`: the first five-field line naming it (names
// compare case-sensitively), else the last four-field line before it; null
// when there is none.
const ParameterLine* findParameterLine(const std::vector<ParameterLine>& lines, const std::string& alias);

// What a service connection needs to log in.
struct ServiceParameters {
  std::string server;
  std::string database;
  std::string user;
  std::string password;  // in clear
};

// How long a parameters file found unchanged is trusted without looking at
// it again: a connection opened every few microseconds then does not pay a
// look-up of the file each time.
constexpr long kParametersRecheckMs = 10;

// Fills `out` with the parameters of `alias` from $HOME/.dbrc, the password
// deciphered with the key file in use. The file is parsed once and kept,
// with the passwords deciphered so far, while it stays unchanged (inode,
// size, modification and change times) and the same key file is named; all
// threads share what is kept. A change to the file is seen by every call
// that starts kParametersRecheckMs or more after it. Returns 0, or -1 with `out` empty and the
// reason logged: the file cannot be opened, holds a line longer than
// kMaxParameterLine (refused with its number, whatever alias it names), has
// no line for the alias, or its password does not decipher.
int readServiceParameters(const std::string& alias, ServiceParameters& out);

}  // namespace dataAccess

#endif
