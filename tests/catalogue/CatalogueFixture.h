#ifndef TESTS_CATALOGUE_CATALOGUEFIXTURE_H
#define TESTS_CATALOGUE_CATALOGUEFIXTURE_H

#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <sybconn/SybaseConnection.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "tests/support/Backend.h"
#include "tests/support/TempDir.h"

// A database file with the example schemas, a service connection to it on
// the backend of the run (SQLite directly, or through a TDS test server), and
// a stub connection whose printed SQL a test can read.
class CatalogueFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ConnectionPool::destroyInstance();
    {
      SybaseConnection direct;
      ASSERT_EQ(direct.connect("sqlite:" + dir_.file("archive.db"), "ops", "pw"), 0);
      for (const char* schema :
           {"replication_queue.sqlite.sql", "file_catalogue.sqlite.sql", "safe_copies.sqlite.sql"})
        ASSERT_EQ(direct.execute(read(std::string(DA_SOURCE_DIR) + "/examples/schema/" + schema))
                      .commandSucceeded(),
                  1);
    }
    conn_ = std::make_unique<ServiceConnectionSyb>(
        testsupport::Backend::current().server(dir_.file("archive.db")), "ops", "pw", "archive");
    ASSERT_EQ(conn_->acquire(), 0);
    stub_.acquire();
  }
  void TearDown() override {
    conn_.reset();
    ConnectionPool::destroyInstance();
    testsupport::Backend::current().stopServers();
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // Runs `f` and returns what the stub printed meanwhile.
  template <class F>
  std::string printed(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
  }
  long scalar(const std::string& sql) {
    auto rs = conn_->execute(sql);
    return rs.next() ? rs.getLongValue(1) : -999;
  }

  testsupport::TempDir dir_;
  std::unique_ptr<ServiceConnectionSyb> conn_;
  ServiceConnectionStub stub_{"srv", "usr", "pw"};
};

#endif
