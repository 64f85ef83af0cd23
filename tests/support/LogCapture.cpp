#include "tests/support/LogCapture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <algorithm>
#include <mutex>
#include <regex>

namespace testsupport {
namespace {

LogCapture* g_active = nullptr;
std::mutex g_mutex;  // guards g_active and the lines of the active capture
ACE_Log_Msg_Backend* g_previousBackend = nullptr;
unsigned long g_previousFlags = 0;

struct Sink : ACE_Log_Msg_Backend {
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_active) g_active->append(record.msg_data());
    return 0;
  }
} g_sink;

}  // namespace

// ACE's settings change outside g_mutex: ACE locks around a log call, then the backend takes g_mutex.
LogCapture::LogCapture() {
  g_previousBackend = ACE_Log_Msg::msg_backend(&g_sink);
  g_previousFlags = ACE_LOG_MSG->flags();
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_active = this;
}

LogCapture::~LogCapture() {
  ACE_LOG_MSG->clr_flags(ACE_LOG_MSG->flags());
  ACE_LOG_MSG->set_flags(g_previousFlags);
  ACE_Log_Msg::msg_backend(g_previousBackend);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_active = nullptr;
}

void LogCapture::append(const std::string& raw) {
  static const std::regex head(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6}(.*?)\[ \d+ \])");
  if (!lines_.empty() && (lines_.back().empty() || lines_.back().back() != '\n'))
    lines_.back() += raw;  // a long message goes out in pieces
  else
    lines_.push_back(std::regex_replace(raw, head, "<D>$1[ <t> ]"));
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  lines_.clear();
}

bool LogCapture::contains(const std::string& line) const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

size_t LogCapture::count(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return std::count_if(lines_.begin(), lines_.end(),
                       [&](const std::string& l) { return l.find(fragment) != std::string::npos; });
}

}  // namespace testsupport
