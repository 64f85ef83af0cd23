// The replication queue: the record, the exact statements, and round trips
// through a real SQLite table.
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>

#include <functional>

#include "tests/catalogue/CatalogueFixture.h"
#include "tests/support/LogCapture.h"

namespace {

using RR = ReplicationRequest;

TEST(ReplicationRequestRecord, StatusKeyAndDescription) {
  RR r("F1");
  r.statusId(-5);
  EXPECT_EQ(r.statusId_, RR::Error);
  r.statusId(6);
  EXPECT_EQ(r.statusId_, RR::Reported);
  EXPECT_EQ(RR::statusAsString(RR::Error), "Error");
  EXPECT_EQ(RR::statusAsString(static_cast<RR::RequestStatus>(7)), "UNKNOWN");

  EXPECT_EQ(r.genKey("/"), "F1");
  r.fileVersion_ = -1;
  EXPECT_EQ(r.genKey("/"), "F1");
  r.fileVersion_ = 2;
  r.diskId_ = "D9";
  EXPECT_EQ(r.genKey(":"), "D9:F1:2");

  r.submitterId_ = "ops";
  r.submissionTime_ = {1500, 500000};
  r.priority_ = 3;
  r.lastUpdateTime_ = {1600, 0};
  r.message_ = "m";
  EXPECT_EQ(
      r.toString(),
      "file_id = \"F1\"; file_version = \"2\"; disk_id = \"D9\"; submitter_id = \"ops\"; submission_time = "
      "1500.5 priority = \"3\"; status_id = \"6\"; last_update_time = 1600 message = \"m\"; ");
}

class ReplicationDAO : public CatalogueFixture {
 protected:
  RR request(const std::string& file, int version, const std::string& disk, const std::string& message = "") {
    RR r(file);
    r.fileVersion_ = version;
    r.diskId_ = disk;
    r.submitterId_ = "ops";
    r.priority_ = 5;
    r.statusId(RR::Scheduled);
    r.message_ = message;
    return r;
  }
  ReplicationRequestDAOSyb dao_{"repl_queue"};
};

TEST_F(ReplicationDAO, ExactStatements) {
  std::vector<RR> out;
  const std::string select =
      "select file_id, file_version, disk_id, submitter_id, submission_time, priority, status_id, "
      "last_update_time, message from repl_queue";
  const struct {
    std::function<void()> call;
    std::string sql;
  } cases[] = {
      {[&] { dao_.insert(request("F", 1, ""), stub_); },
       "insert into repl_queue (file_id,file_version,submitter_id,priority,status_id) values "
       "('F',1,'ops',5,0)"},
      {[&] { dao_.insert(request("F", 1, "D", "O'Brien's"), stub_); },
       "insert into repl_queue (file_id,file_version,disk_id,submitter_id,priority,status_id,message) "
       "values ('F',1,'D','ops',5,0,'O''Brien''s')"},
      {[&] { dao_.update("F", RR::Replicated, "", stub_); },
       "update repl_queue set status_id = 5, last_update_time = getdate() where file_id='F'"},
      {[&] { dao_.update("F", 2, "D", RR::Error, "bad", stub_); },
       "update repl_queue set status_id = -1, last_update_time = getdate(), message = 'bad' where "
       "file_id='F' and file_version=2 and disk_id='D'"},
      {[&] { dao_.remove("F", 0, "", stub_); }, "delete repl_queue where file_id='F'"},
      {[&] { dao_.remove("F", -3, "D", stub_); }, "delete repl_queue where file_id='F' and disk_id='D'"},
      {[&] { dao_.find(RR::Pending, out, stub_); }, select + " where status_id=1 order by submission_time"},
      {[&] { dao_.find("a'b", out, stub_); }, select + " where file_id='a''b' order by submission_time"},
      {[&] { EXPECT_EQ(dao_.loadAll(out, stub_), -1); }, select + " order by submission_time"},
  };
  for (const auto& c : cases) EXPECT_EQ(printed(c.call), "EXECUTE : " + c.sql + "\n");

  // Log texts of the write paths, and a refused insert that runs nothing.
  testsupport::LogCapture log;
  EXPECT_EQ(printed([&] { EXPECT_EQ(dao_.insert(request("", 1, ""), stub_), -1); }), "");
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Can't insert replication request with empty fileId\n"));
  printed([&] { dao_.update("F", 2, "D", RR::Ready, "", stub_); });
  EXPECT_TRUE(
      log.contains("<D> DEBUG [ <t> ] Could not update replication request file=F version=2 disk=D to "
                   "status Ready\n"));
}

TEST_F(ReplicationDAO, RoundTrips) {
  testsupport::LogCapture log;
  EXPECT_EQ(dao_.insert(request("F1", 1, "D1"), *conn_), 1);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully submitted replication request for file F1\n"));
  EXPECT_EQ(dao_.insert(request("F1", 2, "D1"), *conn_), 1);
  EXPECT_EQ(dao_.insert(request("F2", 1, "", "it's queued"), *conn_), 1);

  std::vector<RR> found{RR("kept")};
  EXPECT_EQ(dao_.find("F1", found, *conn_), 2);  // the rows read, not the vector's size
  EXPECT_TRUE(log.containsFragment("DEBUG [ <t> ] select file_id, file_version, disk_id, submitter_id"));
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[1].fileId_, "F1");
  EXPECT_EQ(found[1].diskId_, "D1");
  EXPECT_EQ(found[1].submitterId_, "ops");
  EXPECT_EQ(found[1].priority_, 5);
  EXPECT_GT(found[1].submissionTime_.tv_sec, 0);  // stamped by the table

  // Status moves: one version and disk, then every row of the file.
  EXPECT_EQ(dao_.update("F1", 2, "D1", RR::Replicating, "", *conn_), 1);
  EXPECT_EQ(dao_.update("F1", RR::Replicated, "done", *conn_), 2);
  EXPECT_TRUE(
      log.contains("<D> DEBUG [ <t> ] Successfully updated replication request file=F1 to status "
                   "Replicated\n"));
  EXPECT_EQ(dao_.update("nope", RR::Replicated, "", *conn_), 0);
  std::vector<RR> replicated;
  EXPECT_EQ(dao_.find(RR::Replicated, replicated, *conn_), 2);
  EXPECT_EQ(replicated[0].message_, "done");

  // NULL columns read as defaults; an unknown status id reads as Error.
  std::vector<RR> f2;
  ASSERT_EQ(dao_.find("F2", f2, *conn_), 1);
  EXPECT_EQ(f2[0].diskId_, "");
  EXPECT_EQ(f2[0].message_, "it's queued");
  conn_->execute("insert into repl_queue (file_id, submitter_id, status_id) values ('F3', 'x', 9)");
  std::vector<RR> all;
  EXPECT_EQ(dao_.loadAll(all, *conn_), 4);
  EXPECT_EQ(all.back().fileId_, "F3");
  EXPECT_EQ(all.back().statusId_, RR::Error);

  EXPECT_EQ(dao_.remove("F1", 1, "D1", *conn_), 1);
  EXPECT_EQ(dao_.remove("F1", 0, "", *conn_), 1);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully removed replication request file=F1\n"));
  EXPECT_EQ(scalar("select count(*) from repl_queue"), 2);

  // A failing statement gives -1 and the failure texts.
  ReplicationRequestDAOSyb missing("no_such_table");
  EXPECT_EQ(missing.insert(request("F", 1, ""), *conn_), -1);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Could not submit replication request for file F\n"));
  std::vector<RR> none;
  EXPECT_EQ(missing.loadAll(none, *conn_), -1);
  EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] Error executing SQL command select file_id"));
}

}  // namespace
