#include "tests/support/LogCapture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <regex>

namespace testsupport {
namespace {

LogCapture* g_active = nullptr;
std::mutex g_activeMutex;

class Backend : public ACE_Log_Msg_Backend {
 public:
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override {
    std::lock_guard<std::mutex> lock(g_activeMutex);
    if (g_active) g_active->append(record.msg_data());
    return 0;
  }
};

Backend g_backend;
ACE_Log_Msg_Backend* g_previousBackend = nullptr;
unsigned long g_previousFlags = 0;

// The time stamp becomes "<D>", the thread id between the brackets "<t>".
std::string normalise(const std::string& raw) {
  static const std::regex stamp(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6})");
  static const std::regex thread(R"(\[ \d+ \])");
  std::string s = std::regex_replace(raw, stamp, "<D>", std::regex_constants::format_first_only);
  return std::regex_replace(s, thread, "[ <t> ]", std::regex_constants::format_first_only);
}

}  // namespace

// ACE takes its own lock around a log call and the backend then takes
// g_activeMutex, so ACE's settings are changed outside g_activeMutex: the two
// locks are never taken in the other order.
LogCapture::LogCapture() {
  g_previousBackend = ACE_Log_Msg::msg_backend(&g_backend);
  g_previousFlags = ACE_LOG_MSG->flags();
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  std::lock_guard<std::mutex> lock(g_activeMutex);
  g_active = this;
}

LogCapture::~LogCapture() {
  {
    std::lock_guard<std::mutex> lock(g_activeMutex);
    g_active = nullptr;
  }
  ACE_LOG_MSG->clr_flags(ACE_LOG_MSG->flags());
  ACE_LOG_MSG->set_flags(g_previousFlags);
  ACE_Log_Msg::msg_backend(g_previousBackend);
}

void LogCapture::append(const std::string& raw) {
  std::string line = normalise(raw);
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(std::move(line));
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

bool LogCapture::contains(const std::string& line) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_)
    if (l == line) return true;
  return false;
}

bool LogCapture::containsFragment(const std::string& fragment) const { return count(fragment) > 0; }

size_t LogCapture::count(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto& l : lines_)
    if (l.find(fragment) != std::string::npos) ++n;
  return n;
}

}  // namespace testsupport
