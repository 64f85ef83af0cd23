// The observation-condition services against the raw sqlite3 C API running
// the same statements and building the same records, with DEBUG logging
// masked by the host's ACE priority mask:
//   - AmbientService::findMeanSeeingByDate over a period of 1,000,000
//     measurements, in time and in peak memory (each pass in a forked child,
//     less a child that does nothing);
//   - 10,000 ObRep2Service::findConstraintSetByObsId calls (each builds its
//     connection from the alias in the parameters file) against a loop on one
//     open connection that prepares the same statement text for each call.
#include <ace/Log_Msg.h>
#include <dataAccess/conditions/AmbientService.h>
#include <dataAccess/conditions/ObRep2Service.h>
#include <dataAccess/db/ConnectionPool.h>
#include <sqlite3.h>
#include <stcrypt/stcrypt.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/BenchUtil.h"

namespace {

const int kMeasurements = benchutil::size(1000000, 30000);
const int kCalls = benchutil::size(10000, 1000);
const int kBlocks = 1000;
const double kStart = 61000.0;  // MJD of the first measurement, one a second from there
std::string g_dir;
double g_sink = 0;

std::string schema(const char* name) {
  std::ifstream in(std::string(DA_SOURCE_DIR) + "/examples/schema/" + name);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
    std::fprintf(stderr, "setup failed: %s\n", err ? err : "?");
    std::exit(1);
  }
}

// Opens the services' own database with the sibling `attach` attached, in
// WAL mode as the library's SQLite driver leaves it (else the first side to
// run would meet a database in rollback-journal mode).
sqlite3* rawOpen(const char* attach) {
  sqlite3* db = nullptr;
  sqlite3_open_v2((g_dir + "/conditions.db").c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                  nullptr);
  sqlite3_busy_timeout(db, 5000);
  exec(db, "PRAGMA journal_mode=WAL");
  exec(db, "PRAGMA synchronous=NORMAL");
  exec(db, "ATTACH DATABASE '" + g_dir + "/" + attach + ".db' AS \"" + attach + "\"");
  exec(db, std::string("PRAGMA \"") + attach + "\".journal_mode=WAL");
  return db;
}

void makeDatabases() {
  sqlite3* db = nullptr;
  sqlite3_open((g_dir + "/ambient.db").c_str(), &db);
  exec(db, schema("ambient_conditions.sqlite.sql"));
  exec(db, "BEGIN");
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "insert into seeing_torvane values (?, 60, ?, 1800, -2900, 1150, 3, 12, 25)", -1,
                     &st, nullptr);
  long long first = 0;
  SeeingDAOSyb::dateKey(kStart, first);
  for (int i = 0; i < kMeasurements; ++i) {
    sqlite3_bind_int64(st, 1, first - i);
    sqlite3_bind_int(st, 2, 50 + i % 100);
    sqlite3_step(st);
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  exec(db, "COMMIT");
  sqlite3_close(db);

  sqlite3_open((g_dir + "/obrep2.db").c_str(), &db);
  exec(db, schema("observation_repository.sqlite.sql"));
  exec(db, "BEGIN");
  for (int i = 1; i <= kBlocks; ++i) {
    const std::string n = std::to_string(i);
    exec(db, "insert into constraint_sets values (" + n + ", 1001, 'CS-" + n +
                 "', 'fast photometry', 0.8, 'CLR', 1.6, 0.4, 30, 'LS-7', 0.0, 3)");
    exec(db, "insert into obs_blocks values (" + n + ", " + n + ", 'OB')");
  }
  exec(db, "COMMIT");
  sqlite3_close(db);
}

void writeParameters() {
  setenv("HOME", g_dir.c_str(), 1);
  setenv("STCRYPT_KEY_FILE", (g_dir + "/key").c_str(), 1);
  char sealed[STCRYPT_BUF_SIZE];
  if (stcreatekey((g_dir + "/key").c_str()) != 0 || stencrypt("pw", sealed) != 0) std::exit(1);
  std::ofstream(g_dir + "/.dbrc") << "sqlite:" << g_dir << "/conditions.db obrep2 u " << sealed
                                  << " OBREP2\n";
}

double endDate() { return kStart + (kMeasurements - 1) / 86400.0; }

double meanOurs() {
  AmbientService ambient("sqlite:" + g_dir + "/conditions.db", "u", "pw", "conditions",
                         AmbientService::TORVANE);
  double mean = 0;
  if (ambient.findMeanSeeingByDate(kStart, (endDate() - kStart) * 86400, mean) != 0) std::exit(1);
  return mean;
}

double meanRaw() {
  sqlite3* db = rawOpen("ambient");
  long long startKey = 0, endKey = 0;
  SeeingDAOSyb::dateKey(kStart, startKey);
  SeeingDAOSyb::dateKey(endDate(), endKey);
  const std::string sql =
      "select start_date,interval,fwhm,ra,dec,airmass,tau,rfl,tet from ambient.seeing_torvane where "
      "start_date "
      "between " +
      std::to_string(endKey) + " AND " + std::to_string(startKey) + " AND fwhm <> 255 AND fwhm IS NOT NULL";
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &st, nullptr);
  std::vector<Seeing> list;
  while (sqlite3_step(st) == SQLITE_ROW) {
    Seeing s;
    s.startDate_ = sqlite3_column_int(st, 0);
    s.interval_ = sqlite3_column_int(st, 1);
    s.fwhm_ = sqlite3_column_int(st, 2);
    s.ra_ = sqlite3_column_int(st, 3);
    s.dec_ = sqlite3_column_int(st, 4);
    s.airmass_ = sqlite3_column_int(st, 5);
    s.tau_ = sqlite3_column_int(st, 6);
    s.rfl_ = sqlite3_column_int(st, 7);
    s.tet_ = sqlite3_column_int(st, 8);
    list.push_back(s);
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  double sum = 0;
  for (const Seeing& s : list) sum += s.fwhm_;
  if (list.size() != static_cast<size_t>(kMeasurements)) std::exit(1);
  return sum * (0.01 / static_cast<double>(list.size()));
}

std::string text(sqlite3_stmt* s, int col) {
  const unsigned char* t = sqlite3_column_text(s, col);
  return t ? std::string(reinterpret_cast<const char*>(t), static_cast<size_t>(sqlite3_column_bytes(s, col)))
           : std::string();
}

void constraintSetRaw(benchutil::Pass& pass) {
  sqlite3* db = rawOpen("obrep2");
  const char* const columns[] = {"cs_id",         "user_id",          "item_name",    "item_description",
                                 "seeing",        "sky_transparency", "airmass",      "fli",
                                 "moon_distance", "local_storage_id", "strehl_ratio", "baseline_id"};
  pass.measure([&] {
    for (int i = 0; i < kCalls; ++i) {
      std::string sql = "select ";
      for (int c = 0; c < 12; ++c) sql += std::string(c ? "," : "") + "obrep2.constraint_sets." + columns[c];
      sql += " from obrep2.constraint_sets,obrep2.obs_blocks where obrep2.obs_blocks.ob_id=" +
             std::to_string(1 + i % kBlocks) + " AND obrep2.obs_blocks.cs_id=obrep2.constraint_sets.cs_id";
      sqlite3_stmt* st = nullptr;
      sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &st, nullptr);
      std::vector<ConstraintSet> sets;
      while (sqlite3_step(st) == SQLITE_ROW) {
        ConstraintSet cs;
        cs.csId_ = sqlite3_column_int(st, 0);
        cs.userId_ = sqlite3_column_int(st, 1);
        cs.itemName_ = text(st, 2);
        cs.itemDescription_ = text(st, 3);
        cs.seeing_ = static_cast<float>(sqlite3_column_double(st, 4));
        cs.skyTransparency_ = text(st, 5);
        cs.airMass_ = static_cast<float>(sqlite3_column_double(st, 6));
        cs.fli_ = static_cast<float>(sqlite3_column_double(st, 7));
        cs.moonDistance_ = sqlite3_column_int(st, 8);
        cs.localStorageId_ = text(st, 9);
        cs.strehlRatio_ = static_cast<float>(sqlite3_column_double(st, 10));
        cs.baselineId_ = sqlite3_column_int(st, 11);
        sets.push_back(std::move(cs));
      }
      sqlite3_finalize(st);
      if (sets.size() != 1) std::exit(1);
    }
  });
  sqlite3_close(db);
}

void constraintSetOurs(benchutil::Pass& pass) {
  ObRep2Service service("OBREP2");
  pass.measure([&] {
    for (int i = 0; i < kCalls; ++i) {
      std::vector<ConstraintSet> sets;
      if (service.findConstraintSetByObsId(1 + i % kBlocks, sets) != 1) std::exit(1);
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  g_dir = benchutil::scratchDir("/tmp", "conditions");
  if (g_dir.empty()) return 1;
  // A production host masks DEBUG through ACE's process-wide priority mask.
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  makeDatabases();
  writeParameters();

  // Peak memory first, from a small parent; no pool (and so no reaper
  // thread) exists when the children are forked.
  benchutil::comparePeak(
      "conditions_mean_seeing_1M_peak_mem", "1.15", [] { g_sink += meanOurs(); }, [] { g_sink += meanRaw(); },
      true);

  benchmark::Initialize(&argc, argv);
  // The constraint-set passes are the shortest of all (a quarter second): a
  // burst of load spans several of them, so this comparison runs more rounds
  // than the default, and a burst cannot carry the median.
  benchutil::Rounds rounds(11);
  rounds.side("BM_mean_seeing_raw", [](benchutil::Pass& p) { p.measure([] { g_sink += meanRaw(); }); })
      .side("BM_mean_seeing_ours", [](benchutil::Pass& p) { p.measure([] { g_sink += meanOurs(); }); })
      .side("BM_constraint_set_raw", constraintSetRaw)
      .side("BM_constraint_set_ours", constraintSetOurs)
      .run();
  benchmark::Shutdown();

  rounds.ratio("conditions_mean_seeing_1M_logoff", "BM_mean_seeing_ours", "BM_mean_seeing_raw", "1.15");
  rounds.ratio("conditions_constraint_set_10k_logoff", "BM_constraint_set_ours", "BM_constraint_set_raw",
               "1.25");
  ConnectionPool::destroyInstance();
  std::filesystem::remove_all(g_dir);
  return g_sink > 0 ? 0 : 1;
}
