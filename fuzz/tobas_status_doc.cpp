// Status-document parsing of the archive client: attribute extraction and unpacking of
// arbitrary text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <tobasCClient/tobasCClientLib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  char* doc = static_cast<char*>(malloc(size + 1));
  memcpy(doc, data, size);
  doc[size] = '\0';
  tobasSTATUS* st = static_cast<tobasSTATUS*>(malloc(sizeof(tobasSTATUS)));
  tobasInitStatus(st);
  if (tobasUnpackStatus(doc, st) == 0) {
    tobasLogCodeInStatus(st, "TOBAS_ER_DAPI");
    tobasFreeStatus(st);  // frees doc
  } else {
    free(doc);
  }
  char small[8];
  tobasGetXmlAttr(text.c_str(), "A", "b", sizeof small, small);
  free(st);
  return 0;
}
