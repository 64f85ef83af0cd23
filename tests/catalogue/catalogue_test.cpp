// Catalogue, safe-copies and queue DAOs: statements via the stub, round trips, failing selects.
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/KestFilesSafeDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/Backend.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

using RR = ReplicationRequest;
using Ints = std::vector<int>;  // results of calls made in order, compared at once

// The fields a round trip keeps: id|name|version|disk|format|size|unpacked|ignore|checksum|status|ingested.
std::string str(const KestFile& f) {
  std::ostringstream o;
  o << f.fileId_ << '|' << f.fileName_ << '|' << f.fileVersion_ << '|' << f.diskId_ << '|' << f.format_ << '|'
    << f.fileSize_ << '|' << f.uncompressedFileSize_ << '|' << f.ignore_ << '|' << f.checksum_ << '|'
    << f.fileStatus_ << '|' << f.ingestionDate_.tv_sec << '.' << f.ingestionDate_.tv_usec;
  return o.str();
}

RR request(const std::string& id, int version, const std::string& disk, const std::string& msg = "") {
  RR r(id);
  r.fileVersion_ = version;
  r.diskId_ = disk;
  r.submitterId_ = "ops";
  r.priority_ = 5;
  r.statusId(RR::Scheduled);
  r.message_ = msg;
  return r;
}

// The example schemas in one file, reached on the backend of the run; a stub that prints SQL.
class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& backend = testsupport::Backend::current();
    std::string schema;
    for (const char* name : {"replication_queue", "file_catalogue", "safe_copies"})
      schema += backend.schema(name);
    SybaseConnection direct;
    ASSERT_EQ(direct.connect(backend.setupServer(dir_.file("archive.db")), "ops", "pw"), 0);
    ASSERT_EQ(direct.execute(schema).commandSucceeded(), 1);
    conn_ = std::make_unique<ServiceConnectionSyb>(backend.server(dir_.file("archive.db")), "ops", "pw",
                                                   "archive");
    ASSERT_EQ(conn_->acquire(), 0);
    stub_.acquire();
  }
  void TearDown() override {
    conn_.reset();
    ConnectionPool::destroyInstance();
    testsupport::Backend::current().stopServers();
  }
  static KestFile file(const std::string& id, int version, const std::string& disk, char status = 'S') {
    KestFile f;
    f.fileId_ = id;
    f.fileName_ = id + ".fits";
    f.fileVersion_ = version;
    f.diskId_ = disk;
    f.format_ = "FITS";
    f.fileSize_ = 1000;
    f.uncompressedFileSize_ = 4000;
    f.fileStatus_ = static_cast<KestFileStatus>(status);
    f.ingestionDate_ = {1700000000, 123000};
    return f;
  }

  testsupport::TempDir dir_;
  std::unique_ptr<ServiceConnectionSyb> conn_;
  ServiceConnectionStub stub_{"srv", "usr", "pw"};
  KestFileDAOSyb kest_{"kest_files"};
  KestFilesSafeDAOSyb safe_{"kest_files_safe"};
  ReplicationRequestDAOSyb queue_{"repl_queue"};
  std::vector<KestFile> files_;
  std::vector<RR> requests_;
};

TEST(ReplicationRequestRecord, StatusKeyAndDescription) {
  RR r("F1");
  EXPECT_EQ(r.genKey("/"), "F1");
  r.fileVersion_ = -1;
  EXPECT_EQ(r.genKey("/"), "F1");
  r = request("F1", 2, "D9", "m");
  EXPECT_EQ(r.genKey(":"), "D9:F1:2");
  r.statusId(-5);
  EXPECT_EQ(r.statusId_, RR::Error);
  r.statusId(6);  // the last valid one: kept, as the text below shows
  EXPECT_EQ(RR::statusAsString(static_cast<RR::RequestStatus>(7)), "UNKNOWN");
  r.submissionTime_ = {1500, 500000};
  r.lastUpdateTime_ = {1600, 0};
  EXPECT_EQ(
      r.toString(),
      "file_id = \"F1\"; file_version = \"2\"; disk_id = \"D9\"; submitter_id = \"ops\"; submission_time = "
      "1500.5 priority = \"5\"; status_id = \"6\"; last_update_time = 1600 message = \"m\"; ");
}

#define CALL(expr) [&] { return expr; }

// The stub prints each statement and runs nothing: every call fails. An empty `sql`: refused unrun.
TEST_F(Catalogue, ExactStatements) {
  const std::string kestSelect =
      "select file_id, file_name, file_version, disk_id, format, file_size, uncompressed_file_size, "
      "compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, creation_date from "
      "kest_files";
  const std::string queueSelect =
      "select file_id, file_version, disk_id, submitter_id, submission_time, priority, status_id, "
      "last_update_time, message from repl_queue";
  const std::string empty = "ERROR [ <t> ] Can't insert kest file with empty fields";
  const struct {
    std::function<int()> call;
    std::string sql, log = "";  // a line the call logs
  } cases[] = {
      {CALL(kest_.insert(file("F", 2, "D"), stub_)),
       "insert into kest_files (file_id,file_version,file_name,disk_id,format,file_size,"
       "uncompressed_file_size,file_status,ingestion_date) values "
       "('F',2,'F.fits','D','FITS',1000,4000,'S','" +
           SybUtils::convertFromUnixTimeval(file("F", 2, "D").ingestionDate_) + "')"},
      {CALL(kest_.insert("D1", "F", 2, "D2", stub_)),
       "INSERT INTO kest_files (file_id, file_name, file_version, disk_id, format, file_size, "
       "uncompressed_file_size, compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, "
       "creation_date) SELECT file_id, file_name, file_version, disk_id='D2', format, file_size, "
       "uncompressed_file_size, compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, "
       "creation_date=getdate() FROM kest_files WHERE disk_id='D1' AND file_id='F' AND file_version=2"},
      {CALL(kest_.update("F", 'X', stub_)), "update kest_files set file_status = 'X' where file_id='F'"},
      {CALL(safe_.find("F", 2, stub_)),
       "select file_id, file_version from kest_files_safe where file_id='F' AND file_version=2"},
      {CALL(queue_.loadAll(requests_, stub_)), queueSelect + " order by submission_time"},
      {CALL(kest_.update("F", 1, "D", 'X', stub_)),
       "update kest_files set file_status = 'X' where file_id='F' and file_version=1 and disk_id='D'",
       "DEBUG [ <t> ] Could not update replication request file=F version=1 disk=D to status X"},
      {CALL(kest_.remove("O'Neil", 0, "", stub_)), "delete kest_files where file_id='O''Neil'"},
      {CALL(kest_.find("F", 3, "D", files_, stub_)),
       kestSelect + " where file_id='F' AND file_version=3 AND disk_id='D' order by ingestion_date"},
      {CALL(kest_.find('S', files_, stub_)), kestSelect + " where file_status='S' order by ingestion_date",
       "DEBUG [ <t> ] " + kestSelect + " where file_status='S' order by ingestion_date"},
      {CALL(kest_.insert(KestFile(), stub_)), "", "ERROR [ <t> ] Can't insert kest file with empty fileId"},
      {CALL(kest_.insert("", "F", 1, "D", stub_)), "", empty},
      {CALL(kest_.insert("D", "", 1, "D", stub_)), "", empty},
      {CALL(queue_.insert(request("F", 1, ""), stub_)),
       "insert into repl_queue (file_id,file_version,submitter_id,priority,status_id) values "
       "('F',1,'ops',5,0)"},
      {CALL(queue_.insert(request("F", 1, "D", "O'Brien's"), stub_)),
       "insert into repl_queue (file_id,file_version,disk_id,submitter_id,priority,status_id,message) "
       "values ('F',1,'D','ops',5,0,'O''Brien''s')"},
      {CALL(queue_.update("F", RR::Replicated, "", stub_)),
       "update repl_queue set status_id = 5, last_update_time = getdate() where file_id='F'"},
      {CALL(queue_.update("F", 2, "D", RR::Error, "bad", stub_)),
       "update repl_queue set status_id = -1, last_update_time = getdate(), message = 'bad' where "
       "file_id='F' and file_version=2 and disk_id='D'",
       "DEBUG [ <t> ] Could not update replication request file=F version=2 disk=D to status Error"},
      {CALL(queue_.remove("F", -3, "D", stub_)), "delete repl_queue where file_id='F' and disk_id='D'"},
      {CALL(queue_.find(RR::Pending, requests_, stub_)),
       queueSelect + " where status_id=1 order by submission_time"},
      {CALL(queue_.find("a'b", requests_, stub_)),
       queueSelect + " where file_id='a''b' order by submission_time"},
      {CALL(queue_.insert(request("", 1, ""), stub_)), "",
       "ERROR [ <t> ] Can't insert replication request with empty fileId"},
  };
  for (const auto& c : cases) {
    testsupport::LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.call(), -1) << c.sql;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.sql.empty() ? "" : "EXECUTE : " + c.sql + "\n");
    EXPECT_TRUE(c.log.empty() || log.contains("<D> " + c.log + "\n")) << c.log;
  }
}

TEST_F(Catalogue, KestFileRoundTripsAndTheCopyToAnotherDisk) {
  for (const KestFile& f : {file("F1", 1, "D1"), file("F1", 2, "D1", 'N'), file("O'Brien", 1, "D1")})
    EXPECT_EQ(kest_.insert(f, *conn_), 1) << f.fileId_;
  const time_t before = time(nullptr);
  EXPECT_EQ(kest_.insert("D1", "F1", 1, "D2", *conn_), 1);
  EXPECT_EQ(kest_.insert("D1", "F1", 9, "D3", *conn_), 0);  // no such source row
  files_.resize(3);                                         // appended to: the result counts these too
  EXPECT_EQ(kest_.find("F1", 1, "D2", files_, *conn_), 4);
  EXPECT_EQ(str(files_.back()), "F1|F1.fits|1|D2|FITS|1000|4000|0||S|1700000000.123000");
  EXPECT_GE(files_.back().creationDate_.tv_sec, before - 1);  // stamped by the server now
  EXPECT_EQ(kest_.find("O'Brien", files_ = {}, *conn_), 1);
  EXPECT_EQ(files_[0].fileId_, "O'Brien");

  // Safe copies are 'S' rows not ignored. A select the server refuses fails, whatever was in the vector.
  EXPECT_EQ(Ints({safe_.find("F1", 1, *conn_), safe_.find("F1", 2, *conn_),
                  kest_.update("F1", 1, "D2", 'X', *conn_), safe_.find("F1", 1, *conn_),
                  kest_.update("F1", 'S', *conn_), kest_.find('S', files_ = {}, *conn_),
                  KestFilesSafeDAOSyb("missing_view").find("F1", 1, *conn_),
                  KestFileDAOSyb("missing").find("F1", 1, "D2", files_, *conn_)}),
            Ints({2, 0, 1, 1, 3, 4, -1, -1}));
  EXPECT_EQ(Ints({kest_.remove("F1", 2, "", *conn_), kest_.remove("F1", 0, "D2", *conn_),
                  kest_.loadAll(files_ = {}, *conn_)}),
            Ints({1, 1, 2}));

  conn_->execute(
      "insert into kest_files (file_id, file_version, disk_id, file_size, uncompressed_file_size) "
      "values ('big', 1, 'D', 3221225472, -3221225472), ('frac', 1, 'D', 3.9, -3.9)");
  ASSERT_EQ(kest_.find("big", files_ = {}, *conn_), 1);
  ASSERT_EQ(kest_.find("frac", files_, *conn_), 2);
  // NULL columns leave the defaults; sizes beyond 32 bits are held at its bounds.
  EXPECT_EQ(str(files_[0]), "big||1|D||2147483647|-2147483648|0|| |0.0");
  EXPECT_EQ(str(files_[1]), "frac||1|D||3|-3|0|| |0.0");
}

TEST_F(Catalogue, ReplicationRoundTrips) {
  testsupport::LogCapture log;
  for (const RR& r : {request("F1", 1, "D1"), request("F1", 2, "D1"), request("F2", 1, "", "it's queued")})
    EXPECT_EQ(queue_.insert(r, *conn_), 1) << r.fileId_;
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully submitted replication request for file F1\n"));
  requests_.emplace_back("kept");
  EXPECT_EQ(queue_.find("F1", requests_, *conn_), 2);  // the rows read, not the vector's size
  EXPECT_TRUE(log.containsFragment("DEBUG [ <t> ] select file_id, file_version, disk_id, submitter_id"));
  ASSERT_EQ(requests_.size(), 3u);
  const RR r = requests_[1];
  EXPECT_EQ(r.fileId_ + "|" + std::to_string(r.fileVersion_) + "|" + r.diskId_ + "|" + r.submitterId_ + "|" +
                std::to_string(r.priority_),
            "F1|1|D1|ops|5");
  EXPECT_GT(r.submissionTime_.tv_sec, 0);  // stamped by the table

  // Status moves: one version and disk, then every row of the file.
  EXPECT_EQ(queue_.update("F1", 2, "D1", RR::Replicating, "", *conn_), 1);
  EXPECT_EQ(queue_.update("F1", RR::Replicated, "done", *conn_), 2);
  EXPECT_TRUE(log.contains(
      "<D> DEBUG [ <t> ] Successfully updated replication request file=F1 to status Replicated\n"));
  EXPECT_EQ(queue_.update("nope", RR::Replicated, "", *conn_), 0);
  EXPECT_EQ(queue_.find(RR::Replicated, requests_ = {}, *conn_), 2);
  EXPECT_EQ(requests_[0].message_, "done");

  // NULL columns read as defaults; an unknown status id reads as Error.
  ASSERT_EQ(queue_.find("F2", requests_ = {}, *conn_), 1);
  EXPECT_EQ(requests_[0].diskId_ + "|" + requests_[0].message_, "|it's queued");
  conn_->execute("insert into repl_queue (file_id, submitter_id, status_id) values ('F3', 'x', 9)");
  EXPECT_EQ(queue_.loadAll(requests_ = {}, *conn_), 4);
  EXPECT_EQ(requests_.back().fileId_ + "|" + std::to_string(requests_.back().statusId_), "F3|-1");  // Error

  EXPECT_EQ(queue_.remove("F1", 1, "D1", *conn_), 1);
  EXPECT_EQ(queue_.remove("F1", 0, "", *conn_), 1);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully removed replication request file=F1\n"));
  EXPECT_EQ(queue_.loadAll(requests_ = {}, *conn_), 2);

  ReplicationRequestDAOSyb missing("no_such_table");
  EXPECT_EQ(Ints({missing.insert(request("F", 1, ""), *conn_), missing.loadAll(requests_, *conn_)}),
            Ints({-1, -1}));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Could not submit replication request for file F\n"));
  EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] Error executing SQL command select file_id"));
}

// A batch is one transaction: all rows or none, with the single insert's statements, in runs of rows that set
// the same columns; the failing row is named and the connection goes on.
TEST_F(Catalogue, BatchesWriteAllRowsOrNone) {
  testsupport::LogCapture log;
  testing::internal::CaptureStdout();
  kest_.insert(file("F", 2, "D"), stub_);
  kest_.insert(file("G", 1, "D"), stub_);
  const std::string singles = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  EXPECT_EQ(kest_.insert({file("F", 2, "D"), file("G", 1, "D")}, stub_), -1);  // the stub writes nothing
  EXPECT_EQ(queue_.insert({request("F", 1, ""), RR("")}, stub_), -1);          // refused before it starts
  EXPECT_EQ(testing::internal::GetCapturedStdout(), singles);
  EXPECT_TRUE(log.containsFragment("ERROR [ <t> ] Could not submit 2 rows into repl_queue: row 1 refused"));

  const std::vector<RR> mixed = {request("A", 1, "D1", "it's"), request("B", 1, ""), request("C", 1, ""),
                                 request("D", 2, "D2", "m")};
  EXPECT_EQ(queue_.insert(mixed, *conn_) + queue_.insert(std::vector<RR>{}, *conn_), 4);  // empty: 0
  EXPECT_EQ(log.count("Successfully submitted"), 1u);                                     // one line a batch
  ASSERT_EQ(queue_.loadAll(requests_, *conn_), 4);
  std::string seen;
  for (const RR& r : requests_) seen += r.fileId_ + r.diskId_ + ":" + r.message_ + " ";
  EXPECT_EQ(seen, "AD1:it's B: C: DD2:m ");

  // Inside the caller's transaction the batch is a nested level: the caller's rollback takes it back.
  ASSERT_EQ(conn_->beginTransaction(), 0);
  EXPECT_EQ(queue_.insert(mixed, *conn_), 4);
  ASSERT_EQ(conn_->rollbackTransaction(), 0);
  EXPECT_EQ(queue_.loadAll(requests_ = {}, *conn_), 4);

  // Two runs (a format from row 2500 on), the key of row 10 again at row 5000 of 10000.
  const char* unique = "create unique index kest_key on kest_files (file_id, file_version, disk_id)";
  ASSERT_EQ(conn_->execute(unique).commandSucceeded(), 1);
  for (int i = 0; i < 10000; ++i) {
    files_.push_back(file("K" + std::to_string(i == 5000 ? 10 : i), 1, "D"));
    if (i < 2500) files_.back().format_.clear();
  }
  EXPECT_EQ(kest_.insert(files_, *conn_), -1);
  EXPECT_TRUE(log.containsFragment(
      "ERROR [ <t> ] Could not submit 10000 rows into kest_files: row 5000 refused by the server"));
  EXPECT_EQ(log.count("UNIQUE constraint") + log.count("unique constraint"), 1u);
  EXPECT_EQ(kest_.loadAll(files_ = {}, *conn_) + conn_->transactionNumber(), 0);  // none written or open
  EXPECT_EQ(kest_.insert({file("K1", 1, "D"), file("K2", 1, "D")}, *conn_), 2);
  EXPECT_EQ(kest_.insert({file("K1", 1, "D"), file("K3", 1, "D")}, *conn_), -1);  // the first row refused
  EXPECT_TRUE(log.containsFragment("Could not submit 2 rows into kest_files: row 0 refused by the server"));
  ASSERT_EQ(kest_.loadAll(files_, *conn_), 2);
  EXPECT_EQ(str(files_[1]), "K2|K2.fits|1|D|FITS|1000|4000|0||S|1700000000.123000");
}

// Threads move requests through the queue in numbered transactions, the inner one rolled back, each step on
// a login from the pool: every row is there once, and a shared counter took every outer increment.
TEST_F(Catalogue, ConcurrentTransactionsLoseAndDoubleNothing) {
  ASSERT_EQ(queue_.insert(request("counter", 1, "D"), *conn_), 1);
  const int kThreads = 8, kSteps = 12;
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      ReplicationRequestDAOSyb queue("repl_queue");
      for (int i = 0; i < kSteps; ++i) {
        ServiceConnectionSyb c(conn_->server(), "ops", "pw", "archive");
        const std::string id = "T" + std::to_string(t) + "." + std::to_string(i);
        const bool ok = c.acquire() == 0 && c.beginTransaction() == 0 &&
                        queue.insert(request(id, 1, "D"), c) == 1 &&
                        c.execute("update repl_queue set priority = priority + 1 where file_id = 'counter'")
                                .commandSucceeded() == 1 &&
                        c.beginTransaction() == 0 && queue.update(id, RR::Error, "undone", c) == 1 &&
                        c.rollbackTransaction() == 0 && queue.update(id, RR::Replicated, "", c) == 1 &&
                        c.commitTransaction() == 0;
        if (!ok) ++failed;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(failed.load(), 0);
  ASSERT_EQ(queue_.find(RR::Replicated, requests_, *conn_), kThreads * kSteps);
  std::set<std::string> ids;
  for (const RR& r : requests_) ids.insert(r.fileId_);
  ASSERT_EQ(queue_.find("counter", requests_, *conn_), 1);  // appended
  EXPECT_EQ(std::make_pair(ids.size(), requests_.back().priority_),
            std::make_pair(requests_.size() - 1, 5 + kThreads * kSteps));
}

TEST_F(Catalogue, FindersFailWhenTheDatabaseFailsThem) {
  if (!testsupport::Backend::current().isSqlite()) GTEST_SKIP() << "the faults are made on the embedded file";
  const std::string rows =
      " with recursive n(i) as (select 1 union all select i + 1 from n where i < 300) select 'F', 'D' || i, ";
  // The date index lets the catalogue's finder stream its rows.
  const std::string fill =
      "create index kest_date on kest_files (ingestion_date); insert into kest_files (file_id, "
      "disk_id, file_status, checksum)" +
      rows +
      "'S', printf('%0150d', i) from n; insert into "
      "repl_queue (file_id, disk_id, file_version, submitter_id, status_id, message)" +
      rows + "1, 'ops', 1, printf('%0150d', i) from n";
  ASSERT_EQ(conn_->execute(fill).commandSucceeded(), 1);
  // One finder of each DAO: the others differ only in their where clauses.
  const std::function<int()> finders[] = {CALL(safe_.find("F", 1, *conn_)),
                                          CALL(kest_.loadAll(files_ = {}, *conn_)),
                                          CALL(queue_.loadAll(requests_ = {}, *conn_))};
  for (const auto& find : finders) EXPECT_EQ(find(), 300);
  std::vector<long> lastPages;  // of both tables, damaged below
  for (const char* table : {"kest_files", "repl_queue"}) {
    auto rs = conn_->execute(std::string("select pageno from dbstat where name = '") + table +
                             "' and pagetype = 'leaf' order by path desc limit 1");
    lastPages.push_back(rs.next() ? rs.getLongValue(1) : -999);
  }
  // Streamed rows fail part-way; sorted ones before the first row.
  conn_.reset();
  ConnectionPool::destroyInstance();  // the last login closes the file
  for (long page : lastPages) dir_.scribble("archive.db", (page - 1) * 4096, 4096);
  conn_ = std::make_unique<ServiceConnectionSyb>("sqlite:" + dir_.file("archive.db"), "ops", "pw", "");
  ASSERT_EQ(conn_->acquire(), 0);
  for (const auto& find : finders) {
    testsupport::LogCapture log;
    EXPECT_EQ(find(), -1);
    EXPECT_TRUE(log.containsFragment("malformed"));
  }
}

}  // namespace
