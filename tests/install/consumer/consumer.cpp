// A program outside the project that links the installed libraries and calls what the README tells users to.
#include <cstdio>
#include <string>

#include <dataAccess/dataAccess.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SqliteSettings.h>

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : ".";
  sybconn::FreeTdsSettings::setLoginTimeout(3);
  sybconn::FreeTdsSettings::setTdsVersion("7.4");
  if (sybconn::FreeTdsSettings::loginTimeout() != 3 || sybconn::FreeTdsSettings::tdsVersion() != "7.4")
    return 1;
  sybconn::setSqliteBusyTimeoutMs(250);
  if (sybconn::sqliteBusyTimeoutMs() != 250) return 1;
  SybaseConnection conn;
  if (conn.connect("sqlite:" + dir + "/consumer.db", "user", "pw") != 0) return 2;
  SybaseResultSet rs = conn.execute("select 40 + 2");
  if (!rs.commandSucceeded() || !rs.next() || rs.getLongValue(1) != 42) return 2;
  // The stub runs a DAO without a server.
  ServiceConnectionStub stub("srv", "usr", "pw");
  stub.acquire();
  if (ReplicationRequestDAOSyb("queue").update("F", ReplicationRequest::Replicated, "", stub) != -1) return 3;
  // The request-file interface reaches tobasCClient through DataAccess.
  if (Velmora::encodeGlobalKey("A_B") != "A&#95;B" || Velmora().getUniqueIndex() != 1) return 4;
  std::printf("DataAccess %s: ok\n", dataAccess::version());
  return 0;
}
