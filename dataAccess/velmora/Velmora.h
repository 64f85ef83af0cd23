#ifndef DATAACCESS_VELMORA_VELMORA_H
#define DATAACCESS_VELMORA_VELMORA_H

#include <dataAccess/velmora/VelmoraArchReqsMap.h>
#include <dataAccess/velmora/VelmoraArchiveRequest.h>
#include <dataAccess/velmora/VelmoraFileRequest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

// The library's side of the request-file tool vel_mora, which works on a
// directory tree under a base directory:
//
//   <base>/in/<file>.lab             label files: files handed over for archiving
//   <base>/in/.usr/<file>.lab.OK|ERR status files the tool writes when done with one
//   <base>/request/<name>_<time>_<n>.req       request files: files wanted back
//   <base>/request/<name>_<time>_<n>.req.ERR   the tool's list of failed deliveries
//   <base>/out/<name>/<link name>    the delivered files (links)
//
// Every file the tool watches for is written under a fresh, exclusively
// created temporary name beside it and then renamed into place, so the tool
// never reads half a file and a link planted in the shared folders is never
// written through. Files the tool writes are read only when they are regular
// files (a link is not followed, a FIFO or device never waited on). Global keys are
// written encoded: every "_" becomes "&#95;". Decoding turns every "&#95;"
// into "_", so a key that already contains "&#95;" comes back with "_" there.
// The derived directories are always built from the base directory, also
// when only the three-argument constructor was used. Operations other than
// the getters and getUniqueIndex return *this and report no failure, except
// that a malformed error status file throws ArcSysEx (checkReqStatus,
// checkReqErrorStatus) and a missing status directory ends checkArchStatus
// with std::filesystem::filesystem_error.
// Thread safety: calls may overlap, except setPars, two sharing a PendingMap, two checkArchStatus on one map.
class Velmora {
 public:
  static inline const std::string LAB_FILE_VER = "2.0";
  static inline const std::string IN_DIR = "in";
  static inline const std::string LAB_EXT = "lab";
  static inline const std::string GLOB_KEY_DELIM = "##";
  static inline const std::string GLOB_KEY_UNDERSCORE = "&#95;";
  static inline const std::string USR_DIR = ".usr";
  static inline const std::string OUT_DIR = "out";
  static inline const std::string REQ_DIR = "request";
  static inline const std::string REQ_EXT = "req";
  static inline const std::string TMP_EXT = "tmp";
  static inline const std::string DONE_EXT = "done";
  static inline const std::string ARCH_STAT_OK_EXT = "OK";
  static inline const std::string ARCH_STAT_ERR_EXT = "ERR";
  static inline const std::string LABEL_FILE_TPL =
      "[LABELFILE]\nlabelfile_version | %s\n[CONTEXT]\ntop_level | %s\n[ARCHIVE_OBJECT]\nobject | %s\n"
      "time_duration | %s | %s\nglobal_key | %s\n[ARCHIVE_OBJECT_ATTRIBUTES]\nfilename | %s\n"
      "virtual_volume | %s\n";
  static inline const std::string REQ_FILE_TPL = "global_key | %s\nlink_name | %s\n";

  // Files wanted back, keyed twice per file (see request()).
  using PendingMap = std::map<std::string, VelmoraFileRequest>;

  Velmora() = default;
  // Stores the three strings; the derived directories stay empty until setPars.
  Velmora(const std::string& clientId, const std::string& sysId, const std::string& baseDir);
  Velmora(const Velmora&) = delete;
  Velmora& operator=(const Velmora&) = delete;

  // Stores the three strings and derives <base>/in and <base>/request.
  Velmora& setPars(const std::string& clientId, const std::string& sysId, const std::string& baseDir);
  const std::string& getClientId() const { return clientId_; }
  const std::string& getSysId() const { return sysId_; }
  const std::string& getBaseDir() const { return baseDir_; }
  const std::string& getInputStagingDir() const { return inputStagingDir_; }
  const std::string& getRequestDir() const { return requestDir_; }
  // 1, 2, 3, ... per object; thread-safe.
  unsigned int getUniqueIndex();

  static std::string encodeGlobalKey(const std::string& key);
  static std::string decodeGlobalKey(const std::string& key);

  // ------------------------------------------------------------ archiving
  // Writes <base>/in/<leaf of dataFile>.lab and fills `req`: label file
  // dataFile + ".lab", status files <dir of dataFile>/.usr/<leaf>.lab.OK and
  // .ERR (found by checkArchStatus only for data files in <base>/in). The
  // label text has no length limit. Names are written byte for byte, blanks
  // and non-ASCII bytes included. A label file that cannot be written is
  // not written; nothing is reported. Deliberately, values are not all
  // written as given: one with control characters (a line feed would add a
  // line to the label) is refused: logged at ERROR, no label file, and `req`
  // gets a status starting with "refused" (the map overload then registers
  // nothing).
  Velmora& archive(const std::string& context, const std::string& duration, const std::string& globalKey,
                   const std::string& dataFile, const std::string& virtualVolId, VelmoraArchiveRequest& req);
  // As above, and registers the request in `map`.
  Velmora& archive(const std::string& context, const std::string& duration, const std::string& globalKey,
                   const std::string& dataFile, const std::string& virtualVolId, VelmoraArchReqsMap& map);
  // One pass over <base>/in/.usr (at most 100,000 entries, the rest wait for
  // the next call). A status file of a pending request: its first 1,024
  // bytes, up to a NUL, become the request's status; a copy goes to okReqs
  // when the name ends in ".OK", else to errReqs, and for errors the label
  // file is deleted. An entry that is no regular file readable by this
  // process (a link, FIFO, device, folder) is passed over: the request stays
  // pending. removeFiles
  // deletes every file seen, pending or not. The map is not changed: the
  // caller removes finished requests. A missing status directory throws
  // std::filesystem::filesystem_error and changes nothing.
  Velmora& checkArchStatus(bool removeFiles, VelmoraArchReqsMap& map,
                           std::vector<VelmoraArchiveRequest>& okReqs,
                           std::vector<VelmoraArchiveRequest>& errReqs);
  // Deletes label, data and both status files of each request; failures ignored.
  Velmora& removeArchStatusFiles(std::vector<VelmoraArchiveRequest>& reqs);

  // ------------------------------------------------------------ retrieval
  // Writes the request file <base>/request/<reqName>_<UTC time, 6 decimals>_<index>.req
  // for the files of `reqs` and registers each in `pending` under two keys:
  // the path its link will have, <base>/out/<reqName>/<link name>, and its
  // plain global key (the tool's error lines name files by global key).
  // A key already present keeps its entry. A file whose key is empty or has
  // blanks or control characters, or whose link name is empty, ".", "..", or
  // has "/" or control characters, is refused: it gets a status text
  // starting with "refused" (logged at ERROR), is neither written nor
  // registered. A request name of that kind refuses every file and writes
  // nothing (reqFileName empty). Otherwise a request file is written, with
  // no entries when no file is left.
  Velmora& request(const std::string& reqName, std::vector<VelmoraFileRequest>& reqs,
                   std::string& reqFileName, PendingMap& pending);
  // One poll: deliveries, then the error status file reqFileName + ".ERR".
  // Every poll appends a copy of each pending file whose link it sees to
  // `delivered` (at most 1,000 entries of the output directory are looked at
  // per poll), so a caller passes fresh vectors each time; a failure is
  // appended to `failed` only by the poll that reads the error file. `done`
  // is whether every file in `pending` has been delivered or has failed, as
  // recorded in `pending` (one request per pending map); counting the two
  // vectors instead would never come true once a failure read by an earlier
  // poll is no longer in `failed`. An error line is
  // "<encoded key> <text>" (blanks between; text to the end of the line);
  // blank lines are skipped, a line without key and text is malformed: it is
  // logged at ERROR and thrown as ArcSysEx, and the file stays in place.
  // Once read, the error file becomes <request>.req.done and the request
  // file <request>.done, so neither side handles them again. A missing
  // output directory or error file (or one that is no regular file) means
  // nothing delivered or failed yet.
  Velmora& checkReqStatus(const std::string& reqName, const std::string& reqFileName, PendingMap& pending,
                          std::vector<VelmoraFileRequest>& delivered, std::vector<VelmoraFileRequest>& failed,
                          bool& done);
  Velmora& checkReqDelivStatus(const std::string& reqName, PendingMap& pending,
                               std::vector<VelmoraFileRequest>& delivered);
  // The error half for every error file <reqName>_<time>_<n>.req.ERR of the request.
  Velmora& checkReqErrorStatus(const std::string& reqName, PendingMap& pending,
                               std::vector<VelmoraFileRequest>& failed);
  // Drops both entries of `req` from `pending` and deletes its link. A
  // request or link name that is not a plain name (as for request) would
  // reach outside <base>/out/<reqName>: nothing is done but an ERROR line.
  Velmora& removeFileRequest(const std::string& reqName, VelmoraFileRequest& req, PendingMap& pending);

 private:
  Velmora& createLabelFile_(const std::string& context, const std::string& duration,
                            const std::string& globalKey, const std::string& dataFile,
                            const std::string& virtualVolId, std::string& labelFileName);
  Velmora& createReqFile_(const std::string& reqName, std::vector<VelmoraFileRequest>& reqs,
                          std::string& reqFileName);
  std::string linkPath_(const std::string& reqName, const std::string& linkName) const;
  void handleErrorFile_(const std::string& reqName, const std::string& errFile, PendingMap& pending,
                        std::vector<VelmoraFileRequest>& failed);

  std::string clientId_;
  std::string sysId_;
  std::string baseDir_;
  std::string inputStagingDir_;
  std::string requestDir_;
  unsigned int uniqueCount_ = 0;
  std::mutex uniqueCountMutex_;
};

#endif
