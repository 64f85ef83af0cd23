// Batched inserts (ReplicationRequestDAOSyb::insert of a vector: every row in
// one transaction through the backend's bulk path) against
//   - the same rows inserted one DAO call each, inside one transaction, on
//     SQLite, through the FreeTDS driver and the TDS test server (TDS 7.4 on
//     loopback, once as it is and once with 2 ms added to every round trip)
//     and on PostgreSQL; on SQLite also each call its own transaction;
//   - raw client programs sending the same rows to the same server: a
//     DB-Library program sending batches of 1,000 insert statements, and a
//     libpq program streaming them with COPY.
// Every side starts from the same records in memory and pays for turning
// them into text. Each pass writes into an empty queue, made outside the
// measured part, and fails when the queue does not hold its rows afterwards.
// The TDS test server runs statements on an SQLite file and the PostgreSQL
// cluster is a throwaway one on a Unix socket: the figures measure the
// library and the round trips, not a production database server.
#include <ace/Log_Msg.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/db/ConnectionPool.h>
#include <libpq-fe.h>
#include <sqlite3.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybdb.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchRows.h"
#include "bench/BenchUtil.h"
#include "tests/support/PgCluster.h"
#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

namespace {

using benchutil::Pass;
using benchutil::Side;

// batch_sqlite_100k_vs_single
const int kSqliteRows = 100000;
const int kSqliteRounds = 5;
const int kSqliteSingleRounds = 3;  // single inserts each in a transaction take seconds a pass
// batch_tds_100k_vs_single: the single inserts take seconds a pass.
const int kTdsRows = 100000;
const int kTdsSingleRounds = 3;
// batch_tds_100k_vs_raw_dblib
const int kTdsRawRounds = 7;
const int kRawStatementsPerBatch = 1000;
// batch_tds_delay2ms_10k_vs_single: the single side inserts a fifth of the
// rows (one round trip each, about 2.5 ms with the delay) and its time is
// scaled to the batch's row count.
const int kDelayMs = 2;
const int kDelayRows = 10000;
const int kDelaySingleRows = 2000;
const double kDelaySingleScale = static_cast<double>(kDelayRows) / kDelaySingleRows;
const int kDelayRounds = 3;
// batch_postgres_100k_vs_single and batch_postgres_100k_vs_raw_copy
const int kPgRows = 100000;
const int kPgSingleRounds = 3;
const int kPgCopyRounds = 9;
const size_t kCopyChunkBytes = 64 * 1024;

const char kTable[] = "repl_queue";
// The columns the DAO writes for benchrows::request(i) (no message), in its order.
const char kColumns[] = "file_id,file_version,disk_id,submitter_id,priority,status_id";

std::string g_dir;           // SQLite files, the test server's included
std::string g_sqliteSchema;  // the queue's schema for SQLite
std::string g_pgUri;         // the benchmark's PostgreSQL database
std::string g_pgDatabase;    // its name
testsupport::PgCluster* g_pg = nullptr;

enum class Backend { Sqlite, Tds, TdsDelayed, Postgres };

// An empty replication queue and how to log in to it. Through the test
// server, the server runs for as long as the target lives.
struct Target {
  std::string server, user, password, database;
  std::unique_ptr<tdstest::TdsServer> tds;
};

// A new SQLite file at `path` holding an empty queue.
void emptySqliteQueue(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db, g_sqliteSchema.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

// An empty queue on `backend`; a target with an empty server name when its
// server would not start.
Target emptyQueue(Backend backend) {
  Target t;
  if (backend == Backend::Postgres) {
    // The previous pass's pages go to disk here, not inside the next pass.
    g_pg->exec(g_pgDatabase, std::string("truncate ") + kTable + "; checkpoint");
    t.server = g_pgUri;
    t.user = "postgres";
    return t;
  }
  const std::string path = g_dir + "/queue.db";
  emptySqliteQueue(path);
  t.user = "u";
  t.password = "p";
  t.database = "db";
  if (backend == Backend::Sqlite) {
    t.server = "sqlite:" + path;
    return t;
  }
  t.tds = std::make_unique<tdstest::TdsServer>(path, t.user, t.password);
  // The delayed server holds every reply kDelayMs, as a server across a network would.
  if (backend == Backend::TdsDelayed) t.tds->roundTripDelayMs = kDelayMs;
  if (t.tds->start() != 0) t.server = t.tds->address();
  return t;
}

// The rows of the queue, read through a login of its own; -1 on failure.
long queueRows(const Target& t) {
  long rows = -1;
  {
    ServiceConnectionSyb conn(t.server, t.user, t.password, t.database);
    SybaseResultSet res;
    if (conn.acquire() == 0 && conn.executeSelect(std::string("select count(*) from ") + kTable, res) >= 0 &&
        res.next())
      rows = res.getLongValue(1);
    conn.release();
  }
  ConnectionPool::destroyInstance();
  return rows;
}

// Fails the pass unless the queue holds `rows` rows.
void expectRows(Pass& pass, const Target& t, long rows) {
  if (queueRows(t) != rows) pass.fail("the queue does not hold the rows inserted");
}

std::vector<ReplicationRequest> requests(int rows) {
  std::vector<ReplicationRequest> out;
  out.reserve(static_cast<size_t>(rows));
  for (int i = 0; i < rows; ++i) out.push_back(benchrows::request(i));
  return out;
}

// How ours writes: one batch; one insert call a row inside one transaction;
// one insert call a row, each its own transaction, as a caller without a
// transaction of its own writes them.
enum class Mode { Batch, SingleInTransaction, SingleAutocommit };

// Ours: `rows` requests through the DAO.
void oursPass(Pass& pass, Backend backend, int rows, Mode mode) {
  const Target t = emptyQueue(backend);
  if (t.server.empty()) return pass.fail("the server did not start");
  const std::vector<ReplicationRequest> records = requests(rows);
  ReplicationRequestDAOSyb dao(kTable);
  long written = -1;
  {
    ServiceConnectionSyb conn(t.server, t.user, t.password, t.database);
    conn.acquire();
    pass.measure([&] {
      if (mode == Mode::Batch) {
        written = dao.insert(records, conn);
        return;
      }
      const bool transaction = mode == Mode::SingleInTransaction;
      if (transaction) conn.beginTransaction();
      written = 0;
      for (const ReplicationRequest& r : records) written += dao.insert(r, conn) == 1;
      if (transaction && conn.commitTransaction() != 0) written = -1;
    });
    conn.release();
  }
  ConnectionPool::destroyInstance();
  if (written != rows) return pass.fail("the DAO did not insert every row");
  expectRows(pass, t, rows);
}

Side ours(Backend backend, int rows, Mode mode = Mode::Batch) {
  return [=](Pass& pass) { oursPass(pass, backend, rows, mode); };
}

// Sends one batch of statements and reads off all its results; false when a
// statement of it failed.
bool dblibRun(DBPROCESS* p, const std::string& sql) {
  if (dbcmd(p, sql.c_str()) == FAIL || dbsqlexec(p) == FAIL) return false;
  bool ok = true;
  for (RETCODE rc; (rc = dbresults(p)) != NO_MORE_RESULTS;) {
    if (rc == FAIL) {
      ok = false;
      if (DBDEAD(p)) break;
      continue;
    }
    dbcanquery(p);
  }
  return ok;
}

// A raw DB-Library program: begin tran, the inserts in batches of
// kRawStatementsPerBatch statements joined by newlines, commit tran. The
// library's driver owns DB-Library's error and message handlers, so this
// program leaves them alone.
void rawDblibPass(Pass& pass) {
  const Target t = emptyQueue(Backend::Tds);
  if (t.server.empty()) return pass.fail("the server did not start");
  const std::vector<ReplicationRequest> records = requests(kTdsRows);
  dbinit();
  LOGINREC* login = dblogin();
  DBSETLUSER(login, t.user.c_str());
  DBSETLPWD(login, t.password.c_str());
  DBSETLAPP(login, "bench_batch");
  DBSETLCHARSET(login, "UTF-8");
  DBSETLVERSION(login, DBVERSION_74);
  DBPROCESS* p = dbopen(login, t.server.c_str());
  dbloginfree(login);
  if (!p) return pass.fail("DB-Library could not log in");
  bool ok = true;
  pass.measure([&] {
    ok = dblibRun(p, "begin tran");
    std::string sql;
    for (size_t i = 0; i < records.size() && ok; ++i) {
      if (!sql.empty()) sql += '\n';
      benchrows::appendInsertSql(sql, records[i]);
      if ((i + 1) % kRawStatementsPerBatch == 0 || i + 1 == records.size()) {
        ok = dblibRun(p, sql);
        sql.clear();
      }
    }
    ok = dblibRun(p, "commit tran") && ok;
  });
  dbclose(p);
  if (!ok) return pass.fail("a DB-Library batch failed");
  expectRows(pass, t, kTdsRows);
}

// COPY's text form of a value: backslash, tab, newline and carriage return escaped.
void appendCopyText(std::string& out, const std::string& text) {
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
    }
  }
}

// One line of COPY text, the columns of kColumns. A disk left empty is NULL
// (\N), as the DAO leaves the column to its default, which is NULL.
void appendCopyRow(std::string& out, const ReplicationRequest& r) {
  appendCopyText(out, r.fileId_);
  out += '\t';
  out += std::to_string(r.fileVersion_);
  out += '\t';
  if (r.diskId_.empty())
    out += "\\N";
  else
    appendCopyText(out, r.diskId_);
  out += '\t';
  appendCopyText(out, r.submitterId_);
  out += '\t';
  out += std::to_string(r.priority_);
  out += '\t';
  out += std::to_string(r.statusId_);
  out += '\n';
}

// True when `sql` ran and gave `expected`.
bool pgRun(PGconn* c, const char* sql, ExecStatusType expected) {
  PGresult* r = PQexec(c, sql);
  const bool ok = PQresultStatus(r) == expected;
  PQclear(r);
  return ok;
}

// A raw libpq program: BEGIN, COPY ... FROM STDIN with the rows in about
// kCopyChunkBytes pieces, COMMIT.
void rawCopyPass(Pass& pass) {
  const Target t = emptyQueue(Backend::Postgres);
  const std::vector<ReplicationRequest> records = requests(kPgRows);
  PGconn* c = PQconnectdb(g_pgUri.c_str());
  if (PQstatus(c) != CONNECTION_OK) {
    PQfinish(c);
    return pass.fail("libpq could not log in");
  }
  const std::string copy = std::string("COPY ") + kTable + " (" + kColumns + ") FROM STDIN";
  bool ok = false;
  pass.measure([&] {
    if (!pgRun(c, "BEGIN", PGRES_COMMAND_OK) || !pgRun(c, copy.c_str(), PGRES_COPY_IN)) return;
    std::string chunk;
    chunk.reserve(kCopyChunkBytes + 256);
    bool sent = true;
    for (size_t i = 0; i < records.size() && sent; ++i) {
      appendCopyRow(chunk, records[i]);
      if (chunk.size() >= kCopyChunkBytes || i + 1 == records.size()) {
        sent = PQputCopyData(c, chunk.data(), static_cast<int>(chunk.size())) == 1;
        chunk.clear();
      }
    }
    ok = PQputCopyEnd(c, sent ? nullptr : "the rows could not be sent") == 1;
    while (PGresult* r = PQgetResult(c)) {
      ok = ok && PQresultStatus(r) == PGRES_COMMAND_OK;
      PQclear(r);
    }
    ok = pgRun(c, ok ? "COMMIT" : "ROLLBACK", PGRES_COMMAND_OK) && ok;
  });
  PQfinish(c);
  if (!ok) return pass.fail("the COPY failed");
  expectRows(pass, t, kPgRows);
}

// One comparison in rounds of its own: ours against the peer, as the ratio
// line `name`. `peerScale` multiplies the peer's times, for a peer that runs
// a fraction of ours' rows.
void compare(const std::string& name, int rounds, const Side& oursSide, const Side& peerSide,
             const char* goal, double peerScale = 1) {
  const std::string o = "BM_" + name + "_ours", p = "BM_" + name + "_peer";
  benchutil::Rounds r(rounds);
  r.side(p, peerSide).side(o, oursSide).run();
  if (peerScale == 1) {
    r.ratio(name, o, p, goal);
    return;
  }
  std::vector<double> scaled = r.times(p);
  for (double& t : scaled) t *= peerScale;
  benchutil::printRatio(name, r.times(o), scaled, goal);
}

}  // namespace

int main(int argc, char** argv) {
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  g_dir = benchutil::scratchDir("/tmp", "batch");
  if (g_dir.empty()) return 1;
  const std::string schemas = std::string(DA_SOURCE_DIR) + "/examples/schema/";
  g_sqliteSchema = testsupport::readFile(schemas + "replication_queue.sqlite.sql");
  sybconn::FreeTdsSettings::setTdsVersion("7.4");
  g_pg = &testsupport::PgCluster::shared();
  g_pgDatabase = g_pg->createDatabase();
  g_pgUri = g_pg->uri(g_pgDatabase) + "&user=postgres";
  g_pg->exec(g_pgDatabase, testsupport::readFile(schemas + "replication_queue.postgresql.sql"));
  benchmark::Initialize(&argc, argv);

  // On SQLite no round trip is saved: the batch saves each insert's own
  // transaction and its statement's parse. The goal is against single inserts
  // as a caller without a transaction writes them; inside one transaction the
  // gain is the parse alone (informative).
  compare("batch_sqlite_100k_vs_single", kSqliteSingleRounds, ours(Backend::Sqlite, kSqliteRows),
          ours(Backend::Sqlite, kSqliteRows, Mode::SingleAutocommit), "0.10");
  compare("batch_sqlite_100k_vs_single_in_one_transaction", kSqliteRounds, ours(Backend::Sqlite, kSqliteRows),
          ours(Backend::Sqlite, kSqliteRows, Mode::SingleInTransaction), "-");
  compare("batch_tds_100k_vs_single", kTdsSingleRounds, ours(Backend::Tds, kTdsRows),
          ours(Backend::Tds, kTdsRows, Mode::SingleInTransaction), "0.20");
  compare("batch_tds_100k_vs_raw_dblib", kTdsRawRounds, ours(Backend::Tds, kTdsRows), rawDblibPass, "1.25");
  // The single side inserts kDelaySingleRows rows; its time is scaled by
  // kDelaySingleScale to the 10k rows of the batch.
  compare("batch_tds_delay2ms_10k_vs_single", kDelayRounds, ours(Backend::TdsDelayed, kDelayRows),
          ours(Backend::TdsDelayed, kDelaySingleRows, Mode::SingleInTransaction), "0.02", kDelaySingleScale);
  compare("batch_postgres_100k_vs_single", kPgSingleRounds, ours(Backend::Postgres, kPgRows),
          ours(Backend::Postgres, kPgRows, Mode::SingleInTransaction), "0.10");
  compare("batch_postgres_100k_vs_raw_copy", kPgCopyRounds, ours(Backend::Postgres, kPgRows), rawCopyPass,
          "1.25");

  benchmark::Shutdown();
  ConnectionPool::destroyInstance();
  std::filesystem::remove_all(g_dir);
  return 0;
}
