#ifndef DATAACCESS_VELMORA_VELMORAARCHIVEREQUEST_H
#define DATAACCESS_VELMORA_VELMORAARCHIVEREQUEST_H

#include <string>

// One archive request handed to the request-file tool: the file, its label
// file and the two status files the tool may write for it, plus the outcome
// text once a status file has been read. A plain copyable value.
// Thread safety: const methods may overlap; a non-const call on a shared one needs external synchronization.
class VelmoraArchiveRequest {
 public:
  VelmoraArchiveRequest() = default;
  VelmoraArchiveRequest(const VelmoraArchiveRequest&) = default;
  VelmoraArchiveRequest& operator=(const VelmoraArchiveRequest&) = default;
  // Moves that cannot throw, so that a growing vector of requests moves them
  // instead of copying seven strings each.
  VelmoraArchiveRequest(VelmoraArchiveRequest&&) noexcept = default;
  VelmoraArchiveRequest& operator=(VelmoraArchiveRequest&&) noexcept = default;

  // Copies all seven fields of `other`.
  void copy(const VelmoraArchiveRequest& other) { *this = other; }
  // Sets the six fields (the status is left as it is) and logs them at DEBUG.
  void setAll(const std::string& globalKey, const std::string& virtualVolId, const std::string& dataFile,
              const std::string& labelFile, const std::string& okStatFile, const std::string& errStatFile);
  // setAll with the six fields of `other`.
  void setAll(const VelmoraArchiveRequest& other);

  const std::string& getGlobalKey() const { return globalKey_; }
  const std::string& getVirtualVolId() const { return virtualVolId_; }
  const std::string& getDataFile() const { return dataFile_; }
  const std::string& getLabelFile() const { return labelFile_; }
  const std::string& getOkStatFile() const { return okStatFile_; }
  const std::string& getErrStatFile() const { return errStatFile_; }
  const std::string& getStatus() const { return status_; }
  void setStatus(const std::string& status) { status_ = status; }

  // One line listing the seven fields.
  std::string dump() const;

 private:
  std::string globalKey_;
  std::string virtualVolId_;
  std::string dataFile_;
  std::string labelFile_;
  std::string okStatFile_;
  std::string errStatFile_;
  std::string status_;
};

#endif
