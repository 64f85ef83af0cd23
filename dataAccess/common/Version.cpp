#include <dataAccess/common/Version.h>

namespace dataAccess {
const char* version() { return "0.1.0"; }
}  // namespace dataAccess
