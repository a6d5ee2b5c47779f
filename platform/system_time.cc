#include "platform/system_time.h"

#include <unistd.h>

#include <ctime>

void Sleep(unsigned int ms) { usleep(ms * 1000u); }

unsigned int TickCountFromClock(long long seconds, long nanoseconds) {
  return static_cast<unsigned int>(seconds) * 1000u + static_cast<unsigned int>(nanoseconds / 1000000);
}

unsigned int GetTickCount() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return TickCountFromClock(ts.tv_sec, ts.tv_nsec);
}

void ConvertTimeToSystemTime(_SYSTEMTIME& out, long seconds) {
  time_t t = static_cast<time_t>(seconds);
  tm local{};
  localtime_r(&t, &local);
  out.wYear = static_cast<uint16_t>(local.tm_year + 1900);
  out.wMonth = static_cast<uint16_t>(local.tm_mon + 1);
  out.wDayOfWeek = 0;
  out.wDay = static_cast<uint16_t>(local.tm_mday);
  out.wHour = static_cast<uint16_t>(local.tm_hour);
  out.wMinute = static_cast<uint16_t>(local.tm_min);
  out.wSecond = static_cast<uint16_t>(local.tm_sec);
}

int GetSystemTime(_SYSTEMTIME* out) {
  ConvertTimeToSystemTime(*out, static_cast<long>(time(nullptr)));
  return 1;
}
