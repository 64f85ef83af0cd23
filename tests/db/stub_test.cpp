// The stub connection's printed statements and bookkeeping.
#include <dataAccess/db/ServiceConnectionStub.h>

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(Stub, PrintsStatementsAndKeepsBookkeeping) {
  ServiceConnectionStub stub("srv", "usr", "pw");
  testsupport::LogCapture log;
  CaptureStdout();
  EXPECT_EQ(stub.execute("select 1").commandSucceeded(), 0);  // before acquire: nothing printed
  EXPECT_EQ(stub.beginTransaction(), -1);
  EXPECT_EQ(stub.acquire(), 0);
  stub.execute("delete T where file_id='F'");
  ServiceConnectionStub::ListOfFieldIndex map;
  ServiceConnectionStub::ResultSet rs;
  EXPECT_EQ(stub.executeSelect("update T set a = 1", rs, map), -1);  // no select keyword: not printed
  EXPECT_EQ(stub.executeSelect("select a, b from T", rs, map), -1);  // printed, never succeeds
  EXPECT_EQ(GetCapturedStdout(), "EXECUTE : delete T where file_id='F'\nEXECUTE : select a, b from T\n");
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(log.count("KestFileDAOSyb::executeQuery. No connection available"), 2u);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Error executing SQL command select a, b from T\n"));

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

}  // namespace
