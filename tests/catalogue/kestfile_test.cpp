// The file catalogue and the safe-copies count: exact statements, round
// trips, the in-database copy to another disk, sizes beyond 32 bits.
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/KestFilesSafeDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <sybconn/SybUtils.h>

#include <climits>
#include <functional>

#include "tests/catalogue/CatalogueFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class KestFileDAO : public CatalogueFixture {
 protected:
  KestFile file(const std::string& id, int version, const std::string& disk, char status = 'S') {
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
  KestFileDAOSyb dao_{"kest_files"};
};

TEST_F(KestFileDAO, ExactStatements) {
  KestFile bare;
  bare.fileId_ = "F";
  bare.fileVersion_ = 1;
  bare.fileStatus_ = 'X';
  bare.ingestionDate_ = {1700000000, 123000};
  const std::string date = SybUtils::convertFromUnixTimeval(bare.ingestionDate_);
  const std::string select =
      "select file_id, file_name, file_version, disk_id, format, file_size, uncompressed_file_size, "
      "compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, creation_date from "
      "kest_files";
  std::vector<KestFile> out;
  KestFilesSafeDAOSyb safe("kest_files_safe");
  const struct {
    std::function<void()> call;
    std::string sql;
  } cases[] = {
      {[&] { dao_.insert(bare, stub_); },
       "insert into kest_files (file_id,file_version,file_size,uncompressed_file_size,file_status,"
       "ingestion_date) values ('F',1,0,0,'X','" +
           date + "')"},
      {[&] { dao_.insert(file("F", 2, "D"), stub_); },
       "insert into kest_files (file_id,file_version,file_name,disk_id,format,file_size,"
       "uncompressed_file_size,file_status,ingestion_date) values "
       "('F',2,'F.fits','D','FITS',1000,4000,'S','" +
           date + "')"},
      {[&] { dao_.insert("D1", "F", 2, "D2", stub_); },
       "INSERT INTO kest_files (file_id, file_name, file_version, disk_id, format, file_size, "
       "uncompressed_file_size, compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, "
       "creation_date) SELECT file_id, file_name, file_version, disk_id='D2', format, file_size, "
       "uncompressed_file_size, compression, ingestion_date, ignore, checksum, checksum_plugin, file_status, "
       "creation_date=getdate() FROM kest_files WHERE disk_id='D1' AND file_id='F' AND file_version=2"},
      {[&] { dao_.update("F", 'X', stub_); }, "update kest_files set file_status = 'X' where file_id='F'"},
      {[&] { dao_.update("F", 1, "D", 'X', stub_); },
       "update kest_files set file_status = 'X' where file_id='F' and file_version=1 and disk_id='D'"},
      {[&] { dao_.remove("O'Neil", 0, "", stub_); }, "delete kest_files where file_id='O''Neil'"},
      {[&] { dao_.find("F", 3, "D", out, stub_); },
       select + " where file_id='F' AND file_version=3 AND disk_id='D' order by ingestion_date"},
      {[&] { dao_.find('S', out, stub_); }, select + " where file_status='S' order by ingestion_date"},
      {[&] { EXPECT_EQ(safe.find("F", 2, stub_), -1); },
       "select file_id, file_version from kest_files_safe where file_id='F' AND file_version=2"},
  };
  for (const auto& c : cases) EXPECT_EQ(printed(c.call), "EXECUTE : " + c.sql + "\n");

  // Refusals run nothing; the status texts follow the replication wording.
  testsupport::LogCapture log;
  EXPECT_EQ(printed([&] { EXPECT_EQ(dao_.insert(KestFile(), stub_), -1); }), "");
  EXPECT_EQ(printed([&] { EXPECT_EQ(dao_.insert("", "F", 1, "D", stub_), -1); }), "");
  EXPECT_EQ(printed([&] { EXPECT_EQ(dao_.insert("D", "", 1, "D", stub_), -1); }), "");
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Can't insert kest file with empty fileId\n"));
  EXPECT_EQ(log.count("Can't insert kest file with empty fields"), 2u);
  printed([&] { dao_.update("F", 1, "", 'Q', stub_); });
  EXPECT_TRUE(
      log.contains("<D> DEBUG [ <t> ] Could not update replication request file=F version=1 to status Q\n"));
}

TEST_F(KestFileDAO, RoundTripsAndTheCopyToAnotherDisk) {
  testsupport::LogCapture log;
  EXPECT_EQ(dao_.insert(file("F1", 1, "D1"), *conn_), 1);
  EXPECT_EQ(dao_.insert(file("F1", 2, "D1", 'N'), *conn_), 1);
  KestFile quoted = file("O'Brien", 1, "D1");
  EXPECT_EQ(dao_.insert(quoted, *conn_), 1);

  timeval before{};
  gettimeofday(&before, nullptr);
  EXPECT_EQ(dao_.insert("D1", "F1", 1, "D2", *conn_), 1);
  EXPECT_EQ(dao_.insert("D1", "F1", 9, "D3", *conn_), 0);  // no such source row
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully submitted replication request for file F1\n"));

  std::vector<KestFile> copies(3);  // appended to: the result counts these too
  EXPECT_EQ(dao_.find("F1", 1, "D2", copies, *conn_), 4);
  const KestFile& copy = copies.back();
  EXPECT_EQ(copy.diskId_, "D2");
  EXPECT_EQ(copy.fileName_, "F1.fits");
  EXPECT_EQ(copy.fileSize_, 1000);
  EXPECT_EQ(copy.fileStatus_, 'S');
  EXPECT_EQ(copy.ingestionDate_.tv_sec, 1700000000);
  EXPECT_EQ(copy.ingestionDate_.tv_usec, 123000);
  EXPECT_GE(copy.creationDate_.tv_sec, before.tv_sec - 1);  // stamped by the server now

  std::vector<KestFile> mine;
  EXPECT_EQ(dao_.find("O'Brien", mine, *conn_), 1);
  EXPECT_EQ(mine[0].fileId_, "O'Brien");

  // Safe copies: 'S' rows not ignored.
  KestFilesSafeDAOSyb safe("kest_files_safe");
  EXPECT_EQ(safe.find("F1", 1, *conn_), 2);
  EXPECT_EQ(safe.find("F1", 2, *conn_), 0);
  EXPECT_EQ(safe.find("", 1, *conn_), 0);
  EXPECT_EQ(dao_.update("F1", 1, "D2", 'X', *conn_), 1);
  EXPECT_EQ(safe.find("F1", 1, *conn_), 1);
  EXPECT_EQ(dao_.update("F1", 'S', *conn_), 3);
  EXPECT_EQ(safe.find("F1", 1, *conn_), 2);
  std::vector<KestFile> stored;
  EXPECT_EQ(dao_.find('S', stored, *conn_), 4);
  EXPECT_EQ(KestFilesSafeDAOSyb("missing_view").find("F1", 1, *conn_), -1);
  // A select the server refuses fails, whatever was in the vector.
  EXPECT_EQ(KestFileDAOSyb("missing").find("F1", 1, "D2", copies, *conn_), -1);
  EXPECT_EQ(KestFileDAOSyb("missing").find("F1", mine, *conn_), -1);

  EXPECT_EQ(dao_.remove("F1", 2, "", *conn_), 1);
  EXPECT_EQ(dao_.remove("F1", 0, "D2", *conn_), 1);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Successfully removed replication request file=F1 disk=D2\n"));
  std::vector<KestFile> all;
  EXPECT_EQ(dao_.loadAll(all, *conn_), 2);
}

TEST_F(KestFileDAO, NullsAndSizesBeyondThirtyTwoBits) {
  conn_->execute(
      "insert into kest_files (file_id, file_version, disk_id, file_size, uncompressed_file_size, "
      "file_status) "
      "values ('big', 1, 'D', 3221225472, -3221225472, NULL)");
  conn_->execute(
      "insert into kest_files (file_id, file_version, disk_id, file_size, uncompressed_file_size, "
      "ingestion_date) "
      "values ('frac', 1, 'D', 3.9, -3.9, NULL)");
  std::vector<KestFile> rows;
  ASSERT_EQ(dao_.find("big", rows, *conn_), 1);
  EXPECT_EQ(rows[0].fileSize_, INT_MAX);
  EXPECT_EQ(rows[0].uncompressedFileSize_, INT_MIN);
  EXPECT_EQ(rows[0].fileStatus_, ' ');
  EXPECT_EQ(rows[0].fileName_, "");
  EXPECT_EQ(rows[0].checksum_, "");
  EXPECT_EQ(rows[0].ignore_, 0);
  ASSERT_EQ(dao_.find("frac", rows, *conn_), 2);
  EXPECT_EQ(rows[1].fileSize_, 3);
  EXPECT_EQ(rows[1].uncompressedFileSize_, -3);
  EXPECT_EQ(rows[1].ingestionDate_.tv_sec, 0);  // NULL leaves the default
}

TEST_F(KestFileDAO, FindersFailWhenTheDatabaseFailsThem) {
  if (testsupport::Backend::current().isTds()) GTEST_SKIP() << "the faults are made on the embedded file";
  constexpr int kRows = 300;
  const std::string rows = " with recursive n(i) as (select 1 union all select i + 1 from n where i < " +
                           std::to_string(kRows) + ") select 'F', 'D' || i, ";
  ASSERT_EQ(conn_
                ->execute("insert into kest_files (file_id, disk_id, file_status, checksum)" + rows +
                          "'S', printf('%0150d', i) from n; insert into repl_queue (file_id, disk_id, "
                          "file_version, submitter_id, status_id, message)" +
                          rows + "1, 'ops', 1, printf('%0150d', i) from n")
                .commandSucceeded(),
            1);
  // Each finder reads into an emptied vector.
  std::vector<KestFile> k;
  std::vector<ReplicationRequest> r;
  ReplicationRequestDAOSyb queue("repl_queue");
  const std::function<int()> finders[] = {
      [&] { return KestFilesSafeDAOSyb("kest_files_safe").find("F", 1, *conn_); },
      [&] { return dao_.find("F", k = {}, *conn_); },
      [&] { return dao_.find('S', k = {}, *conn_); },
      [&] { return dao_.loadAll(k = {}, *conn_); },
      [&] { return queue.find(ReplicationRequest::Pending, r = {}, *conn_); },
      [&] { return queue.find("F", r = {}, *conn_); },
  };
  for (size_t i = 0; i < std::size(finders); ++i) EXPECT_EQ(finders[i](), kRows) << i;
  // The pages that hold the last rows of both tables, to be damaged below.
  std::vector<long> lastPages;
  for (const char* table : {"kest_files", "repl_queue"})
    lastPages.push_back(scalar(std::string("select pageno from dbstat where name = '") + table +
                               "' and pagetype = 'leaf' order by path desc limit 1"));
  // Streamed rows fail part-way; sorted ones before the first row.
  conn_.reset();
  ConnectionPool::destroyInstance();  // the last login closes the file
  for (long page : lastPages) dir_.scribble("archive.db", (page - 1) * 4096, 4096);
  conn_ = std::make_unique<ServiceConnectionSyb>("sqlite:" + dir_.file("archive.db"), "ops", "pw", "");
  ASSERT_EQ(conn_->acquire(), 0);
  for (size_t i = 0; i < std::size(finders); ++i) {
    testsupport::LogCapture log;
    EXPECT_EQ(finders[i](), -1) << i;
    EXPECT_TRUE(log.containsFragment("malformed")) << i;
  }
}

}  // namespace
