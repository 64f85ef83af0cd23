// Reply-header parser of the archive client fed from memory in two pieces, as the socket reader
// hands over what has arrived: no crash, no access outside the header rows, whatever the server
// sends.
#include <cstdint>
#include <cstring>

#include <tobasCClient/tobasInternal.h>

namespace {
tobasHTTP_HDR rows;
tobasHTTP_RESP resp;
}  // namespace

// Input: the reply's bytes; its last byte also picks where the first piece ends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  const size_t cut = size > 0 ? data[size - 1] * size / 256 : 0;
  for (auto& row : rows) row[0] = '\0';
  long len = 0;
  tobasHdrParse ps = {rows, &resp, &len, 0, 0};
  size_t used = 0, more = 0;
  int stat = _tobasParseHdr(&ps, p, cut, 0, &used);
  if (used > cut) __builtin_trap();
  if (stat == 0 && !ps.done) stat = _tobasParseHdr(&ps, p + used, size - used, 1, &more);
  if (used + more > size || ps.rows > tobasHTTP_HDR_ROWS || len < 0 || (stat == 0 && !ps.done))
    __builtin_trap();
  for (int i = 0; i < ps.rows; ++i)
    if (strnlen(rows[i], sizeof rows[i]) == sizeof rows[i]) __builtin_trap();
  tobasMED_BUF value;
  tobasGetHttpHdrEntry(rows, "location", "", value);
  tobasGetHttpHdrEntry(rows, "content-disposition", "filename", value);
  return 0;
}
