// stencrypt: enciphers a database password for the parameters file ($HOME/.dbrc).
//
//   stencrypt                              prints the enciphered password
//   stencrypt SERVER DATABASE USER ALIAS   prints a whole parameters-file line
//
// The password is read from the terminal without echo, or from standard input
// when that is not a terminal (first line). The key file (STCRYPT_KEY_FILE,
// else $HOME/.dbrc.key) is created with mode 0600 when it does not exist.
// Fields that would break the line (empty, white space or control characters,
// a server starting with '#', a line longer than the reader takes) are refused
// with exit status 2.
#include <dataAccess/db/ParametersFile.h>
#include <stcrypt/stcrypt.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: stencrypt [SERVER DATABASE USER ALIAS]\n"
               "Reads a password (without echo on a terminal, else the first line of standard input)\n"
               "and prints it enciphered, or as a line for $HOME/.dbrc when the four fields are given.\n"
               "Key file: $STCRYPT_KEY_FILE, else $HOME/.dbrc.key (created, mode 0600, when missing).\n");
}

bool readPassword(std::string& out) {
  const bool tty = ::isatty(STDIN_FILENO);
  termios saved{};
  if (tty) {
    std::fprintf(stderr, "Password: ");
    std::fflush(stderr);
    if (::tcgetattr(STDIN_FILENO, &saved) == 0) {
      termios quiet = saved;
      quiet.c_lflag &= static_cast<tcflag_t>(~ECHO);
      ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
  }
  const bool ok = static_cast<bool>(std::getline(std::cin, out));
  if (tty) {
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::fprintf(stderr, "\n");
  }
  if (!out.empty() && out.back() == '\r') out.pop_back();
  return ok || !out.empty();
}

// Why `field` cannot stand in a parameters-file line, or null. A blank or tab
// would split it, a line feed start another line, and the reader takes a line
// whose first field starts with '#' for a comment.
const char* fieldProblem(const char* field, bool first) {
  if (*field == '\0') return "is empty";
  if (first && *field == '#') return "starts with '#', which makes the line a comment";
  for (const char* c = field; *c != '\0'; ++c) {
    const unsigned char u = static_cast<unsigned char>(*c);
    if (std::isspace(u) || std::iscntrl(u)) return "holds white space or a control character";
  }
  return nullptr;
}

// True when the four fields can make a parameters-file line; else says why on
// standard error.
bool fieldsFit(char** fields) {
  static const char* const names[] = {"SERVER", "DATABASE", "USER", "ALIAS"};
  std::size_t length = STCRYPT_BUF_SIZE + 4;  // the enciphered password and the blanks
  for (int i = 0; i < 4; ++i) {
    if (const char* problem = fieldProblem(fields[i], i == 0)) {
      std::fprintf(stderr, "stencrypt: %s %s; a field of $HOME/.dbrc cannot\n", names[i], problem);
      return false;
    }
    length += std::strlen(fields[i]);
  }
  if (length > dataAccess::kMaxParameterLine) {
    std::fprintf(stderr, "stencrypt: the line would be longer than the %zu characters $HOME/.dbrc takes\n",
                 dataAccess::kMaxParameterLine);
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help"))) {
    usage(stdout);
    return 0;
  }
  if (argc != 1 && argc != 5) {
    usage(stderr);
    return 2;
  }
  if (argc == 5 && !fieldsFit(argv + 1)) return 2;
  char keyPath[4096];
  if (stkeyfile(keyPath, sizeof keyPath) != 0) {
    std::fprintf(stderr, "stencrypt: set HOME or STCRYPT_KEY_FILE\n");
    return 1;
  }
  struct stat st {};
  if (::stat(keyPath, &st) != 0) {
    if (stcreatekey(keyPath) != 0) {
      std::fprintf(stderr, "stencrypt: cannot create key file %s\n", keyPath);
      return 1;
    }
    std::fprintf(stderr, "stencrypt: created key file %s\n", keyPath);
  }
  std::string password;
  if (!readPassword(password)) {
    std::fprintf(stderr, "stencrypt: no password given\n");
    return 1;
  }
  char sealed[STCRYPT_BUF_SIZE];
  if (stencrypt(password.c_str(), sealed) != 0) {
    std::fprintf(stderr, "stencrypt: cannot encipher the password with key file %s\n", keyPath);
    return 1;
  }
  if (argc == 5) {
    std::printf("%s %s %s %s %s\n", argv[1], argv[2], argv[3], sealed, argv[4]);
  } else {
    std::printf("%s\n", sealed);
  }
  return 0;
}
