#include <dataAccess/catalogue/DaoSupport.h>
#include <dataAccess/catalogue/KestFileDAOSyb.h>
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

template <class Conn>
int KestFileDAOSyb::insertT(const KestFile& f, const Conn& conn) {
  if (f.fileId_.empty()) {
    DA_LOG_ERROR("Can't insert kest file with empty fileId");
    return -1;
  }
  std::string columns = fileIdField + "," + fileVersionField;
  std::string values = "'" + sqlQuoted(f.fileId_) + "'," + std::to_string(f.fileVersion_);
  if (!f.fileName_.empty()) {
    columns += "," + fileNameField;
    values += ",'" + sqlQuoted(f.fileName_) + "'";
  }
  if (!f.diskId_.empty()) {
    columns += "," + diskIdField;
    values += ",'" + sqlQuoted(f.diskId_) + "'";
  }
  if (!f.format_.empty()) {
    columns += "," + formatField;
    values += ",'" + sqlQuoted(f.format_) + "'";
  }
  columns += "," + fileSizeField + "," + uncompressedFileSizeField + "," + fileStatusField + "," +
             ingestionDateField;
  values += "," + std::to_string(f.fileSize_) + "," + std::to_string(f.uncompressedFileSize_) + ",'" +
            sqlQuoted(std::string(1, static_cast<char>(f.fileStatus_))) + "','" +
            SybUtils::convertFromUnixTimeval(f.ingestionDate_) + "'";
  const int result =
      executeQuery("insert into " + tableName_ + " (" + columns + ") values (" + values + ")", conn);
  logSubmitted(result, f.fileId_);
  return result;
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
  SybaseResultSet res = conn.execute(sql);
  if (!res.commandSucceeded()) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  if (res.hasResultSet()) {
    while (res.next()) {
      KestFile file;
      convertResultSetToKestFile(res, file);
      files.push_back(file);
    }
  }
  // A row that could not be read fails the whole select.
  if (!res.commandSucceeded()) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  return static_cast<int>(files.size());
}

void KestFileDAOSyb::convertResultSetToKestFile(SybaseResultSet& res, KestFile& f) {
  f.fileId_ = res.isNull(1) ? std::string() : res.getStringValue(1);
  f.fileName_ = res.isNull(2) ? std::string() : res.getStringValue(2);
  f.fileVersion_ = res.isNull(3) ? 0 : static_cast<int>(res.getLongValue(3));
  f.diskId_ = res.isNull(4) ? std::string() : res.getStringValue(4);
  f.format_ = res.isNull(5) ? std::string() : res.getStringValue(5);
  f.fileSize_ = res.isNull(6) ? 0 : dataAccess::saturatingInt(res.getDoubleValue(6));
  f.uncompressedFileSize_ = res.isNull(7) ? 0 : dataAccess::saturatingInt(res.getDoubleValue(7));
  f.compression_ = res.isNull(8) ? std::string() : res.getStringValue(8);
  if (!res.isNull(9)) f.ingestionDate_ = res.getDateAsTimevalValue(9);
  f.ignore_ = res.isNull(10) ? 0 : static_cast<int>(res.getLongValue(10));
  f.checksum_ = res.isNull(11) ? std::string() : res.getStringValue(11);
  f.checksumPlugin_ = res.isNull(12) ? std::string() : res.getStringValue(12);
  if (res.isNull(13)) {
    f.fileStatus_ = ' ';
  } else {
    const std::string status = res.getStringValue(13);
    f.fileStatus_ = status.empty() ? ' ' : static_cast<KestFileStatus>(status[0]);
  }
  if (!res.isNull(14)) f.creationDate_ = res.getDateAsTimevalValue(14);
}

// One-line overloads: each public operation for both connection types.
int KestFileDAOSyb::insert(const KestFile& f, const ServiceConnectionSyb& c) { return insertT(f, c); }
int KestFileDAOSyb::insert(const KestFile& f, const ServiceConnectionStub& c) { return insertT(f, c); }
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
