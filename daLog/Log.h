#ifndef DALOG_LOG_H
#define DALOG_LOG_H

// Log macros of the class-based parts (sybconn, stcrypt, dataAccess). Every
// line goes through ACE's process-wide logger, so the host program keeps
// control of the priority mask and of where lines go. A line reads
//   "%D DEBUG [ %t ] message\n"   (INFO and WARN are followed by two blanks,
//                                   so the brackets of all levels line up)
// Format strings are printf's (checked by the compiler); pass std::string as
// .c_str(). A message of any length is written whole (see daLog::write).
// Internal to the library: not installed.

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#define DA_LOG_DEBUG(fmt, ...) ::daLog::write(LM_DEBUG, "%D DEBUG [ %t ] %s%s", fmt, ##__VA_ARGS__)
#define DA_LOG_INFO(fmt, ...) ::daLog::write(LM_INFO, "%D INFO  [ %t ] %s%s", fmt, ##__VA_ARGS__)
#define DA_LOG_WARNING(fmt, ...) ::daLog::write(LM_WARNING, "%D WARN  [ %t ] %s%s", fmt, ##__VA_ARGS__)
#define DA_LOG_ERROR(fmt, ...) ::daLog::write(LM_ERROR, "%D ERROR [ %t ] %s%s", fmt, ##__VA_ARGS__)

namespace daLog {

// True when a DEBUG line would be written. Check it before building a string
// that only a DEBUG line needs: the macros evaluate their arguments anyway.
// The thread's logger is looked up once per thread (ACE keeps one per thread
// until the thread ends): the check sits on paths as short as a pool borrow.
inline bool debugEnabled() {
  thread_local ACE_Log_Msg* const log = ACE_LOG_MSG;
  return log->log_priority_enabled(LM_DEBUG) != 0;
}

// At most the first 128 bytes of `text`, followed by "..." when it was longer,
// for logging a value read from outside whose length nothing bounds:
// DA_LOG_ERROR("... %s", daLog::clip(server).c_str()). Allocates nothing.
class Clipped {
 public:
  explicit Clipped(const std::string& text) {
    const std::string::size_type n = text.size() < kMax ? text.size() : kMax;
    text.copy(text_, n);
    std::strcpy(text_ + n, text.size() > kMax ? "..." : "");
  }
  const char* c_str() const { return text_; }

 private:
  static constexpr std::string::size_type kMax = 128;
  char text_[kMax + 4];
};
inline Clipped clip(const std::string& text) { return Clipped(text); }

// Writes the message that `fmt` and its arguments make, after the head that
// `line` adds (its ACE conversions: "%D" date, "%t" thread id; it ends in
// "%s%s", the message and the line feed), if `priority` is enabled. ACE
// formats a record into a buffer of ACE_MAXLOGMSGLEN (4 KiB) and cuts what
// does not fit, line feed included, so that the next record would be glued
// on. A longer message therefore goes out as several records: the first
// carries the head, the last the line feed, and ACE's lock is held across
// them, so a stream sink (stderr, a file) shows one whole line and no other
// thread's record comes in between. A sink of its own (ACE_Log_Msg_Backend)
// sees a record without a line feed as continued by the next one. errno is
// kept.
inline void write(ACE_Log_Priority priority, const char* line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

inline void write(ACE_Log_Priority priority, const char* line, const char* fmt, ...) {
  ACE_Log_Msg* log = ACE_LOG_MSG;
  if (!log->log_priority_enabled(priority)) return;
  const int savedErrno = errno;
  char small[512];
  std::string large;
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(small, sizeof small, fmt, args);
  va_end(args);
  char* text = small;
  if (length < 0) {
    small[0] = '\0';
  } else if (static_cast<size_t>(length) >= sizeof small) {
    large.resize(static_cast<size_t>(length));
    std::vsnprintf(&large[0], large.size() + 1, fmt, again);
    text = &large[0];
  }
  va_end(again);
  // Room for the message in one record, leaving plenty for the head.
  const size_t room = ACE_MAXLOGMSGLEN / 4 * 3, size = length < 0 ? 0 : static_cast<size_t>(length);
  if (size <= room) {
    log->log(priority, line, text, "\n");
  } else {
    ACE_Guard<ACE_Log_Msg> guard(*log);
    for (size_t at = 0; at < size; at += room) {
      const size_t end = at + room < size ? at + room : size;
      const char cut = text[end];
      text[end] = '\0';
      log->log(priority, at == 0 ? line : "%s%s", text + at, end == size ? "\n" : "");
      text[end] = cut;
    }
  }
  errno = savedErrno;
}

}  // namespace daLog

#endif
