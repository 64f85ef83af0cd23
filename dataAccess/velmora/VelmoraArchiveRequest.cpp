#include <daLog/Log.h>
#include <dataAccess/velmora/VelmoraArchiveRequest.h>

void VelmoraArchiveRequest::setAll(const std::string& globalKey, const std::string& virtualVolId,
                                   const std::string& dataFile, const std::string& labelFile,
                                   const std::string& okStatFile, const std::string& errStatFile) {
  globalKey_ = globalKey;
  virtualVolId_ = virtualVolId;
  dataFile_ = dataFile;
  labelFile_ = labelFile;
  okStatFile_ = okStatFile;
  errStatFile_ = errStatFile;
  DA_LOG_DEBUG(
      "VelmoraArchiveRequest::setAll: Setting members of VelmoraArchiveRequest instance. Global Key: |%s|, "
      "Virtual Volume ID: |%s|, Data File: |%s|, Label File: |%s|, OK Status File: |%s|, Error Status "
      "File: |%s|",
      globalKey_.c_str(), virtualVolId_.c_str(), dataFile_.c_str(), labelFile_.c_str(), okStatFile_.c_str(),
      errStatFile_.c_str());
}

void VelmoraArchiveRequest::setAll(const VelmoraArchiveRequest& other) {
  setAll(other.globalKey_, other.virtualVolId_, other.dataFile_, other.labelFile_, other.okStatFile_,
         other.errStatFile_);
}

std::string VelmoraArchiveRequest::dump() const {
  return "Global Key: " + globalKey_ + ", Virtual Volume ID: " + virtualVolId_ + ", Data File: " + dataFile_ +
         ", Label File: " + labelFile_ + ", OK Status File: " + okStatFile_ +
         ", Error Status File: " + errStatFile_ + ", Status: " + status_;
}
