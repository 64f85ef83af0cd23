#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <string>
#include <vector>

namespace testsupport {

// Captures every line written through ACE's logger, from every thread, while it is alive (one at a
// time per process, not copyable), with the time stamp replaced by "<D>" and the thread id between the
// brackets by "<t>", e.g. "<D> ERROR [ <t> ] Could not open x\n"; a record without a line feed is
// continued by the next one. ACE's backend and flags are restored.
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
