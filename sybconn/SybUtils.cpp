#include <sybconn/SybUtils.h>

#include <cctype>
#include <cstdio>
#include <ctime>

namespace SybUtils {

std::string convertFromUnixTimeval(const timeval& tv) {
  time_t sec = tv.tv_sec;
  long usec = static_cast<long>(tv.tv_usec);
  // Normalise microseconds outside [0, 1e6) into the seconds.
  sec += static_cast<time_t>(usec / 1000000);
  usec %= 1000000;
  if (usec < 0) {
    usec += 1000000;
    sec -= 1;
  }
  struct tm t {};
  localtime_r(&sec, &t);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d%02d%02d %02d:%02d:%02d.%03ld", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, usec / 1000);
  return buf;
}

namespace {

// Reads exactly n digits at s[i]; advances i.
bool digits(const std::string& s, size_t& i, int n, int& value) {
  value = 0;
  for (int k = 0; k < n; ++k, ++i) {
    if (i >= s.size() || !std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    value = value * 10 + (s[i] - '0');
  }
  return true;
}

}  // namespace

bool parseDate(const std::string& text, timeval& out) {
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  int year, month, day, hour = 0, minute = 0, second = 0;
  long usec = 0;
  if (!digits(text, i, 4, year)) return false;
  const bool dashed = i < text.size() && text[i] == '-';
  if (dashed) ++i;
  if (!digits(text, i, 2, month)) return false;
  if (dashed) {
    if (i >= text.size() || text[i] != '-') return false;
    ++i;
  }
  if (!digits(text, i, 2, day)) return false;
  if (i < text.size() && (text[i] == ' ' || text[i] == 'T')) {
    ++i;
    if (!digits(text, i, 2, hour) || i >= text.size() || text[i++] != ':' || !digits(text, i, 2, minute))
      return false;
    if (i < text.size() && text[i] == ':') {
      ++i;
      if (!digits(text, i, 2, second)) return false;
      if (i < text.size() && (text[i] == '.' || text[i] == ':')) {
        // A fraction: up to six digits count; the scale of further ones is 0.
        ++i;
        long scale = 100000;
        size_t start = i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
          usec += (text[i] - '0') * scale;
          scale /= 10;
          ++i;
        }
        if (i == start) return false;
      }
    }
  }
  while (i < text.size() && text[i] == ' ') ++i;
  if (i != text.size()) return false;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return false;
  struct tm t {};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  t.tm_isdst = -1;
  const time_t sec = mktime(&t);
  if (sec == static_cast<time_t>(-1) && !(year == 1969 && month == 12 && day == 31)) return false;
  out.tv_sec = sec;
  out.tv_usec = static_cast<suseconds_t>(usec);
  return true;
}

}  // namespace SybUtils
