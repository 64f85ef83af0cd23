// The connection library against the raw sqlite3 C API, running the same
// statement texts and building the same values:
//   - 100,000 single-row inserts in one transaction;
//   - a select of 1,000,000 rows read column by column, and its peak memory.
#include <sqlite3.h>
#include <sybconn/SybaseConnection.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "bench/BenchUtil.h"

namespace {

const int kInserts = benchutil::size(100000, 10000);
const int kRows = benchutil::size(1000000, 50000);
std::string g_dir;

std::string insertText(int i) {
  return "insert into t (id, name, val, at) values (" + std::to_string(i) + ", 'name " + std::to_string(i) +
         "', " + std::to_string(i) + ".5, '20261122 13:05:09.250')";
}

void rawExec(sqlite3* db, const char* sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

// The same pragmas the driver sets, so both sides do the same I/O.
sqlite3* rawOpen(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  sqlite3_busy_timeout(db, 5000);
  rawExec(db, "PRAGMA journal_mode=WAL");
  rawExec(db, "PRAGMA synchronous=NORMAL");
  return db;
}

std::string freshFile(const char* name) {
  const std::string path = g_dir + "/" + name;
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  sqlite3* db = rawOpen(path);
  rawExec(db, "create table t (id int, name varchar(40), val float, at datetime)");
  sqlite3_close(db);
  return path;
}

void insertOurs(benchutil::Pass& pass) {
  const std::string path = freshFile("ins_ours.db");
  SybaseConnection conn;
  conn.connect("sqlite:" + path, "u", "p");
  pass.measure([&] {
    conn.execute("begin Tran A1");
    for (int i = 0; i < kInserts; ++i) conn.execute(insertText(i));
    conn.execute("commit A1");
  });
}

void insertRaw(benchutil::Pass& pass) {
  sqlite3* db = rawOpen(freshFile("ins_raw.db"));
  pass.measure([&] {
    rawExec(db, "SAVEPOINT A1");
    for (int i = 0; i < kInserts; ++i) {
      const std::string sql = insertText(i);
      sqlite3_stmt* stmt = nullptr;
      sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr);
      sqlite3_step(stmt);
      sqlite3_finalize(stmt);
    }
    rawExec(db, "RELEASE A1");
  });
  sqlite3_close(db);
}

const char kSelect[] = "select id, name, val, at from t";

long selectOurs(const std::string& path) {
  SybaseConnection conn;
  conn.connect("sqlite:" + path, "u", "p");
  SybaseResultSet rs = conn.execute(kSelect);
  long sum = 0;
  while (rs.next()) {
    const long id = rs.getLongValue(1);
    const std::string name = rs.getStringValue(2);
    const double val = rs.getDoubleValue(3);
    const std::string at = rs.getStringValue(4);
    sum += id + static_cast<long>(name.size() + at.size()) + static_cast<long>(val);
  }
  return sum;
}

long selectRaw(const std::string& path) {
  sqlite3* db = rawOpen(path);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, kSelect, -1, &stmt, nullptr);
  long sum = 0;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    const long id = static_cast<long>(sqlite3_column_int64(stmt, 0));
    const std::string name(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)),
                           static_cast<size_t>(sqlite3_column_bytes(stmt, 1)));
    const double val = sqlite3_column_double(stmt, 2);
    const std::string at(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 3)),
                         static_cast<size_t>(sqlite3_column_bytes(stmt, 3)));
    sum += id + static_cast<long>(name.size() + at.size()) + static_cast<long>(val);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return sum;
}

std::string g_big;

void makeBig() {
  g_big = freshFile("select.db");
  sqlite3* db = rawOpen(g_big);
  rawExec(db, "BEGIN");
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, "insert into t values (?, ?, ?, '20261122 13:05:09.250')", -1, &stmt, nullptr);
  for (int i = 0; i < kRows; ++i) {
    const std::string name = "name " + std::to_string(i);
    sqlite3_bind_int(stmt, 1, i);
    sqlite3_bind_text(stmt, 2, name.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_double(stmt, 3, i + 0.5);
    sqlite3_step(stmt);
    sqlite3_reset(stmt);
  }
  sqlite3_finalize(stmt);
  rawExec(db, "COMMIT");
  sqlite3_close(db);
}

}  // namespace

int main(int argc, char** argv) {
  g_dir = benchutil::scratchDir("/tmp", "sybconn");
  if (g_dir.empty()) return 1;
  makeBig();
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  rounds.side("BM_insert_raw", insertRaw)
      .side("BM_insert_ours", insertOurs)
      .side("BM_select_raw",
            [](benchutil::Pass& p) { p.measure([] { benchmark::DoNotOptimize(selectRaw(g_big)); }); })
      .side("BM_select_ours",
            [](benchutil::Pass& p) { p.measure([] { benchmark::DoNotOptimize(selectOurs(g_big)); }); })
      .run();
  benchmark::Shutdown();

  rounds.ratio("sybconn_insert_100k", "BM_insert_ours", "BM_insert_raw", "1.10");
  rounds.ratio("sybconn_select_1M_time", "BM_select_ours", "BM_select_raw", "1.10");
  benchutil::comparePeak(
      "sybconn_select_1M_peak_mem", "1.10", [] { selectOurs(g_big); }, [] { selectRaw(g_big); });
  std::filesystem::remove_all(g_dir);
  return 0;
}
