// The catalogue DAOs against the raw sqlite3 C API running the same statement
// texts and building the same records:
//   - 100,000 ReplicationRequestDAOSyb::insert calls in one transaction;
//   - KestFileDAOSyb::loadAll of 1,000,000 rows, and its peak memory;
// with DEBUG logging off (the host's ACE priority mask) and on, to a file.
// With BENCH_TDS set, the same DAO calls also run through the FreeTDS driver
// against the TDS test server (TDS 5.0 and 7.4) over loopback, beside the
// SQLite figures: they measure the driver plus the test server, not a real
// database server.
#include <ace/Log_Msg.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/db/ConnectionPool.h>
#include <sqlite3.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SybUtils.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "bench/BenchRows.h"
#include "bench/BenchUtil.h"
#include "tests/support/TdsServer.h"

namespace {

const int kInserts = benchutil::size(100000, 10000);
const int kRows = benchutil::size(1000000, 30000);
std::string g_dir;
std::string g_big;
std::ofstream g_logFile;

// Under callgrind, the dates that the schemas' defaults write (strftime of
// 'now') come from a clock that stands still at 2026-11-22 12:00 UTC, so that
// two runs format and compare the same texts and count the same
// instructions: the default VFS is replaced by a copy of itself with a
// clock of its own, for both sides.
const sqlite3_int64 kStillJulianMs = 212662108800000LL;
sqlite3_vfs g_stillClock;
int stillTimeInt64(sqlite3_vfs*, sqlite3_int64* ms) {
  *ms = kStillJulianMs;
  return SQLITE_OK;
}
int stillTime(sqlite3_vfs*, double* julianDay) {
  *julianDay = static_cast<double>(kStillJulianMs) / 86400000.0;
  return SQLITE_OK;
}
void stopSqliteClock() {
  g_stillClock = *sqlite3_vfs_find(nullptr);
  g_stillClock.xCurrentTime = stillTime;
  if (g_stillClock.iVersion >= 2) g_stillClock.xCurrentTimeInt64 = stillTimeInt64;
  sqlite3_vfs_register(&g_stillClock, 1);
}

void logging(bool on) {
  const u_long quiet = LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
  if (on) {
    ACE_LOG_MSG->msg_ostream(&g_logFile, false);
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::OSTREAM);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
    ACE_LOG_MSG->priority_mask(quiet | LM_DEBUG, ACE_Log_Msg::PROCESS);
  } else {
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::OSTREAM);
    ACE_LOG_MSG->priority_mask(quiet, ACE_Log_Msg::PROCESS);
  }
}

std::string schema(const char* name) {
  std::ifstream in(std::string(DA_SOURCE_DIR) + "/examples/schema/" + name);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

sqlite3* rawOpen(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  sqlite3_busy_timeout(db, 5000);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
  return db;
}

std::string freshQueue(const char* name) {
  const std::string path = g_dir + "/" + name;
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  sqlite3* db = rawOpen(path);
  sqlite3_exec(db, schema("replication_queue.sqlite.sql").c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return path;
}

// A TDS test server on `dbFile`, speaking `version` ("5.0" or "7.4"), and the
// driver set to that version; nullptr for SQLite.
std::unique_ptr<tdstest::TdsServer> tdsServer(const std::string& dbFile, const char* version) {
  if (!version) return nullptr;
  sybconn::FreeTdsSettings::setTdsVersion(version);
  auto server = std::make_unique<tdstest::TdsServer>(dbFile, "u", "p");
  if (server->start() == 0) return nullptr;
  return server;
}

void insertOurs(benchutil::Pass& pass, bool log, const char* tds = nullptr) {
  const std::string path = freshQueue("ins_ours.db");
  auto server = tdsServer(path, tds);
  ServiceConnectionSyb conn(server ? server->address() : "sqlite:" + path, "u", "p", "db");
  conn.acquire();
  ReplicationRequestDAOSyb dao("repl_queue");
  logging(log);
  pass.measure([&] {
    conn.beginTransaction();
    for (int i = 0; i < kInserts; ++i) dao.insert(benchrows::request(i), conn);
    conn.commitTransaction();
  });
  logging(false);
  conn.release();
  ConnectionPool::destroyInstance();
}

void insertRaw(benchutil::Pass& pass) {
  sqlite3* db = rawOpen(freshQueue("ins_raw.db"));
  pass.measure([&] {
    sqlite3_exec(db, "SAVEPOINT A1", nullptr, nullptr, nullptr);
    for (int i = 0; i < kInserts; ++i) {
      const std::string sql = benchrows::insertSql(benchrows::request(i));
      sqlite3_stmt* stmt = nullptr;
      sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr);
      sqlite3_step(stmt);
      sqlite3_finalize(stmt);
    }
    sqlite3_exec(db, "RELEASE A1", nullptr, nullptr, nullptr);
  });
  sqlite3_close(db);
}

void makeBig() {
  g_big = g_dir + "/catalogue.db";
  sqlite3* db = rawOpen(g_big);
  sqlite3_exec(db, schema("file_catalogue.sqlite.sql").c_str(), nullptr, nullptr, nullptr);
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(
      db,
      "insert into kest_files (file_id, file_name, file_version, disk_id, format, file_size, "
      "uncompressed_file_size, ingestion_date, file_status, checksum) values (?, ?, 1, 'DISK_A', "
      "'FITS', 288000, 1152000, '20261122 13:05:09.250', 'S', 'md5:0123456789abcdef')",
      -1, &stmt, nullptr);
  for (int i = 0; i < kRows; ++i) {
    const std::string id = "ADP.2026-11-22T01:02:03." + std::to_string(i);
    sqlite3_bind_text(stmt, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 2, (id + ".fits").c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(stmt);
    sqlite3_reset(stmt);
  }
  sqlite3_finalize(stmt);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

size_t loadOurs(const std::string& server = "sqlite:" + g_big) { return benchrows::loadAll(server, "u"); }

std::string text(sqlite3_stmt* s, int col) {
  const unsigned char* t = sqlite3_column_text(s, col);
  return t ? std::string(reinterpret_cast<const char*>(t), static_cast<size_t>(sqlite3_column_bytes(s, col)))
           : std::string();
}

size_t loadRaw() {
  sqlite3* db = rawOpen(g_big);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(
      db,
      "select file_id, file_name, file_version, disk_id, format, file_size, uncompressed_file_size, "
      "compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, creation_date "
      "from kest_files order by ingestion_date",
      -1, &s, nullptr);
  std::vector<KestFile> files;
  while (sqlite3_step(s) == SQLITE_ROW) {
    KestFile f;
    f.fileId_ = text(s, 0);
    f.fileName_ = text(s, 1);
    f.fileVersion_ = sqlite3_column_int(s, 2);
    f.diskId_ = text(s, 3);
    f.format_ = text(s, 4);
    f.fileSize_ = static_cast<int>(sqlite3_column_double(s, 5));
    f.uncompressedFileSize_ = static_cast<int>(sqlite3_column_double(s, 6));
    f.compression_ = text(s, 7);
    SybUtils::parseDate(text(s, 8), f.ingestionDate_);
    f.ignore_ = sqlite3_column_int(s, 9);
    f.checksum_ = text(s, 10);
    f.checksumPlugin_ = text(s, 11);
    const std::string status = text(s, 12);
    f.fileStatus_ = status.empty() ? ' ' : static_cast<KestFileStatus>(status[0]);
    SybUtils::parseDate(text(s, 13), f.creationDate_);
    files.push_back(f);
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return files.size();
}

void loadallOurs(benchutil::Pass& pass, bool log, const char* tds = nullptr) {
  logging(log);
  auto server = tdsServer(g_big, tds);
  pass.measure([&] { benchmark::DoNotOptimize(server ? loadOurs(server->address()) : loadOurs()); });
  logging(false);
  ConnectionPool::destroyInstance();
}

}  // namespace

int main(int argc, char** argv) {
  g_dir = benchutil::scratchDir("/tmp", "catalogue");
  if (g_dir.empty()) return 1;
  if (benchutil::instructionMode()) stopSqliteClock();
  g_logFile.open(g_dir + "/debug.log");
  logging(false);
  makeBig();
  // The DAOs through the FreeTDS driver and the TDS test server: minutes of
  // run time for figures without a goal, so only with BENCH_TDS set.
  const bool tds = std::getenv("BENCH_TDS") != nullptr && !benchutil::instructionMode();
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  using benchutil::Pass;
  rounds.side("BM_insert_raw", insertRaw)
      .side("BM_insert_ours_logoff", [](Pass& p) { insertOurs(p, false); })
      .side("BM_loadall_raw", [](Pass& p) { p.measure([] { benchmark::DoNotOptimize(loadRaw()); }); })
      .side("BM_loadall_ours_logoff", [](Pass& p) { loadallOurs(p, false); });
  if (!benchutil::instructionMode())
    rounds.side("BM_insert_ours_logon", [](Pass& p) { insertOurs(p, true); })
        .side("BM_loadall_ours_logon", [](Pass& p) { loadallOurs(p, true); });
  if (tds)
    for (const char* v : {"5.0", "7.4"}) {
      const std::string suffix = v[0] == '5' ? "tds50" : "tds74";
      rounds.side("BM_insert_" + suffix, [v](Pass& p) { insertOurs(p, false, v); })
          .side("BM_loadall_" + suffix, [v](Pass& p) { loadallOurs(p, false, v); });
    }
  rounds.run();
  benchmark::Shutdown();

  rounds.ratio("catalogue_insert_100k_logoff", "BM_insert_ours_logoff", "BM_insert_raw", "1.15");
  rounds.ratio("catalogue_loadall_1M_logoff", "BM_loadall_ours_logoff", "BM_loadall_raw", "1.15");
  if (!benchutil::instructionMode()) {
    rounds.ratio("catalogue_insert_100k_logon", "BM_insert_ours_logon", "BM_insert_raw", "-");
    rounds.ratio("catalogue_loadall_1M_logon", "BM_loadall_ours_logon", "BM_loadall_raw", "-");
  }
  // No pool (and so no reaper thread) may exist when the children are forked.
  ConnectionPool::destroyInstance();
  benchutil::comparePeak(
      "catalogue_loadall_1M_peak_mem", "1.15", [] { loadOurs(); }, [] { loadRaw(); });
  // Over TDS, against our own DAOs on SQLite: the cost of the wire and the test server.
  if (tds)
    for (const char* v : {"tds50", "tds74"}) {
      rounds.ratio(std::string("catalogue_insert_100k_") + v + "_vs_sqlite", std::string("BM_insert_") + v,
                   "BM_insert_ours_logoff", "-");
      rounds.ratio(std::string("catalogue_loadall_1M_") + v + "_vs_sqlite", std::string("BM_loadall_") + v,
                   "BM_loadall_ours_logoff", "-");
    }
  ConnectionPool::destroyInstance();
  std::filesystem::remove_all(g_dir);
  return 0;
}
