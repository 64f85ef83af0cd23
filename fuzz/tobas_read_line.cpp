// The archive client's line reader on a socket whose peer sends the input and closes: a line never
// holds more than the buffer allows nor goes past its newline, and the lines give back the input.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include <tobasCClient/tobasCClientLib.h>

// Input: the buffer size (1 to 64) in the first byte, then the bytes the peer sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 129) return 0;  // a few lines around the buffer sizes tried, in one write
  const int max = 1 + data[0] % 64;
  const std::string sent(reinterpret_cast<const char*>(data) + 1, size - 1);
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  const bool written = write(fds[1], sent.data(), sent.size()) == static_cast<ssize_t>(sent.size());
  close(fds[1]);
  std::string got;
  char buf[64];
  for (size_t i = 0; written && i <= sent.size(); ++i) {
    const int n = tobasReadLine(&fds[0], buf, max);
    if (n <= 0) break;
    const int stored = n < max && buf[n - 1] == '\n' ? n : n - 1;  // one more when cut short
    const size_t newline = std::string(buf, static_cast<size_t>(stored)).find('\n');
    if (stored > max - 1 || buf[stored] != '\0' ||
        (newline != std::string::npos && newline + 1 != size_t(stored)))
      __builtin_trap();
    got.append(buf, static_cast<size_t>(stored));
  }
  close(fds[0]);
  if (written && max > 1 && got != sent) __builtin_trap();
  return 0;
}
