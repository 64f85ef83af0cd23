# Third-party dependencies, all from Debian packages.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(ACE REQUIRED IMPORTED_TARGET ACE)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
find_package(SQLite3 REQUIRED)
pkg_check_modules(PQ REQUIRED IMPORTED_TARGET libpq)
# Checksums of retrieved files: CRC-32 from ISA-L, MD5 and SHA-256 from OpenSSL's libcrypto.
pkg_check_modules(ISAL REQUIRED IMPORTED_TARGET libisal)
pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET libcrypto)

# FreeTDS's DB-Library ships no pkg-config file or CMake package.
find_path(SYBDB_INCLUDE_DIR sybdb.h REQUIRED)
find_library(SYBDB_LIBRARY sybdb REQUIRED)
if(NOT TARGET DA::sybdb)
  add_library(DA::sybdb UNKNOWN IMPORTED)
  set_target_properties(DA::sybdb PROPERTIES
    IMPORTED_LOCATION ${SYBDB_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${SYBDB_INCLUDE_DIR})
endif()
