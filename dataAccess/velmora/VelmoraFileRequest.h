#ifndef DATAACCESS_VELMORA_VELMORAFILEREQUEST_H
#define DATAACCESS_VELMORA_VELMORAFILEREQUEST_H

#include <string>

// One file wanted back from the request-file tool: its global key (plain,
// not encoded), the link name under which the tool delivers it, whether the
// delivery has been seen, and the error text of a failed delivery.
// Thread safety: const methods may overlap; a non-const call on a shared one needs external synchronization.
class VelmoraFileRequest {
 public:
  VelmoraFileRequest() = default;
  VelmoraFileRequest(std::string globalKey, std::string linkName)
      : globalKey_(std::move(globalKey)), linkName_(std::move(linkName)) {}

  void setGlobalKey(const std::string& key) { globalKey_ = key; }
  const std::string& getGlobalKey() const { return globalKey_; }
  void setLinkName(const std::string& name) { linkName_ = name; }
  const std::string& getLinkName() const { return linkName_; }
  void setDelivered(bool delivered) { delivered_ = delivered; }
  bool getDelivered() const { return delivered_; }
  void setStatus(const std::string& status) { status_ = status; }
  const std::string& getStatus() const { return status_; }

 private:
  std::string globalKey_;
  std::string linkName_;
  bool delivered_ = false;
  std::string status_;
};

#endif
