#include "tests/support/LogCapture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <algorithm>
#include <regex>

namespace testsupport {
namespace {

LogCapture* g_active = nullptr;
std::mutex g_activeMutex;
ACE_Log_Msg_Backend* g_previousBackend = nullptr;
unsigned long g_previousFlags = 0;

struct Sink : ACE_Log_Msg_Backend {
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override {
    std::lock_guard<std::mutex> lock(g_activeMutex);
    if (g_active) g_active->append(record.msg_data());
    return 0;
  }
} g_sink;

}  // namespace

// ACE's settings change outside g_activeMutex: ACE locks around a log call, then the backend takes it.
LogCapture::LogCapture() {
  g_previousBackend = ACE_Log_Msg::msg_backend(&g_sink);
  g_previousFlags = ACE_LOG_MSG->flags();
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  std::lock_guard<std::mutex> lock(g_activeMutex);
  g_active = this;
}

LogCapture::~LogCapture() {
  std::unique_lock<std::mutex> lock(g_activeMutex);
  g_active = nullptr;
  lock.unlock();
  ACE_LOG_MSG->clr_flags(ACE_LOG_MSG->flags());
  ACE_LOG_MSG->set_flags(g_previousFlags);
  ACE_Log_Msg::msg_backend(g_previousBackend);
}

void LogCapture::append(const std::string& raw) {
  static const std::regex stamp(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6})"), thread(R"(\[ \d+ \])");
  const auto once = std::regex_constants::format_first_only;
  std::string line = std::regex_replace(std::regex_replace(raw, stamp, "<D>", once), thread, "[ <t> ]", once);
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(std::move(line));
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

bool LogCapture::contains(const std::string& line) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

size_t LogCapture::count(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::count_if(lines_.begin(), lines_.end(),
                       [&](const std::string& l) { return l.find(fragment) != std::string::npos; });
}

}  // namespace testsupport
