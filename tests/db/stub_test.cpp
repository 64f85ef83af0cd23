// The stub connection's printed statements and bookkeeping, and one DAO
// implementation serving both connection types.
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include "tests/db/DbFixture.h"
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

// The shape every DAO has: public overloads for both connection types, one
// member template behind them.
class CounterDAO {
 public:
  explicit CounterDAO(std::string table) : table_(std::move(table)) {}
  int bump(const std::string& name, const ServiceConnectionSyb& c) { return bumpT(name, c); }
  int bump(const std::string& name, const ServiceConnectionStub& c) { return bumpT(name, c); }

 private:
  template <class Conn>
  int bumpT(const std::string& name, const Conn& conn) {
    auto rs = conn.execute("update " + table_ + " set n = n + 1 where name='" + name + "'");
    const long count = conn.rowCount();
    return rs.commandSucceeded() == 1 && count >= 0 ? static_cast<int>(count) : -1;
  }
  std::string table_;
};

class DaoShape : public DbFixture {};

TEST_F(DaoShape, OneImplementationServesBothConnections) {
  ServiceConnectionSyb syb(server(), "u", "p", "db");
  ASSERT_EQ(syb.acquire(), 0);
  syb.execute("create table counters (name varchar(10), n int)");
  syb.execute("insert into counters values ('a', 0)");
  CounterDAO dao("counters");
  EXPECT_EQ(dao.bump("a", syb), 1);
  EXPECT_EQ(dao.bump("zz", syb), 0);

  ServiceConnectionStub stub("srv", "u", "p");
  stub.acquire();
  CaptureStdout();
  EXPECT_EQ(dao.bump("a", stub), -1);
  EXPECT_EQ(GetCapturedStdout(), "EXECUTE : update counters set n = n + 1 where name='a'\n");
}

}  // namespace
