// The stub connection's transaction bookkeeping; its printed statements are
// checked by the DAO suites.
#include <dataAccess/db/ServiceConnectionStub.h>

#include <gtest/gtest.h>
#include <sybconn/SybaseConnection.h>

#include "tests/support/TempDir.h"

namespace {

TEST(Stub, KeepsTransactionBookkeeping) {
  ServiceConnectionStub stub("srv", "usr", "pw");
  // Before acquire nothing runs, nothing is printed.
  testing::internal::CaptureStdout();
  EXPECT_EQ(stub.execute("select 1").commandSucceeded(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(stub.beginTransaction(), -1);
  EXPECT_EQ(stub.acquire(), 0);
  // Transactions only count; rollback is commit's twin.
  EXPECT_EQ(stub.commitTransaction(), -1);
  EXPECT_EQ(stub.beginTransaction(), 0);
  EXPECT_EQ(stub.beginTransaction(), 0);
  EXPECT_EQ(stub.rollbackTransaction(), 0);
  EXPECT_EQ(stub.transactionNumber(), 1);
  EXPECT_EQ(stub.commitTransaction(), 0);
  EXPECT_EQ(stub.rollbackTransaction(), -1);
  EXPECT_EQ(stub.beginTransaction(), 0);
  EXPECT_EQ(stub.release(), 0);
  EXPECT_EQ(stub.transactionNumber(), 0);
  EXPECT_EQ(stub.rowCount(), -1);
}

// Given a result that succeeded, the stub maps the select list of either case.
TEST(Stub, MapsTheSelectList) {
  testsupport::TempDir dir;
  SybaseConnection conn;
  ASSERT_EQ(conn.connect("sqlite:" + dir.file("x.db"), "u", "p"), 0);
  ServiceConnectionStub stub("srv", "usr", "pw");
  ASSERT_EQ(stub.acquire(), 0);
  for (const char* sql : {"select a, b from T", "SELECT a, b FROM T"}) {
    ServiceConnectionStub::ResultSet ok = conn.execute("select 1");
    ServiceConnectionStub::ListOfFieldIndex map;
    testing::internal::CaptureStdout();
    EXPECT_EQ(stub.executeSelect(sql, ok, map), 0) << sql;
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(map, (ServiceConnectionStub::ListOfFieldIndex{{"a", 1}, {"b", 2}})) << sql;
  }
}

}  // namespace
