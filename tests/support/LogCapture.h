#ifndef TESTS_SUPPORT_LOGCAPTURE_H
#define TESTS_SUPPORT_LOGCAPTURE_H

#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

// Captures every line written through ACE's logger, from every thread
// (ACE tasks and std::threads included), while it is alive. Installs a static
// backend with the CUSTOM flag and without STDERR; restores the previous
// backend and flags when destroyed. One capture at a time per process.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Lines as written, with the time stamp replaced by "<D>" and the thread id
  // between the brackets by "<t>", e.g. "<D> ERROR [ <t> ] Could not open x\n".
  std::vector<std::string> lines() const;
  // True if any normalised line equals `line` exactly.
  bool contains(const std::string& line) const;
  // True if any normalised line contains `fragment`.
  bool containsFragment(const std::string& fragment) const;
  size_t count(const std::string& fragment) const;
  void clear();

  void append(const std::string& raw);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace testsupport

#endif
