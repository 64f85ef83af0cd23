// What the archive client's tests share: the library, the scripted loopback server, temporary folders.
#ifndef TESTS_TOBASCCLIENT_TOBASTEST_H
#define TESTS_TOBASCCLIENT_TOBASTEST_H

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"
#include "tests/support/TempDir.h"

using namespace archivetest;
using testsupport::TempDir;
using namespace std::string_literals;

inline const std::string kOk = httpReply(200, statusDoc("SUCCESS", "done"));

inline std::string logText() { return readFile(getenv("TOBAS_LOG_FILE")); }

#define EXPECT_HAS(text, part) EXPECT_NE(std::string::npos, std::string(text).find(part)) << (text)

// Bytes in use on the heap and in mapped blocks, for leak checks (the sanitizers check leaks themselves).
inline size_t heapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr bool kPlainMalloc = true;
#define EXPECT_NO_GROWTH(before, bound) EXPECT_LT(heapInUse(), (before) + (bound))
#else
constexpr bool kPlainMalloc = false;
#define EXPECT_NO_GROWTH(before, bound) (void)(before)
#endif

#endif
