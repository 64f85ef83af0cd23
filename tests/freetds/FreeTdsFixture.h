#ifndef TESTS_FREETDS_FREETDSFIXTURE_H
#define TESTS_FREETDS_FREETDSFIXTURE_H

#include <dataAccess/db/ConnectionPool.h>
#include <gtest/gtest.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SybaseConnection.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

// Each test on TDS 7.4 and 5.0, the server on tables t (typed rows, NULLs, Unicode) and big (5000 rows).
class FreeTdsTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    sybconn::FreeTdsSettings::setTdsVersion(sybase() ? "5.0" : "7.4");
    sybconn::FreeTdsSettings::setLoginTimeout(5), sybconn::FreeTdsSettings::setQueryTimeout(20);
    SybaseConnection::setErrorHandler([](const SybaseStatus& s) {
      std::lock_guard<std::mutex> lock(seenMutex_);
      seen_.push_back(s);
      SybaseConnection::defaultErrorHandler(s);
    });
    SybaseConnection setup;
    ASSERT_EQ(0, setup.connect("sqlite:" + db_, "u", "p"));
    ASSERT_EQ(1, setup
                     .execute("create table t (id integer, name varchar(40), score float, stamp datetime);"
                              "insert into t values (1, 'one', 1.5, '2026-11-22 23:59:59.998'),"
                              "  (2, 'Grüße ☃ 𝄞', null, '2026-11-22 12:00:00'), (3, null, -2.25, null);"
                              "create table big (n integer, pad varchar(100));"
                              "with recursive c(x) as (select 1 union all select x + 1 from c where x < 5000)"
                              "  insert into big select x, printf('row %d %40s', x, 'padding') from c;")
                     .commandSucceeded());
    ASSERT_NE(0, server_.start());
    saw(0);
  }
  void TearDown() override { ConnectionPool::destroyInstance(); }
  bool sybase() const { return GetParam() == 50; }

  // A message or client error of that number (0: a client error naming its server) came since last call.
  static bool saw(int number) {
    std::lock_guard<std::mutex> lock(seenMutex_);
    const std::vector<SybaseStatus> seen = std::exchange(seen_, {});
    return std::any_of(seen.begin(), seen.end(), [number](const SybaseStatus& s) {
      return number ? s.msgno == number || s.dberr == number : s.dberr != 0 && !s.srvname.empty();
    });
  }
  // The next row as "a|b|...", a NULL as "NULL" after its text; "end" after the last row.
  static std::string nextRow(SybaseResultSet rs) {
    if (!rs.next()) return "end";
    std::string row;
    for (int c = 1; c <= rs.columnCount(); ++c)
      row += (c > 1 ? "|" : "") + rs.getStringValue(c) + (rs.isNull(c) ? "NULL" : "");
    return row;
  }

  testsupport::TempDir dir_;
  std::string db_ = dir_.file("server.db");
  tdstest::TdsServer server_{db_, "u", "p"};
  SybaseConnection conn_;
  static inline std::mutex seenMutex_;
  static inline std::vector<SybaseStatus> seen_;
};

#endif
