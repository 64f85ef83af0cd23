// The catalogue DAOs over PostgreSQL against a raw libpq program sending the
// same statement texts to the same server and building the same records:
//   - 100,000 ReplicationRequestDAOSyb::insert calls in one transaction;
//   - KestFileDAOSyb::loadAll of 1,000,000 rows, and its peak memory.
// The server is a throwaway cluster on a Unix socket (tests/support/PgCluster),
// so both sides pay the same round trips; the ratios measure the library.
#include <ace/Log_Msg.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/db/ConnectionPool.h>
#include <libpq-fe.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "bench/BenchRows.h"
#include "bench/BenchUtil.h"
#include "tests/support/PgCluster.h"
#include "tests/support/TempDir.h"

namespace {

const int kInserts = 100000;
const int kRows = 1000000;
std::string g_uri;  // the benchmark's database

PGconn* rawOpen() {
  PGconn* c = PQconnectdb(g_uri.c_str());
  if (PQstatus(c) != CONNECTION_OK) {
    std::fprintf(stderr, "bench_postgres: %s", PQerrorMessage(c));
    std::exit(1);
  }
  return c;
}

// Runs `sql` as written on a connection of its own; exits on failure (the
// benchmark's own set-up).
void setup(const std::string& sql) {
  PGconn* c = rawOpen();
  PGresult* r = PQexec(c, sql.c_str());
  if (PQresultStatus(r) != PGRES_COMMAND_OK && PQresultStatus(r) != PGRES_TUPLES_OK) {
    std::fprintf(stderr, "bench_postgres: %s", PQerrorMessage(c));
    std::exit(1);
  }
  PQclear(r);
  PQfinish(c);
}

void insertOurs(benchutil::Pass& pass) {
  setup("truncate repl_queue");
  ServiceConnectionSyb conn(g_uri, "postgres", "", "");
  conn.acquire();
  ReplicationRequestDAOSyb dao("repl_queue");
  pass.measure([&] {
    conn.beginTransaction();
    for (int i = 0; i < kInserts; ++i) dao.insert(benchrows::request(i), conn);
    conn.commitTransaction();
  });
  conn.release();
  ConnectionPool::destroyInstance();
}

void insertRaw(benchutil::Pass& pass) {
  setup("truncate repl_queue");
  PGconn* c = rawOpen();
  pass.measure([&] {
    PQclear(PQexec(c, "BEGIN"));
    for (int i = 0; i < kInserts; ++i) {
      PQclear(PQexec(c, benchrows::insertSql(benchrows::request(i)).c_str()));
    }
    PQclear(PQexec(c, "COMMIT"));
  });
  PQfinish(c);
}

size_t loadOurs() { return benchrows::loadAll(g_uri, "postgres"); }

std::string text(const PGresult* r, int col) {
  return std::string(PQgetvalue(r, 0, col), static_cast<size_t>(PQgetlength(r, 0, col)));
}

// "YYYY-MM-DD HH:MM:SS[.ffffff]", the server's local time, as a timeval.
timeval isoDate(const PGresult* r, int col) {
  timeval tv{0, 0};
  if (PQgetisnull(r, 0, col)) return tv;
  std::tm tm{};
  double seconds = 0;
  if (std::sscanf(PQgetvalue(r, 0, col), "%d-%d-%d %d:%d:%lf", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                  &tm.tm_hour, &tm.tm_min, &seconds) != 6)
    return tv;
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  tm.tm_sec = static_cast<int>(seconds);
  tm.tm_isdst = -1;
  tv.tv_sec = std::mktime(&tm);
  tv.tv_usec = static_cast<suseconds_t>((seconds - tm.tm_sec) * 1e6 + 0.5);
  return tv;
}

size_t loadRaw() {
  PGconn* c = rawOpen();
  PQsendQuery(c,
              "select file_id, file_name, file_version, disk_id, format, file_size, uncompressed_file_size, "
              "compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, creation_date "
              "from kest_files order by ingestion_date");
  PQsetSingleRowMode(c);
  std::vector<KestFile> files;
  while (PGresult* r = PQgetResult(c)) {
    if (PQresultStatus(r) == PGRES_SINGLE_TUPLE) {
      KestFile f;
      f.fileId_ = text(r, 0);
      f.fileName_ = text(r, 1);
      f.fileVersion_ = std::atoi(PQgetvalue(r, 0, 2));
      f.diskId_ = text(r, 3);
      f.format_ = text(r, 4);
      f.fileSize_ = static_cast<int>(std::strtod(PQgetvalue(r, 0, 5), nullptr));
      f.uncompressedFileSize_ = static_cast<int>(std::strtod(PQgetvalue(r, 0, 6), nullptr));
      f.compression_ = text(r, 7);
      f.ingestionDate_ = isoDate(r, 8);
      f.ignore_ = std::atoi(PQgetvalue(r, 0, 9));
      f.checksum_ = text(r, 10);
      f.checksumPlugin_ = text(r, 11);
      const std::string status = text(r, 12);
      f.fileStatus_ = status.empty() ? ' ' : static_cast<KestFileStatus>(status[0]);
      f.creationDate_ = isoDate(r, 13);
      files.push_back(f);
    }
    PQclear(r);
  }
  PQfinish(c);
  return files.size();
}

}  // namespace

int main(int argc, char** argv) {
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  testsupport::PgCluster& cluster = testsupport::PgCluster::shared();
  g_uri = cluster.uri(cluster.createDatabase()) + "&user=postgres";
  const std::string schemas = std::string(DA_SOURCE_DIR) + "/examples/schema/";
  setup(testsupport::readFile(schemas + "replication_queue.postgresql.sql") +
        testsupport::readFile(schemas + "file_catalogue.postgresql.sql"));
  setup(
      "insert into kest_files (file_id, file_name, file_version, disk_id, format, file_size, "
      "uncompressed_file_size, ingestion_date, file_status, checksum) select 'ADP.2026-11-22T01:02:03.' || "
      "i, "
      "'ADP.2026-11-22T01:02:03.' || i || '.fits', 1, 'DISK_A', 'FITS', 288000, 1152000, "
      "'20261122 13:05:09.250', 'S', 'md5:0123456789abcdef' from generate_series(1, " +
      std::to_string(kRows) + ") i");
  setup("vacuum analyze kest_files");
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  using benchutil::Pass;
  rounds.side("BM_pg_insert_raw", insertRaw)
      .side("BM_pg_insert_ours", insertOurs)
      .side("BM_pg_loadall_raw", [](Pass& p) { p.measure([] { benchmark::DoNotOptimize(loadRaw()); }); })
      .side("BM_pg_loadall_ours", [](Pass& p) {
        p.measure([] { benchmark::DoNotOptimize(loadOurs()); });
        ConnectionPool::destroyInstance();
      });
  rounds.run();
  benchmark::Shutdown();
  rounds.ratio("postgres_insert_100k", "BM_pg_insert_ours", "BM_pg_insert_raw", "1.15");
  rounds.ratio("postgres_loadall_1M", "BM_pg_loadall_ours", "BM_pg_loadall_raw", "1.15");
  // No pool (and so no reaper thread) may exist when the children are forked.
  ConnectionPool::destroyInstance();
  benchutil::comparePeak(
      "postgres_loadall_1M_peak_mem", "1.15", [] { loadOurs(); }, [] { loadRaw(); });
  ConnectionPool::destroyInstance();
  return 0;
}
