#ifndef DATAACCESS_CATALOGUE_KESTFILEDAOSYB_H
#define DATAACCESS_CATALOGUE_KESTFILEDAOSYB_H

#include <string>
#include <vector>

#include <dataAccess/catalogue/KestFile.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

namespace dataAccess {
class InsertRow;
}

// Reads and writes the archive's file catalogue in one table whose name the
// caller gives. Each operation works on a ServiceConnectionSyb or on the stub;
// writes return the affected-row count, finders the size of the caller's
// vector after the rows were appended (it counts what the vector held
// before), all -1 on failure. String values are quoted with their single
// quotes doubled. Sizes beyond 32 bits are saturated (see KestFile).
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class KestFileDAOSyb {
 public:
  explicit KestFileDAOSyb(const std::string& tableName);

  // Inserts a row; compression, ignore, the checksums and the creation date
  // are left to the table's defaults. An empty file id is refused (-1).
  int insert(const KestFile& file, const ServiceConnectionSyb& conn);
  int insert(const KestFile& file, const ServiceConnectionStub& conn);
  // Inserts every file in one transaction, all or none, with the columns,
  // quoting and refusals of the single-row insert, through the backend's bulk
  // path (many rows a round trip). Returns the number of rows written (0 for
  // an empty vector), or -1 with nothing written: the index of the failing
  // row is logged at ERROR, the server's message goes to the error handler,
  // and the connection stays usable. A batch logs its transaction's steps and
  // one line of its own at DEBUG, never a line a row. The stub prints each
  // row's insert statement and writes nothing (-1).
  int insert(const std::vector<KestFile>& files, const ServiceConnectionSyb& conn);
  int insert(const std::vector<KestFile>& files, const ServiceConnectionStub& conn);
  // Copies the row of (srcDiskId, fileId, fileVersion) to destDiskId inside
  // the database, with the server's current time as creation date. An empty
  // source disk or file id is refused (-1).
  int insert(const std::string& srcDiskId, const std::string& fileId, int fileVersion,
             const std::string& destDiskId, const ServiceConnectionSyb& conn);
  int insert(const std::string& srcDiskId, const std::string& fileId, int fileVersion,
             const std::string& destDiskId, const ServiceConnectionStub& conn);

  int update(const std::string& fileId, unsigned char status, const ServiceConnectionSyb& conn);
  int update(const std::string& fileId, unsigned char status, const ServiceConnectionStub& conn);
  // A version above 0 and a non-empty disk narrow the rows changed.
  int update(const std::string& fileId, int fileVersion, const std::string& diskId, unsigned char status,
             const ServiceConnectionSyb& conn);
  int update(const std::string& fileId, int fileVersion, const std::string& diskId, unsigned char status,
             const ServiceConnectionStub& conn);

  int remove(const std::string& fileId, int fileVersion, const std::string& diskId,
             const ServiceConnectionSyb& conn);
  int remove(const std::string& fileId, int fileVersion, const std::string& diskId,
             const ServiceConnectionStub& conn);

  int find(const std::string& fileId, std::vector<KestFile>& files, const ServiceConnectionSyb& conn);
  int find(const std::string& fileId, std::vector<KestFile>& files, const ServiceConnectionStub& conn);
  int find(unsigned char status, std::vector<KestFile>& files, const ServiceConnectionSyb& conn);
  int find(unsigned char status, std::vector<KestFile>& files, const ServiceConnectionStub& conn);
  int find(const std::string& fileId, int fileVersion, const std::string& diskId,
           std::vector<KestFile>& files, const ServiceConnectionSyb& conn);
  int find(const std::string& fileId, int fileVersion, const std::string& diskId,
           std::vector<KestFile>& files, const ServiceConnectionStub& conn);
  int loadAll(std::vector<KestFile>& files, const ServiceConnectionSyb& conn);
  int loadAll(std::vector<KestFile>& files, const ServiceConnectionStub& conn);

 private:
  template <class Conn>
  int copyT(const std::string& srcDiskId, const std::string& fileId, int fileVersion,
            const std::string& destDiskId, const Conn& conn);
  template <class Conn>
  int updateT(const std::string& fileId, int fileVersion, const std::string& diskId, unsigned char status,
              const Conn& conn);
  template <class Conn>
  int removeT(const std::string& fileId, int fileVersion, const std::string& diskId, const Conn& conn);
  template <class Conn>
  int select(const Conn& conn, std::vector<KestFile>& files, const std::string& whereClause);
  template <class Conn>
  int executeQuery(const std::string& query, const Conn& conn);

  static std::string allFields();
  static KestFile convertResultSetToKestFile(SybaseResultSet& res);
  static void fillRow(const KestFile& file, dataAccess::InsertRow& row);

  static const std::string fileIdField;
  static const std::string fileNameField;
  static const std::string fileVersionField;
  static const std::string diskIdField;
  static const std::string formatField;
  static const std::string fileSizeField;
  static const std::string uncompressedFileSizeField;
  static const std::string compressionField;
  static const std::string ingestionDateField;
  static const std::string ignore;
  static const std::string checksum;
  static const std::string checksumPluginField;
  static const std::string fileStatusField;
  static const std::string creationDateField;

  std::string tableName_;
};

#endif
