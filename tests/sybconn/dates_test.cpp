// Date text for statements and the way back, through real storage.
#include <gtest/gtest.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <ctime>

#include "tests/support/TempDir.h"

namespace {

timeval localTime(int y, int mo, int d, int h, int mi, int s, long usec) {
  struct tm t {};
  t.tm_year = y - 1900;
  t.tm_mon = mo - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_sec = s;
  t.tm_isdst = -1;
  return timeval{mktime(&t), static_cast<suseconds_t>(usec)};
}

TEST(Dates, TextFormAndParsing) {
  const timeval tv = localTime(2026, 11, 22, 13, 5, 9, 250999);
  EXPECT_EQ(SybUtils::convertFromUnixTimeval(tv), "20261122 13:05:09.250");
  // Microseconds out of range are carried into the seconds.
  EXPECT_EQ(SybUtils::convertFromUnixTimeval(timeval{tv.tv_sec - 1, 1250999}), "20261122 13:05:09.250");

  timeval back{};
  ASSERT_TRUE(SybUtils::parseDate("20261122 13:05:09.250", back));
  EXPECT_EQ(back.tv_sec, tv.tv_sec);
  EXPECT_EQ(back.tv_usec, 250000);
  ASSERT_TRUE(SybUtils::parseDate("2026-11-22T13:05:09.123456789", back));
  EXPECT_EQ(back.tv_usec, 123456);
  ASSERT_TRUE(SybUtils::parseDate("2026-11-22 13:05:09:500", back));  // Sybase's colon before milliseconds
  EXPECT_EQ(back.tv_usec, 500000);
  ASSERT_TRUE(SybUtils::parseDate("2026-11-22", back));
  EXPECT_EQ(back.tv_sec, localTime(2026, 11, 22, 0, 0, 0, 0).tv_sec);

  const timeval untouched{7, 7};
  for (const char* bad : {"", "2026", "2026-13-01", "20261122 25:00:00", "20261122 13:05:09.", "x20261122",
                          "20261122 13:05:09 junk", "2026-11-22 13"}) {
    timeval t = untouched;
    EXPECT_FALSE(SybUtils::parseDate(bad, t)) << bad;
    EXPECT_EQ(t.tv_sec, 7) << bad;
  }
}

TEST(Dates, RoundTripThroughStorageToTheMillisecond) {
  testsupport::TempDir dir;
  SybaseConnection conn;
  ASSERT_EQ(conn.connect("sqlite:" + dir.file("d.db"), "u", "p"), 0);
  conn.execute("create table d (id int, at datetime)");
  const timeval cases[] = {localTime(2026, 11, 22, 23, 59, 59, 999999),
                           localTime(2026, 11, 23, 0, 0, 0, 1000), localTime(2000, 2, 29, 12, 0, 0, 5000),
                           localTime(1999, 12, 31, 23, 59, 59, 500)};
  int id = 0;
  for (const timeval& tv : cases) {
    conn.execute("insert into d values (" + std::to_string(++id) + ", '" +
                 SybUtils::convertFromUnixTimeval(tv) + "')");
  }
  SybaseResultSet rs = conn.execute("select at from d order by id");
  for (const timeval& tv : cases) {
    ASSERT_TRUE(rs.next());
    const timeval got = rs.getDateAsTimevalValue(1);
    EXPECT_EQ(got.tv_sec, tv.tv_sec);
    EXPECT_EQ(got.tv_usec, tv.tv_usec / 1000 * 1000);
  }

  // getdate() is stored in the same form and reads back as now.
  timeval before{};
  gettimeofday(&before, nullptr);
  conn.execute("insert into d values (99, getdate())");
  SybaseResultSet now = conn.execute("select at, id from d where id = 99");
  ASSERT_TRUE(now.next());
  EXPECT_EQ(now.getStringValue(1).size(), 21u);
  const timeval got = now.getDateAsTimevalValue(1);
  EXPECT_LE(std::labs(got.tv_sec - before.tv_sec), 2);
  // Epoch numbers read as dates too; a non-date text reads as zero.
  SybaseResultSet num = conn.execute("select 1700000000, 1700000000.25, 'soon'");
  ASSERT_TRUE(num.next());
  EXPECT_EQ(num.getDateAsTimevalValue(1).tv_sec, 1700000000);
  EXPECT_EQ(num.getDateAsTimevalValue(2).tv_usec, 250000);
  EXPECT_EQ(num.getDateAsTimevalValue(3).tv_sec, 0);
}

}  // namespace
