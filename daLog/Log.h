#ifndef DALOG_LOG_H
#define DALOG_LOG_H

// Log macros of the class-based parts (sybconn, stcrypt, dataAccess). Every
// line goes through ACE's process-wide logger, so the host program keeps
// control of the priority mask and of where lines go. A line reads
//   "%D DEBUG [ %t ] message\n"   (INFO is followed by two blanks, so the
//                                   brackets of all levels line up)
// Format strings are printf-like (ACE's); pass std::string as .c_str().
// Internal to the library: not installed.

#include <ace/Log_Msg.h>

#define DA_LOG_DEBUG(fmt, ...) ACE_DEBUG((LM_DEBUG, ACE_TEXT("%D DEBUG [ %t ] " fmt "\n"), ##__VA_ARGS__))
#define DA_LOG_INFO(fmt, ...) ACE_DEBUG((LM_INFO, ACE_TEXT("%D INFO  [ %t ] " fmt "\n"), ##__VA_ARGS__))
#define DA_LOG_ERROR(fmt, ...) ACE_ERROR((LM_ERROR, ACE_TEXT("%D ERROR [ %t ] " fmt "\n"), ##__VA_ARGS__))

namespace daLog {
// True when a DEBUG line would be written. Check it before building a string
// that only a DEBUG line needs: a suppressed ACE_DEBUG still evaluates its
// arguments.
inline bool debugEnabled() { return ACE_LOG_MSG->log_priority_enabled(LM_DEBUG) != 0; }
}  // namespace daLog

#endif
