#ifndef BENCH_BENCHROWS_H
#define BENCH_BENCHROWS_H

// The replication requests that the catalogue benchmarks insert, on every
// backend, and the statement text the DAO sends for one (the text
// sybconn::appendInsert writes), which the raw sides send themselves; the
// catalogue's loadAll through the DAO.
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/catalogue/ReplicationRequest.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include <string>
#include <vector>

namespace benchrows {

inline ReplicationRequest request(int i) {
  ReplicationRequest r("ADP.2026-11-22T01:02:03." + std::to_string(i));
  r.fileVersion_ = 1;
  r.diskId_ = "DISK_A";
  r.submitterId_ = "ingest";
  r.priority_ = 2;
  r.statusId(ReplicationRequest::Scheduled);
  return r;
}

// Appends the statement to `out`, so that a batch of them shares one buffer.
inline void appendInsertSql(std::string& out, const ReplicationRequest& r) {
  out += "insert into repl_queue (file_id,file_version,disk_id,submitter_id,priority,status_id) values ('";
  out += r.fileId_;
  out += "',";
  out += std::to_string(r.fileVersion_);
  out += ",'";
  out += r.diskId_;
  out += "','";
  out += r.submitterId_;
  out += "',";
  out += std::to_string(r.priority_);
  out += ',';
  out += std::to_string(r.statusId_);
  out += ')';
}

inline std::string insertSql(const ReplicationRequest& r) {
  std::string sql;
  appendInsertSql(sql, r);
  return sql;
}

// Every row of the catalogue table kest_files of `server`, read through the
// DAO; the number of files.
inline size_t loadAll(const std::string& server, const std::string& user) {
  ServiceConnectionSyb conn(server, user, "p", "db");
  conn.acquire();
  std::vector<KestFile> files;
  KestFileDAOSyb("kest_files").loadAll(files, conn);
  conn.release();
  return files.size();
}

}  // namespace benchrows

#endif
