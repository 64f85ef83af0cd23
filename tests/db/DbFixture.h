#ifndef TESTS_DB_DBFIXTURE_H
#define TESTS_DB_DBFIXTURE_H

#include <dataAccess/db/ConnectionPool.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/Backend.h"
#include "tests/support/TempDir.h"

// A fresh pool, a private HOME with its own key file, and server names for
// database files in a temporary folder, on the backend of the run (SQLite
// directly, or through a TDS test server).
class DbFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ConnectionPool::destroyInstance();
    const char* home = std::getenv("HOME");
    savedHome_ = home ? home : "";
    setenv("HOME", dir_.path().c_str(), 1);
    setenv("STCRYPT_KEY_FILE", dir_.file("key").c_str(), 1);
  }
  void TearDown() override {
    ConnectionPool::instance()->setMaxPoolSize(20);
    ConnectionPool::destroyInstance();
    backend().stopServers();
    setenv("HOME", savedHome_.c_str(), 1);
    unsetenv("STCRYPT_KEY_FILE");
  }
  static testsupport::Backend& backend() { return testsupport::Backend::current(); }
  std::string server(const std::string& name = "main") const {
    return backend().server(dir_.file(name + ".db"));
  }

  testsupport::TempDir dir_;
  std::string savedHome_;
};

#endif
