#include <dataAccess/catalogue/DaoSupport.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
#include <dataAccess/common/DaoCore.h>
#include <sybconn/SybUtils.h>

using dataAccess::sqlQuoted;

const std::string KestFileDAOSyb::fileIdField = "file_id";
const std::string KestFileDAOSyb::fileNameField = "file_name";
const std::string KestFileDAOSyb::fileVersionField = "file_version";
const std::string KestFileDAOSyb::diskIdField = "disk_id";
const std::string KestFileDAOSyb::formatField = "format";
const std::string KestFileDAOSyb::fileSizeField = "file_size";
const std::string KestFileDAOSyb::uncompressedFileSizeField = "uncompressed_file_size";
const std::string KestFileDAOSyb::compressionField = "compression";
const std::string KestFileDAOSyb::ingestionDateField = "ingestion_date";
const std::string KestFileDAOSyb::ignore = "ignore";
const std::string KestFileDAOSyb::checksum = "checksum";
const std::string KestFileDAOSyb::checksumPluginField = "checksum_plugin";
const std::string KestFileDAOSyb::fileStatusField = "file_status";
const std::string KestFileDAOSyb::creationDateField = "creation_date";

KestFileDAOSyb::KestFileDAOSyb(const std::string& tableName) : tableName_(tableName) {}

std::string KestFileDAOSyb::allFields() {
  return fileIdField + ", " + fileNameField + ", " + fileVersionField + ", " + diskIdField + ", " +
         formatField + ", " + fileSizeField + ", " + uncompressedFileSizeField + ", " + compressionField +
         ", " + ingestionDateField + ", " + ignore + ", " + checksum + ", " + checksumPluginField + ", " +
         fileStatusField + ", " + creationDateField;
}

template <class Conn>
int KestFileDAOSyb::executeQuery(const std::string& query, const Conn& conn) {
  return dataAccess::executeCounted(query, conn);
}

namespace {
using dataAccess::logSubmitted;

// Replaces the first occurrence of `name` in `list` by `replacement`.
std::string replaceFirst(const std::string& list, const std::string& name, const std::string& replacement) {
  const std::string::size_type pos = list.find(name);
  if (pos == std::string::npos) return list;
  return list.substr(0, pos) + replacement + list.substr(pos + name.size());
}
}  // namespace

namespace {
const char* refusal(const KestFile& f) {
  return f.fileId_.empty() ? "Can't insert kest file with empty fileId" : nullptr;
}
}  // namespace

// Compression, ignore, the checksums and the creation date are left to the
// table, and so are the name, disk and format a record leaves empty.
void KestFileDAOSyb::fillRow(const KestFile& f, dataAccess::InsertRow& row) {
  row.addText(fileIdField, f.fileId_);
  row.addInteger(fileVersionField, f.fileVersion_);
  if (!f.fileName_.empty()) row.addText(fileNameField, f.fileName_);
  if (!f.diskId_.empty()) row.addText(diskIdField, f.diskId_);
  if (!f.format_.empty()) row.addText(formatField, f.format_);
  row.addInteger(fileSizeField, f.fileSize_);
  row.addInteger(uncompressedFileSizeField, f.uncompressedFileSize_);
  row.add(fileStatusField).setText(std::string(1, static_cast<char>(f.fileStatus_)));
  row.addText(ingestionDateField, SybUtils::convertFromUnixTimeval(f.ingestionDate_));
}

template <class Conn>
int KestFileDAOSyb::copyT(const std::string& srcDiskId, const std::string& fileId, int fileVersion,
                          const std::string& destDiskId, const Conn& conn) {
  if (srcDiskId.empty() || fileId.empty()) {
    DA_LOG_ERROR("Can't insert kest file with empty fields");
    return -1;
  }
  const std::string columns = allFields();
  // Every column of the source row, but on the destination disk and created now.
  std::string selectList = replaceFirst(columns, "disk_id", "disk_id='" + sqlQuoted(destDiskId) + "'");
  selectList = replaceFirst(selectList, "creation_date", "creation_date=getdate()");
  const std::string sql = "INSERT INTO " + tableName_ + " (" + columns + ") SELECT " + selectList + " FROM " +
                          tableName_ + " WHERE disk_id='" + sqlQuoted(srcDiskId) + "' AND file_id='" +
                          sqlQuoted(fileId) + "' AND file_version=" + std::to_string(fileVersion);
  const int result = executeQuery(sql, conn);
  logSubmitted(result, fileId);
  return result;
}

template <class Conn>
int KestFileDAOSyb::updateT(const std::string& fileId, int fileVersion, const std::string& diskId,
                            unsigned char status, const Conn& conn) {
  const std::string statusText(1, static_cast<char>(status));
  std::string description = "file=" + fileId;
  const std::string sql =
      "update " + tableName_ + " set " + fileStatusField + " = '" + sqlQuoted(statusText) + "'" + " where " +
      fileIdField + "='" + sqlQuoted(fileId) + "'" +
      dataAccess::keyClauses(fileVersion, diskId, fileVersionField, diskIdField, description);
  const int result = executeQuery(sql, conn);
  if (result < 0) {
    DA_LOG_DEBUG("Could not update replication request %s to status %s", description.c_str(),
                 statusText.c_str());
  } else {
    DA_LOG_DEBUG("Successfully updated replication request %s to status %c", description.c_str(), status);
  }
  return result;
}

template <class Conn>
int KestFileDAOSyb::removeT(const std::string& fileId, int fileVersion, const std::string& diskId,
                            const Conn& conn) {
  return dataAccess::removeFileRows(tableName_, fileIdField, fileVersionField, diskIdField, fileId,
                                    fileVersion, diskId, conn);
}

template <class Conn>
int KestFileDAOSyb::select(const Conn& conn, std::vector<KestFile>& files, const std::string& whereClause) {
  std::string sql = "select " + allFields() + " from " + tableName_;
  if (!whereClause.empty()) sql += " where " + whereClause;
  sql += " order by " + ingestionDateField;
  DA_LOG_DEBUG("%s", sql.c_str());
  const int read = dataAccess::selectRows(conn, sql, files, convertResultSetToKestFile);
  return read < 0 ? -1 : static_cast<int>(files.size());
}

// NULLs read as the record's empty values (see DaoCore.h); a NULL status is
// a blank.
KestFile KestFileDAOSyb::convertResultSetToKestFile(SybaseResultSet& res) {
  KestFile f;
  f.fileId_ = res.getStringValue(1);
  f.fileName_ = res.getStringValue(2);
  f.fileVersion_ = static_cast<int>(res.getLongValue(3));
  f.diskId_ = res.getStringValue(4);
  f.format_ = res.getStringValue(5);
  f.fileSize_ = dataAccess::saturatingInt(res.getDoubleValue(6));
  f.uncompressedFileSize_ = dataAccess::saturatingInt(res.getDoubleValue(7));
  f.compression_ = res.getStringValue(8);
  f.ingestionDate_ = res.getDateAsTimevalValue(9);
  f.ignore_ = static_cast<int>(res.getLongValue(10));
  f.checksum_ = res.getStringValue(11);
  f.checksumPlugin_ = res.getStringValue(12);
  const std::string status = res.getStringValue(13);
  f.fileStatus_ = status.empty() ? ' ' : static_cast<KestFileStatus>(status[0]);
  f.creationDate_ = res.getDateAsTimevalValue(14);
  return f;
}

// One-line overloads: each public operation for both connection types.
int KestFileDAOSyb::insert(const KestFile& f, const ServiceConnectionSyb& c) {
  return dataAccess::insertRecord(tableName_, f, c, refusal, fillRow);
}
int KestFileDAOSyb::insert(const KestFile& f, const ServiceConnectionStub& c) {
  return dataAccess::insertRecord(tableName_, f, c, refusal, fillRow);
}
int KestFileDAOSyb::insert(const std::vector<KestFile>& f, const ServiceConnectionSyb& c) {
  return dataAccess::insertBatch(tableName_, f, c, refusal, fillRow);
}
int KestFileDAOSyb::insert(const std::vector<KestFile>& f, const ServiceConnectionStub& c) {
  return dataAccess::insertBatch(tableName_, f, c, refusal, fillRow);
}
int KestFileDAOSyb::insert(const std::string& s, const std::string& f, int v, const std::string& d,
                           const ServiceConnectionSyb& c) {
  return copyT(s, f, v, d, c);
}
int KestFileDAOSyb::insert(const std::string& s, const std::string& f, int v, const std::string& d,
                           const ServiceConnectionStub& c) {
  return copyT(s, f, v, d, c);
}
int KestFileDAOSyb::update(const std::string& f, unsigned char s, const ServiceConnectionSyb& c) {
  return updateT(f, 0, "", s, c);
}
int KestFileDAOSyb::update(const std::string& f, unsigned char s, const ServiceConnectionStub& c) {
  return updateT(f, 0, "", s, c);
}
int KestFileDAOSyb::update(const std::string& f, int v, const std::string& d, unsigned char s,
                           const ServiceConnectionSyb& c) {
  return updateT(f, v, d, s, c);
}
int KestFileDAOSyb::update(const std::string& f, int v, const std::string& d, unsigned char s,
                           const ServiceConnectionStub& c) {
  return updateT(f, v, d, s, c);
}
int KestFileDAOSyb::remove(const std::string& f, int v, const std::string& d, const ServiceConnectionSyb& c) {
  return removeT(f, v, d, c);
}
int KestFileDAOSyb::remove(const std::string& f, int v, const std::string& d,
                           const ServiceConnectionStub& c) {
  return removeT(f, v, d, c);
}
int KestFileDAOSyb::find(const std::string& f, std::vector<KestFile>& r, const ServiceConnectionSyb& c) {
  return select(c, r, fileIdField + "='" + sqlQuoted(f) + "'");
}
int KestFileDAOSyb::find(const std::string& f, std::vector<KestFile>& r, const ServiceConnectionStub& c) {
  return select(c, r, fileIdField + "='" + sqlQuoted(f) + "'");
}
int KestFileDAOSyb::find(unsigned char s, std::vector<KestFile>& r, const ServiceConnectionSyb& c) {
  return select(c, r, fileStatusField + "='" + sqlQuoted(std::string(1, static_cast<char>(s))) + "'");
}
int KestFileDAOSyb::find(unsigned char s, std::vector<KestFile>& r, const ServiceConnectionStub& c) {
  return select(c, r, fileStatusField + "='" + sqlQuoted(std::string(1, static_cast<char>(s))) + "'");
}
int KestFileDAOSyb::find(const std::string& f, int v, const std::string& d, std::vector<KestFile>& r,
                         const ServiceConnectionSyb& c) {
  return select(c, r,
                fileIdField + "='" + sqlQuoted(f) + "' AND " + fileVersionField + "=" + std::to_string(v) +
                    " AND " + diskIdField + "='" + sqlQuoted(d) + "'");
}
int KestFileDAOSyb::find(const std::string& f, int v, const std::string& d, std::vector<KestFile>& r,
                         const ServiceConnectionStub& c) {
  return select(c, r,
                fileIdField + "='" + sqlQuoted(f) + "' AND " + fileVersionField + "=" + std::to_string(v) +
                    " AND " + diskIdField + "='" + sqlQuoted(d) + "'");
}
int KestFileDAOSyb::loadAll(std::vector<KestFile>& r, const ServiceConnectionSyb& c) {
  return select(c, r, "");
}
int KestFileDAOSyb::loadAll(std::vector<KestFile>& r, const ServiceConnectionStub& c) {
  return select(c, r, "");
}
