// Demo section: the replication back end's typical request, on the embedded
// default: queue files, register their catalogue rows, copy them to a second
// disk, count safe copies, mark them replicated.
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/KestFilesSafeDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <sybconn/SybUtils.h>

#include <cstdio>

#include "examples/demo.h"
#include "examples/demo_util.h"

namespace {

int run(const std::string& work) {
  ServiceConnectionSyb conn(demo::server(work, "archive.db"), "ops", "secret", "archive");
  if (conn.acquire() != 0) return 1;
  if (!demo::createTables(conn, {"replication_queue", "file_catalogue", "safe_copies"})) return 1;
  conn.execute("delete repl_queue");
  conn.execute("delete kest_files");

  ReplicationRequestDAOSyb queue("repl_queue");
  KestFileDAOSyb catalogue("kest_files");
  KestFilesSafeDAOSyb safe("kest_files_safe");
  const char* files[] = {"ADP.2026-11-22T01:02:03.456", "ADP.2026-11-22T01:04:05.789",
                         "ADP.2026-11-22T02:00:00.000"};

  // The requests one by one in a transaction, the catalogue rows in one batch
  // (a single round trip on most servers), nested in that transaction.
  std::vector<KestFile> night;
  conn.beginTransaction();
  for (const char* id : files) {
    ReplicationRequest request(id);
    request.fileVersion_ = 1;
    request.diskId_ = "DISK_A";
    request.submitterId_ = "ingest";
    request.priority_ = 2;
    request.statusId(ReplicationRequest::Scheduled);
    queue.insert(request, conn);

    KestFile file;
    file.fileId_ = id;
    file.fileName_ = std::string(id) + ".fits";
    file.fileVersion_ = 1;
    file.diskId_ = "DISK_A";
    file.format_ = "FITS";
    file.fileSize_ = 2880 * 100;
    file.uncompressedFileSize_ = 2880 * 400;
    file.fileStatus_ = 'S';
    gettimeofday(&file.ingestionDate_, nullptr);
    night.push_back(file);
  }
  const int registered = catalogue.insert(night, conn);
  conn.commitTransaction();
  std::printf("   queued %zu replication requests and registered %d catalogue rows on DISK_A in one batch\n",
              sizeof files / sizeof *files, registered);

  for (const char* id : files) {
    queue.update(id, 1, "DISK_A", ReplicationRequest::Replicating, "", conn);
    const int copied = catalogue.insert("DISK_A", id, 1, "DISK_B", conn);
    const int copies = safe.find(id, 1, conn);
    std::printf("   %s: copied %d row to DISK_B, %d safe copies\n", id, copied, copies);
    if (copies >= 2) queue.update(id, ReplicationRequest::Replicated, "two safe copies", conn);
  }

  std::vector<ReplicationRequest> done;
  const int n = queue.find(ReplicationRequest::Replicated, done, conn);
  std::printf("   %d requests now %s:\n", n,
              ReplicationRequest::statusAsString(ReplicationRequest::Replicated).c_str());
  for (const auto& r : done) std::printf("     %s (%s)\n", r.genKey(":").c_str(), r.message_.c_str());
  std::vector<KestFile> rows;
  catalogue.loadAll(rows, conn);
  std::printf("   the catalogue holds %zu rows; the last copy was created %s\n", rows.size(),
              rows.empty() ? "-" : SybUtils::convertFromUnixTimeval(rows.back().creationDate_).c_str());
  conn.release();
  return n == 3 && rows.size() == 6 ? 0 : 1;
}

}  // namespace

DEMO_SECTION(30, "Replication queue, file catalogue and safe copies", run);
