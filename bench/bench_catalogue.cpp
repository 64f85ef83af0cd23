// The catalogue DAOs against the raw sqlite3 C API running the same statement
// texts and building the same records:
//   - 100,000 ReplicationRequestDAOSyb::insert calls in one transaction;
//   - KestFileDAOSyb::loadAll of 1,000,000 rows, and its peak memory;
// with DEBUG logging off (the host's ACE priority mask) and on, to a file.
// The same DAO calls also run through the FreeTDS driver against the TDS test
// server (TDS 5.0 and 7.4) over loopback, beside the SQLite figures: they
// measure the driver plus the test server, not a real database server.
#include <ace/Log_Msg.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/db/ConnectionPool.h>
#include <sqlite3.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SybUtils.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "bench/BenchUtil.h"
#include "tests/support/TdsServer.h"

namespace {

const int kInserts = 100000;
const int kRows = 1000000;
std::string g_dir;
std::string g_big;
std::ofstream g_logFile;

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

ReplicationRequest request(int i) {
  ReplicationRequest r("ADP.2026-11-22T01:02:03." + std::to_string(i));
  r.fileVersion_ = 1;
  r.diskId_ = "DISK_A";
  r.submitterId_ = "ingest";
  r.priority_ = 2;
  r.statusId(ReplicationRequest::Scheduled);
  return r;
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

void insertOurs(benchmark::State& state, bool log, const char* tds = nullptr) {
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = freshQueue("ins_ours.db");
    auto server = tdsServer(path, tds);
    ServiceConnectionSyb conn(server ? server->address() : "sqlite:" + path, "u", "p", "db");
    conn.acquire();
    ReplicationRequestDAOSyb dao("repl_queue");
    logging(log);
    state.ResumeTiming();
    conn.beginTransaction();
    for (int i = 0; i < kInserts; ++i) dao.insert(request(i), conn);
    conn.commitTransaction();
    state.PauseTiming();
    logging(false);
    conn.release();
    ConnectionPool::destroyInstance();
    state.ResumeTiming();
  }
}
void BM_insert_ours_logoff(benchmark::State& s) { insertOurs(s, false); }
void BM_insert_ours_logon(benchmark::State& s) { insertOurs(s, true); }
void BM_insert_tds50(benchmark::State& s) { insertOurs(s, false, "5.0"); }
void BM_insert_tds74(benchmark::State& s) { insertOurs(s, false, "7.4"); }

void BM_insert_raw(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3* db = rawOpen(freshQueue("ins_raw.db"));
    state.ResumeTiming();
    sqlite3_exec(db, "SAVEPOINT A1", nullptr, nullptr, nullptr);
    for (int i = 0; i < kInserts; ++i) {
      const ReplicationRequest r = request(i);
      const std::string sql =
          "insert into repl_queue (file_id,file_version,disk_id,submitter_id,priority,status_id) values ('" +
          r.fileId_ + "'," + std::to_string(r.fileVersion_) + ",'" + r.diskId_ + "','" + r.submitterId_ +
          "'," + std::to_string(r.priority_) + "," + std::to_string(r.statusId_) + ")";
      sqlite3_stmt* stmt = nullptr;
      sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr);
      sqlite3_step(stmt);
      sqlite3_finalize(stmt);
    }
    sqlite3_exec(db, "RELEASE A1", nullptr, nullptr, nullptr);
    state.PauseTiming();
    sqlite3_close(db);
    state.ResumeTiming();
  }
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

size_t loadOurs(const std::string& server = "sqlite:" + g_big) {
  ServiceConnectionSyb conn(server, "u", "p", "db");
  conn.acquire();
  std::vector<KestFile> files;
  KestFileDAOSyb("kest_files").loadAll(files, conn);
  conn.release();
  return files.size();
}

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

void BM_loadall_ours_logoff(benchmark::State& state) {
  logging(false);
  for (auto _ : state) benchmark::DoNotOptimize(loadOurs());
}
void BM_loadall_ours_logon(benchmark::State& state) {
  logging(true);
  for (auto _ : state) benchmark::DoNotOptimize(loadOurs());
  logging(false);
}
void loadTds(benchmark::State& state, const char* version) {
  logging(false);
  auto server = tdsServer(g_big, version);
  for (auto _ : state) benchmark::DoNotOptimize(loadOurs(server->address()));
  ConnectionPool::destroyInstance();
}
void BM_loadall_tds50(benchmark::State& s) { loadTds(s, "5.0"); }
void BM_loadall_tds74(benchmark::State& s) { loadTds(s, "7.4"); }
void BM_loadall_raw(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(loadRaw());
}

}  // namespace

BENCHMARK(BM_insert_raw)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_insert_ours_logoff)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
BENCHMARK(BM_insert_ours_logon)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_loadall_raw)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_loadall_ours_logoff)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_loadall_ours_logon)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_insert_tds50)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);
BENCHMARK(BM_insert_tds74)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);
BENCHMARK(BM_loadall_tds50)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);
BENCHMARK(BM_loadall_tds74)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/bench-catalogue-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  g_dir = tmpl;
  g_logFile.open(g_dir + "/debug.log");
  logging(false);
  makeBig();
  benchmark::Initialize(&argc, argv);
  benchutil::Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  // No pool (and so no reaper thread) may exist when the children are forked.
  ConnectionPool::destroyInstance();
  const long memRaw = benchutil::peakKiB([] { loadRaw(); });
  const long memOurs = benchutil::peakKiB([] { loadOurs(); });
  std::printf("loadAll of %d rows, peak RSS: ours %ld KiB, raw %ld KiB\n", kRows, memOurs, memRaw);
  const double insertRaw = collector.time("BM_insert_raw"), loadRawT = collector.time("BM_loadall_raw");
  benchutil::printRatio("catalogue_insert_100k_logoff", collector.time("BM_insert_ours_logoff"), insertRaw,
                        "1.15");
  benchutil::printRatio("catalogue_insert_100k_logon", collector.time("BM_insert_ours_logon"), insertRaw,
                        "-");
  benchutil::printRatio("catalogue_loadall_1M_logoff", collector.time("BM_loadall_ours_logoff"), loadRawT,
                        "1.15");
  benchutil::printRatio("catalogue_loadall_1M_logon", collector.time("BM_loadall_ours_logon"), loadRawT, "-");
  benchutil::printRatio("catalogue_loadall_1M_peak_mem", static_cast<double>(memOurs),
                        static_cast<double>(memRaw), "1.15");
  // Over TDS, against our own DAOs on SQLite: the cost of the wire and the test server.
  const double insertOurs = collector.time("BM_insert_ours_logoff"),
               loadOursT = collector.time("BM_loadall_ours_logoff");
  for (const char* v : {"tds50", "tds74"}) {
    benchutil::printRatio(std::string("catalogue_insert_100k_") + v + "_vs_sqlite",
                          collector.time(std::string("BM_insert_") + v), insertOurs, "-");
    benchutil::printRatio(std::string("catalogue_loadall_1M_") + v + "_vs_sqlite",
                          collector.time(std::string("BM_loadall_") + v), loadOursT, "-");
  }
  ConnectionPool::destroyInstance();
  std::system(("rm -rf " + g_dir).c_str());
  return 0;
}
