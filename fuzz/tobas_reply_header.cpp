// Reply-header reader of the archive client fed through a socket pair: no crash, no access
// outside the header rows, whatever the peer sends.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include <tobasCClient/tobasCClientLib.h>

namespace {
struct Rows {
  tobasHTTP_HDR h;
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 60000) return 0;  // stays below the socket buffer, so one write delivers it all
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  int buf = 256 * 1024;
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
  if (size > 0 && write(fds[1], data, size) != static_cast<ssize_t>(size)) {
    close(fds[0]);
    close(fds[1]);
    return 0;
  }
  close(fds[1]);
  _setReplyTimeoutFromFloat(0.05f);
  std::unique_ptr<Rows> rows(new Rows);
  tobasHTTP_RESP resp;
  tobasHTTP_DATA reply{nullptr, 0};
  long len = 0;
  int fd = fds[0];
  tobasRecvHttpHdr(&fd, rows->h, &resp, &reply, &len);
  tobasMED_BUF value;
  tobasGetHttpHdrEntry(rows->h, "location", "", value);
  tobasGetHttpHdrEntry(rows->h, "content-disposition", "filename", value);
  free(reply.pdata);
  if (fd > 0) close(fd);
  return 0;
}
