// Error numbers and formatting helpers of the Win32 C runtime.
#pragma once

#include <cstdarg>

// The calling thread's errno as an unsigned 32-bit value.
unsigned int GetLastError();

// The number of characters `format` would produce with `args`, without the
// terminator (vsnprintf into no buffer). `args` is consumed.
int _vscprintf(const char* format, va_list args);

// strtoll in base 10.
long long _atoi64(const char* text);
