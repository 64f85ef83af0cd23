// Observation-condition services on sibling database files; a changed parameters file.
#include <dataAccess/conditions/ARSystemService.h>
#include <dataAccess/conditions/AmbientService.h>
#include <dataAccess/conditions/ObRep2Service.h>
#include <dataAccess/db/ConnectionPool.h>
#include <gtest/gtest.h>
#include <sybconn/SybaseConnection.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <thread>

#include "tests/support/Backend.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

const double kS = 60000.0;  // MJD whose table key is -1361750400

// Database files beside conditions.db; aliases OBREP, NIGHT, and EMPTY (a folder without them).
class Conditions : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* const dbs[][3] = {
        {"obrep2", "observation_repository",
         "insert into constraint_sets values (1, 7, 'name', 'desc', 0.75, 'CLR', 1.5, 0.25, 30, 'LS1', "
         "0.5, 9), (2, 8, 'bare', NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL); insert into "
         "constraint_sets (cs_id) values (3), (4); insert into obs_blocks (ob_id, cs_id) values (42, 1), "
         "(43, 2), (44, 3), (44, 4)"},
        {"ambient", "ambient_conditions",
         "insert into seeing_torvane values (-1361750339, 60, 50, 1, 2, 3, 4, 5, 6), (-1361750340, 60, "
         "80, 1, 2, 3, 4, 5, 6), (-1361750400, 60, 255, 1, 2, 3, 4, 5, 6), (-1361750430, 60, NULL, 1, 2, "
         "3, 4, 5, 6), (-1361750460, 60, 100, NULL, NULL, NULL, NULL, NULL, NULL); insert into ka_venna "
         "values (-1361750400, 60, 70, 1, 2, 3, 4, 5, 6)"},
        {"nightlog", "ar_system",
         "insert into TORV2_NightObs values ('REQ1', '123', 'PHO', 1), ('REQ2', '124', NULL, NULL), "
         "('REQ3', '125', 'CLR', 2), ('REQ4', '125', 'THN', 3), ('REQ4', '125', 'THN', 3)"}};
    for (const auto& [name, schema, rows] : dbs) {
      const std::string sql = backend().schema(schema) + rows;
      SybaseConnection direct;
      ASSERT_EQ(direct.connect(backend().setupServer(dir_.file(std::string(name) + ".db")), "u", "pw"), 0);
      ASSERT_EQ(direct.execute(sql).commandSucceeded(), 1) << name;
    }
    std::filesystem::create_directory(dir_.file("sub"));
    server_ = backend().server(dir_.file("conditions.db"));
    dir_.write(".dbrc",
               server_ + " obrep2 u " + pw_ + " OBREP\n" + server_ + " nightlog u " + pw_ + " NIGHT\n" +
                   backend().server(dir_.file("sub/conditions.db")) + " obrep2 u " + pw_ + " EMPTY\n",
               0600);
  }
  void TearDown() override {
    ConnectionPool::destroyInstance();
    backend().stopServers();
  }
  static testsupport::Backend& backend() { return testsupport::Backend::current(); }

  testsupport::TempDir dir_;
  std::string pw_ = dir_.sealHome("pw"), server_;
  ServiceConnectionStub stub_{"srv", "usr", "pw"};
  std::vector<Seeing> seeings_;
};

TEST_F(Conditions, StatementsAsTheStubPrintsThem) {
  const std::string cs = "obrep2..constraint_sets.", ob = "obrep2..obs_blocks";
  const std::string sql[] = {
      "select " + cs + "cs_id," + cs + "user_id," + cs + "item_name," + cs + "item_description," + cs +
          "seeing," + cs + "sky_transparency," + cs + "airmass," + cs + "fli," + cs + "moon_distance," + cs +
          "local_storage_id," + cs + "strehl_ratio," + cs + "baseline_id from obrep2..constraint_sets," + ob +
          " where " + ob + ".ob_id=-7 AND " + ob + ".cs_id=" + cs + "cs_id",
      "select distinct Request_ID,Sky_Transparency,Transparency from D..TORV2_NightObs where OB_ID='123'"};
  std::vector<ConstraintSet> sets;
  std::vector<TORV2NightObs> nights;
  testsupport::LogCapture log;
  testing::internal::CaptureStdout();
  EXPECT_EQ(ConstraintSetDAOSyb("obrep2..constraint_sets", ob).findByObsId(-7, sets, stub_), -1);
  EXPECT_EQ(TORV2NightObsDAOSyb("D..TORV2_NightObs").findByObsId(123, nights, stub_), -1);
  EXPECT_EQ(SeeingDAOSyb("t").findByDate(NAN, 1.0, seeings_, stub_), -1);  // refused unrun
  // The stub's selects fail: its line and the DAO's.
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "EXECUTE : " + sql[0] + "\nEXECUTE : " + sql[1] + "\n");
  for (const std::string& s : sql)
    EXPECT_EQ(log.count("ERROR [ <t> ] Error executing SQL command " + s + "\n"), 2u);
  EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] Invalid period from nan to 1.000000"));
}

TEST_F(Conditions, DateKeysAndMeanSeeingOverAPeriod) {
  // Days after 1980-01-01, key, valid: +-337.5 s round up; -168.75 s truncates to -168.
  const double keys[][3] = {
      {0, 0, 1},           {1, -86400, 1}, {1. / 256, -338, 1}, {-1. / 256, 337, 1}, {-1. / 512, 168, 1},
      {1. / 512, -169, 1}, {NAN, 0, 0},    {HUGE_VAL, 0, 0},    {-HUGE_VAL, 0, 0},   {1e300, 0, 0}};
  for (const auto& [days, want, valid] : keys) {
    long long key = 12345;
    EXPECT_EQ(SeeingDAOSyb::dateKey(44239.0 + days, key), valid == 1) << days;
    EXPECT_EQ(key, valid == 1 ? want : 12345) << days;
  }

  AmbientService torvane(server_, "u", "pw", "ambient", AmbientService::TORVANE);
  AmbientService kaVenna(server_, "u", "pw", "ambient", AmbientService::KA_VENNA);
  AmbientService nowhere(backend().unreachable(), "u", "pw", "ambient", AmbientService::TORVANE);
  const struct {
    const AmbientService& service;
    double start, duration, mean;
    int result;
    const char *between, *line;
  } cases[] = {
      // Widened to the two minutes before the end; 255 and NULL left out.
      {torvane, kS, 60, 0.9, 0, "between -1361750460 AND -1361750340 ",
       "DEBUG [ <t> ] Mean value equal to 0.900000 between 59999.999306 and 60000.000694\n"},
      {torvane, kS, 180, 1.0, 0, "between -1361750580 AND -1361750400 ",
       "DEBUG [ <t> ] 1 seeings values where retrieved between 60000.000000 and 60000.002083\n"},
      {torvane, kS, -60, 0.65, 0, "between -1361750340 AND -1361750220 ",
       "DEBUG [ <t> ] 2 seeings successfully"},
      {torvane, 50000.0, 3600, -5, -1, "",
       "ERROR [ <t> ] no seeings retrieved between 50000.000000 and 50000.041667 \n"},
      {torvane, NAN, 60, -5, -1, "",
       "ERROR [ <t> ] An error occured when fetching seeings between nan and nan\n"},
      {kaVenna, kS, 120, 0.7, 0, "between -1361750520 AND -1361750400 ", "Mean value equal to 0.700000"},
      {nowhere, kS, 120, -5, -1, "",
       "ERROR [ <t> ] AmbientService::findMeanSeeingByDate.Could not acquire connection\n"},
  };
  for (const auto& c : cases) {
    testsupport::LogCapture log;
    double mean = -5;
    EXPECT_EQ(c.service.findMeanSeeingByDate(c.start, c.duration, mean), c.result) << c.duration;
    EXPECT_NEAR(mean, c.mean, 1e-9) << c.duration;
    EXPECT_TRUE(log.containsFragment(c.between)) << c.duration;
    EXPECT_TRUE(log.containsFragment(c.line)) << c.duration;
    EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 0) << c.duration;  // the login given back
  }
  EXPECT_EQ(AmbientService::seeingTable(static_cast<AmbientService::ObservationSite>(7)),
            "ambient..seeing_torvane");  // an unknown site reads Torvane's table

  // NULL columns read as 0; the DAO appends and counts only what it read.
  ServiceConnectionSyb conn(server_, "u", "pw", "ambient");
  ASSERT_EQ(conn.acquire(), 0);
  seeings_.resize(1);
  ASSERT_EQ(SeeingDAOSyb("ambient..seeing_torvane").findByDate(kS, kS + 60 / 86400.0, seeings_, conn), 1);
  const Seeing& r = seeings_.at(1);
  EXPECT_EQ(std::vector<int>(
                {r.startDate_, r.interval_, r.fwhm_, r.ra_, r.dec_, r.airmass_, r.tau_, r.rfl_, r.tet_}),
            std::vector<int>({-1361750460, 60, 100, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Conditions, RowsThatStopPartWayFailTheSelect) {
  if (!backend().isSqlite()) GTEST_SKIP() << "the fault is made on the embedded file";
  SybaseConnection direct;
  ASSERT_EQ(direct.connect("sqlite:" + dir_.file("ambient.db"), "u", "pw"), 0);
  // Without the index the rows stream in the order they are stored.
  direct.execute(
      "drop index seeing_torvane_date; with recursive n(i) as (select 1 union all select i + 1 from "
      "n where i < 3000) insert into seeing_torvane select -i, 60, 80, 1, 2, 3, 4, 5, 6 from n");
  direct.disconnect();
  // Damage the file's last pages, the table's last rows: the first rows stream out, then a step fails.
  const long size = static_cast<long>(std::filesystem::file_size(dir_.file("ambient.db")));
  ASSERT_GT(size, 16 * 4096);
  dir_.scribble("ambient.db", size - 4 * 4096, 4 * 4096);
  ServiceConnectionSyb conn(server_, "u", "pw", "ambient");
  ASSERT_EQ(conn.acquire(), 0);
  testsupport::LogCapture log;
  seeings_.resize(1);
  EXPECT_EQ(SeeingDAOSyb("ambient..seeing_torvane").findByDate(44239.0, 44240.0, seeings_, conn), -1);
  EXPECT_EQ(seeings_.size(), 1u);
  EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] Error executing SQL command select start_date"));
}

std::string str(const ConstraintSet& c) {
  std::ostringstream o;
  o << c.csId_ << '|' << c.userId_ << '|' << c.itemName_ << '|' << c.itemDescription_ << '|' << c.seeing_
    << '|' << c.skyTransparency_ << '|' << c.airMass_ << '|' << c.fli_ << '|' << c.moonDistance_ << '|'
    << c.localStorageId_ << '|' << c.strehlRatio_ << '|' << c.baselineId_;
  return o.str();
}

TEST_F(Conditions, ConstraintSetOfAnObservationBlock) {
  const struct {
    const char* alias;
    int obsId, result, added;
    const char *line, *record = "";
  } cases[] = {
      {"OBREP", 42, 1, 1, "DEBUG [ <t> ] Constraint set of  42 obs block successfully retrieved\n",
       "1|7|name|desc|0.75|CLR|1.5|0.25|30|LS1|0.5|9"},
      {"OBREP", 43, 1, 1, "DEBUG [ <t> ] Constraint set of  43 obs block successfully retrieved\n",
       "2|8|bare||0||0|0|0||0|0"},
      {"OBREP", -3, 0, 0, "DEBUG [ <t> ] no constraint set associated to -3 obs block\n"},
      {"OBREP", 44, -1, 2, "ERROR [ <t> ] More than one constraint set associated to 44 obs block\n"},
      {"EMPTY", 42, -1, 0, "ERROR [ <t> ] An error occured when retrieving constraint set of 42 obs block\n"},
      {"NOPE", 42, -1, 0,
       "ERROR [ <t> ] ObRep2Service::findConstraintSetByObsId.Could not acquire connection\n"},
  };
  for (const auto& c : cases) {
    testsupport::LogCapture log;
    std::vector<ConstraintSet> sets(1);
    EXPECT_EQ(ObRep2Service(c.alias).findConstraintSetByObsId(c.obsId, sets), c.result) << c.obsId;
    EXPECT_EQ(static_cast<int>(sets.size()), 1 + c.added) << c.obsId;
    EXPECT_TRUE(log.contains("<D> " + std::string(c.line))) << c.obsId;
    EXPECT_EQ(log.contains("<D> DEBUG [ <t> ] " + std::to_string(c.added) +
                           " constraint set where retrieved for " + std::to_string(c.obsId) + "\n"),
              std::string(c.alias) == "OBREP");
    EXPECT_EQ(*c.record ? str(sets[1]) : "", c.record);
  }
}

TEST_F(Conditions, NightLogRecordOfAnObservationBlock) {
  ARSystemService nightLog("NIGHT");  // database nightlog from the parameters file
  ARSystemService noTable(server_, "u", "pw", "nosuchdb");
  ARSystemService nowhere(backend().unreachable(), "u", "pw", "d");
  const struct {
    const ARSystemService& service;
    int obsId, result, added;
    const char *line, *record = "";
  } cases[] = {
      {nightLog, 123, 1, 1, "DEBUG [ <t> ] observation night conditions of 123 successfuly retrieved\n",
       "REQ1|123|PHO|1"},
      {nightLog, 124, 1, 1, "DEBUG [ <t> ] observation night conditions of 124 successfuly retrieved\n",
       "REQ2|124||0"},
      {nightLog, 125, -1, 2, "ERROR [ <t> ] More than one night condition record retrieved for 125\n"},
      {nightLog, 127, 0, 0, "DEBUG [ <t> ] 0 night observation records were retrieved for 127\n"},
      {noTable, 123, -1, 0, "ERROR [ <t> ] An error occured when retrieving night conditions of 123\n"},
      {nowhere, 1, -1, 0,
       "ERROR [ <t> ] ARSystemService::findTORV2NightObsByObsId.Could not acquire connection\n"},
  };
  for (const auto& c : cases) {
    testsupport::LogCapture log;
    std::vector<TORV2NightObs> records(1);
    EXPECT_EQ(c.service.findTORV2NightObsByObsId(c.obsId, records), c.result) << c.obsId;
    ASSERT_EQ(static_cast<int>(records.size()), 1 + c.added) << c.obsId;
    EXPECT_TRUE(log.contains("<D> " + std::string(c.line))) << c.obsId;
    const TORV2NightObs& r = records.back();
    EXPECT_EQ(*c.record ? r.requestId_ + "|" + r.obId_ + "|" + r.skyTransparency_ + "|" +
                              std::to_string(r.transparency_)
                        : "",
              c.record);
  }
}

TEST_F(Conditions, AChangedParametersFileIsReadAgain) {
  // Each version is read once settled (file times advance in clock ticks), so the first is kept;
  // the second has the same size, inode and modification time: only its change time differs.
  const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
  for (const char* db : {"first", "other"}) {
    dir_.write(".dbrc", std::string("srv ") + db + " u " + pw_ + " A\n", 0600);
    std::filesystem::last_write_time(dir_.file(".dbrc"), old);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(ServiceConnectionSyb("A").dbName(), db);
  }
  // Found unchanged past the recheck interval, it is not read again: its password needs no key.
  std::filesystem::remove(dir_.file("key"));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(ServiceConnectionSyb("A").dbName(), "other");
}

}  // namespace
