// Sleeping, the millisecond tick and local calendar time.
#pragma once

#include <ctime>

#include "platform/win_types.h"

// usleep of ms x 1000, multiplied in unsigned 32-bit arithmetic (a wait longer
// than 4,294,967 ms wraps).
void Sleep(unsigned int ms);

// Milliseconds of the monotonic clock as a wrapping 32-bit count (about every
// 49.7 days). Compare tick values by subtraction.
unsigned int GetTickCount();

// The tick arithmetic of GetTickCount for a given clock reading:
// seconds x 1000 + nanoseconds / 1,000,000, all in unsigned 32 bits.
unsigned int TickCountFromClock(long long seconds, long nanoseconds);

// Local time (not UTC, whatever the name says) of time(): wDayOfWeek is always
// 0 and wMilliseconds is left as it was. Returns 1.
int GetSystemTime(_SYSTEMTIME* out);

// The same conversion of a given number of seconds since the epoch.
void ConvertTimeToSystemTime(_SYSTEMTIME& out, long seconds);
