// Win32-style scalar types, handles and constants shared by the system layer.
//
// Handles are untyped pointers: an event handle points to an event record, a
// thread handle to a pthread_t slot, a file handle is a FILE*, a global-memory
// handle is the block's own address.
#pragma once

#include <cstdint>

typedef int BOOL;
typedef unsigned int DWORD;
typedef void* HANDLE;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// An opaque window handle; never dereferenced on this platform.
struct HWND__;
typedef HWND__* HWND;

// Wait limits and results. 0x7FFFFFFF is the module-wide "no limit".
constexpr unsigned int INFINITE = 0x7FFFFFFF;
constexpr unsigned int WAIT_OBJECT_0 = 0;
constexpr unsigned int WAIT_TIMEOUT = 258;
constexpr unsigned int WAIT_FAILED = 0xFFFFFFFF;

// Broken-down local time: eight unsigned 16-bit fields in this order.
struct _SYSTEMTIME {
  uint16_t wYear;
  uint16_t wMonth;  // 1-12
  uint16_t wDayOfWeek;
  uint16_t wDay;  // 1-31
  uint16_t wHour;
  uint16_t wMinute;
  uint16_t wSecond;
  uint16_t wMilliseconds;
};
typedef _SYSTEMTIME SYSTEMTIME;

// The Win32 pair of 32-bit words (low, high).
struct _FILETIME {
  uint32_t dwLowDateTime;
  uint32_t dwHighDateTime;
};
typedef _FILETIME FILETIME;
