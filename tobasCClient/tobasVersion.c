/* Library version string, kept in the archive client library itself. */
#include "tobasInternal.h"

const char* tobasLibraryVersion(void) {
  tobasTraceEnter("tobasLibraryVersion");
  tobasTraceLeave("tobasLibraryVersion", tobasSTAT_SUCCESS);
  return "libtobasCClient 0.1.0";
}
