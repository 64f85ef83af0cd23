// Demo section: the observation-condition services. The observation
// repository, the ambient-conditions database and the AR System night log are
// sibling databases (obrep2, ambient, arsystem) of the service's own; each
// service call borrows a pooled connection and gives it back.
#include <dataAccess/conditions/ARSystemService.h>
#include <dataAccess/conditions/AmbientService.h>
#include <dataAccess/conditions/ObRep2Service.h>
#include <stcrypt/stcrypt.h>
#include <sybconn/SybaseConnection.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "examples/demo.h"
#include "examples/demo_util.h"

namespace {

const double kNight = 61000.0;  // MJD of the demo's night

bool createDatabases(const std::string& work) {
  const char* const databases[][2] = {
      {"obrep2", "observation_repository"}, {"ambient", "ambient_conditions"}, {"arsystem", "ar_system"}};
  for (const auto& db : databases) {
    SybaseConnection conn;
    if (conn.connect(demo::server(work, std::string(db[0]) + ".db"), "ops", "secret") != 0) return false;
    if (!demo::createTables(conn, {db[1]}, db[0])) return false;
    if (demo::serverSetting() && !demo::onPostgres()) break;  // one server holds them all
  }
  return true;
}

// The rows the services read, written through the service's own database.
bool fill(ServiceConnectionSyb& conn) {
  std::string seeing;
  const int fwhm[] = {65, 80, 255, 95};  // hundredths of an arcsecond; 255 marks a failed measurement
  for (int i = 0; i < 4; ++i) {
    long long key = 0;
    SeeingDAOSyb::dateKey(kNight + (10.0 + 10.0 * i) / 1440, key);
    seeing += std::string(i ? ", " : "") + "(" + std::to_string(key) + ", 60, " + std::to_string(fwhm[i]) +
              ", 1800, -2900, 1150, 3, 12, 25)";
  }
  const std::string statements[] = {
      "delete obrep2..constraint_sets",
      "delete obrep2..obs_blocks",
      "insert into obrep2..constraint_sets values (7, 1001, 'CS-fast', 'fast photometry', 0.8, 'CLR', 1.6, "
      "0.4, 30, 'LS-7', 0.0, 3), (8, 1001, 'CS-deep', 'deep imaging', 0.6, 'PHO', 1.2, 0.1, 60, 'LS-8', 0.0, "
      "3), (9, 1002, 'CS-spare', NULL, NULL, 'THN', 2.0, 1.0, NULL, NULL, NULL, 4)",
      "insert into obrep2..obs_blocks (ob_id, cs_id, ob_name) values (200042, 7, 'OB fast'), (200043, 8, "
      "'OB deep'), (200043, 9, 'OB deep (copy)')",
      "delete ambient..seeing_torvane",
      "insert into ambient..seeing_torvane values " + seeing,
      "delete arsystem..TORV2_NightObs",
      "insert into arsystem..TORV2_NightObs values ('000000000000101', '200042', 'CLR', 1)",
  };
  for (const std::string& sql : statements)
    if (conn.execute(sql).commandSucceeded() != 1) return false;
  return true;
}

// The parameters-file entry that names the observation repository's service.
bool addAlias(const std::string& server) {
  char keyFile[1024];
  if (stkeyfile(keyFile, sizeof keyFile) != 0) return false;
  struct stat st {};
  if (::stat(keyFile, &st) != 0 && stcreatekey(keyFile) != 0) return false;
  char sealed[STCRYPT_BUF_SIZE];
  if (stencrypt("secret", sealed) != 0) return false;
  std::ofstream out(std::string(std::getenv("HOME")) + "/.dbrc", std::ios::app);
  out << server << " obrep2 ops " << sealed << " OBREP2\n";
  return static_cast<bool>(out);
}

int run(const std::string& work) {
  const std::string server = demo::server(work, "conditions.db");
  if (!createDatabases(work) || !addAlias(server)) return 1;
  {
    ServiceConnectionSyb conn(server, "ops", "secret", "conditions");
    if (conn.acquire() != 0 || !fill(conn)) return 1;
    conn.release();
  }

  ObRep2Service obrep("OBREP2");
  std::vector<ConstraintSet> sets;
  const int one = obrep.findConstraintSetByObsId(200042, sets);
  if (one == 1) {
    const ConstraintSet& cs = sets.back();
    std::printf(
        "   block 200042: constraint set %d '%s' (%s): seeing %.2f\", sky %s, airmass %.2f, FLI %.2f\n",
        cs.csId_, cs.itemName_.c_str(), cs.itemDescription_.c_str(), cs.seeing_, cs.skyTransparency_.c_str(),
        cs.airMass_, cs.fli_);
  }
  std::vector<ConstraintSet> two;
  const int refused = obrep.findConstraintSetByObsId(200043, two);
  std::printf("   block 200043 has %zu constraint sets: refused with %d\n", two.size(), refused);

  AmbientService ambient(server, "ops", "secret", "conditions", AmbientService::TORVANE);
  double mean = 0;
  const int seeing = ambient.findMeanSeeingByDate(kNight, 3600, mean);
  std::printf(
      "   mean seeing at Torvane over the first hour of MJD %.0f: %.2f\" (the measurement of 255 "
      "left out)\n",
      kNight, mean);

  ARSystemService nightLog(server, "ops", "secret", "arsystem");
  std::vector<TORV2NightObs> night;
  const int logged = nightLog.findTORV2NightObsByObsId(200042, night);
  if (logged == 1)
    std::printf("   night log of block %s: request %s, sky %s, transparency %d\n", night[0].obId_.c_str(),
                night[0].requestId_.c_str(), night[0].skyTransparency_.c_str(), night[0].transparency_);
  return one == 1 && refused == -1 && two.size() == 2 && seeing == 0 && mean > 0.79 && mean < 0.81 &&
                 logged == 1
             ? 0
             : 1;
}

}  // namespace

DEMO_SECTION(40, "Observation conditions: constraint set, mean seeing, night log", run);
