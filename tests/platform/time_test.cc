#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "platform/system_time.h"

namespace {

// Sets TZ for one test and restores it.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* tz) {
    const char* old = getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

TEST(Time, TickCountWrapsAt32Bits) {
  // 4,294,967,296 ms is exactly 2^32: the count starts again from 0.
  EXPECT_EQ(0u, TickCountFromClock(4294967, 296000000));
  EXPECT_EQ(1u, TickCountFromClock(4294967, 297999999));
  EXPECT_EQ(4294967295u, TickCountFromClock(4294967, 295000000));
  EXPECT_EQ(1234u, TickCountFromClock(1, 234999999)) << "nanoseconds are truncated to whole ms";
}

TEST(Time, TickCountFollowsTheMonotonicClock) {
  unsigned int before = GetTickCount();
  Sleep(50);
  unsigned int elapsed = GetTickCount() - before;
  EXPECT_GE(elapsed, 49u);
  EXPECT_LT(elapsed, 2000u);
}

TEST(Time, SleepMultipliesIn32Bits) {
  // 4,294,968 ms x 1000 wraps to 704 us.
  unsigned int before = GetTickCount();
  Sleep(4294968);
  EXPECT_LT(GetTickCount() - before, 1000u);
}

TEST(Time, SystemTimeIsLocalWithDayOfWeekZeroAndMillisecondsUntouched) {
  ScopedTimeZone tz("UTC-3");  // three hours east of UTC
  _SYSTEMTIME st{};
  st.wDayOfWeek = 6;
  st.wMilliseconds = 987;
  time_t now = time(nullptr);
  EXPECT_EQ(1, GetSystemTime(&st));
  tm local{};
  localtime_r(&now, &local);
  EXPECT_EQ(local.tm_year + 1900, st.wYear);
  EXPECT_EQ(local.tm_mon + 1, st.wMonth);
  EXPECT_EQ(local.tm_mday, st.wDay);
  EXPECT_EQ(local.tm_hour, st.wHour);
  EXPECT_EQ(0, st.wDayOfWeek);
  EXPECT_EQ(987, st.wMilliseconds);
}

TEST(Time, ConvertTimeToSystemTimeUsesLocalTime) {
  ScopedTimeZone tz("UTC-2");
  _SYSTEMTIME st{};
  st.wMilliseconds = 5;
  ConvertTimeToSystemTime(st, 86400L * 365 + 3600 + 61);  // 1971-01-01 01:01:01 UTC
  EXPECT_EQ(1971, st.wYear);
  EXPECT_EQ(1, st.wMonth);
  EXPECT_EQ(1, st.wDay);
  EXPECT_EQ(3, st.wHour) << "two hours east of UTC";
  EXPECT_EQ(1, st.wMinute);
  EXPECT_EQ(1, st.wSecond);
  EXPECT_EQ(0, st.wDayOfWeek);
  EXPECT_EQ(5, st.wMilliseconds);
}

}  // namespace
