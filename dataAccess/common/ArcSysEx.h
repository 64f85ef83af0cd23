#ifndef DATAACCESS_COMMON_ARCSYSEX_H
#define DATAACCESS_COMMON_ARCSYSEX_H

#include <exception>
#include <string>

// The library's exception: a message text, returned by what(). Thrown where a
// peer process breaks the protocol of a shared file (Velmora::checkReqStatus).
// Thread safety: a plain value; what() may be called from several threads at once.
class ArcSysEx : public std::exception {
 public:
  explicit ArcSysEx(std::string msg) : msg_(std::move(msg)) {}
  const char* what() const noexcept override { return msg_.c_str(); }

  std::string msg_;
};

#endif
