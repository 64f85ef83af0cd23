#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <string>
#include <vector>

namespace testsupport {

// Captures ACE's log lines from every thread while alive (one at a time), stamp and thread id replaced:
// "<D> ERROR [ <t> ] Could not open x\n"; a record without a line feed is continued by the next one.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();

  bool contains(const std::string& line) const;  // a line equals `line`
  bool containsFragment(const std::string& fragment) const { return count(fragment) > 0; }
  size_t count(const std::string& fragment) const;  // lines that contain `fragment`
  void clear();
  void append(const std::string& raw);  // called with the capture's lock held

 private:
  std::vector<std::string> lines_;
};

}  // namespace testsupport

#endif
