// Demo section: the connection library: batches, a transaction, the row count, typed values and errors.
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <cstdio>

#include "examples/demo.h"
#include "examples/demo_util.h"

namespace {

void showError(const SybaseStatus& s) {
  std::printf("   handler got: message %d, severity %d: %s\n", s.msgno ? s.msgno : s.dberr,
              s.msgno ? s.srvSeverity : s.dbLibSeverity, (s.msgno ? s.msgtext : s.dberrstr).c_str());
}

int run(const std::string& work) {
  const std::string server = demo::server(work, "demo.db");
  SybaseConnection conn;
  if (conn.connect(server, "demo", "demo") != 0) return 1;
  std::printf("   connected to %s\n", server.c_str());
  if (!demo::createTables(conn, {"demo"})) return 1;

  timeval now{};
  gettimeofday(&now, nullptr);
  const std::string when = SybUtils::convertFromUnixTimeval(now);
  conn.beginTransaction("A1");
  conn.execute("delete observations where obs_id in (1, 2, 3)");
  conn.execute("insert into observations values (1, 'NGC 253', 0.71, '" + when + "')");
  conn.execute("insert into observations values (2, 'M 83', NULL, getdate())");
  conn.execute("insert into observations values (3, 'Eta Carinae', 1.05, '" + when + "')");
  conn.commitTransaction("A1");
  conn.execute("update observations set seeing = seeing + 0.1 where seeing is not null");
  std::printf("   wrote 3 rows, raised the seeing of %ld\n", conn.rowCount());

  SybaseResultSet rs =
      conn.execute("select obs_id, target, seeing, taken_at from observations order by obs_id");
  while (rs.next()) {
    std::printf("   row %ld  %-12s seeing %-5s taken %s\n", rs.getLongValue(1), rs.getStringValue(2).c_str(),
                rs.isNull(3) ? "NULL" : rs.getStringValue(3).c_str(), rs.getStringValue(4).c_str());
  }
  SybaseResultSet back = conn.execute("select taken_at from observations where obs_id = 1");
  if (!back.next()) return 1;
  const timeval tv = back.getDateAsTimevalValue(1);
  std::printf("   date round trip: %ld.%06ld -> '%s' -> %ld.%06ld\n", static_cast<long>(now.tv_sec),
              static_cast<long>(now.tv_usec), when.c_str(), static_cast<long>(tv.tv_sec),
              static_cast<long>(tv.tv_usec));

  SybaseConnection::ErrorHandler previous = SybaseConnection::setErrorHandler(&showError);
  SybaseResultSet bad = conn.execute("select * from no_such_table");
  SybaseConnection::setErrorHandler(previous);
  std::printf("   a bad statement: commandSucceeded() = %d\n", bad.commandSucceeded());
  return bad.commandSucceeded() == 0 && tv.tv_sec == now.tv_sec ? 0 : 1;
}

}  // namespace

DEMO_SECTION(10, "Connection library", run);
