#ifndef TESTS_SUPPORT_VELMORATOOL_H
#define TESTS_SUPPORT_VELMORATOOL_H

#include <map>
#include <set>
#include <string>

namespace testsupport {

// In-process stand-in for the request-file tool. runOnce() answers each new
// label file in <base>/in with <base>/in/.usr/<label>.OK (or .ERR for a key
// in `refuse` or a missing data file), and each new request file in
// <base>/request by linking archived files into <base>/out/<request name>/
// and listing unknown keys in <request file>.ERR.
class VelmoraTool {
 public:
  explicit VelmoraTool(std::string base) : base_(std::move(base)) {}
  void runOnce();
  std::set<std::string> refuse;

 private:
  std::string base_;
  std::map<std::string, std::string> archived_;  // plain key -> data file
  std::set<std::string> answered_;
};

}  // namespace testsupport

#endif
