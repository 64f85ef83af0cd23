/* Library version string, kept in the archive client library itself. */
const char* tobasLibraryVersion(void) { return "libtobasCClient 0.1.0"; }
