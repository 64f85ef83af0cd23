#ifndef DATAACCESS_COMMON_VERSION_H
#define DATAACCESS_COMMON_VERSION_H

namespace dataAccess {
// The library's version, "MAJOR.MINOR.PATCH".
// Thread safety: version() may be called from any thread at once.
const char* version();
}  // namespace dataAccess

#endif
