#include "platform/format.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

unsigned int GetLastError() { return static_cast<unsigned int>(errno); }

int _vscprintf(const char* format, va_list args) { return vsnprintf(nullptr, 0, format, args); }

long long _atoi64(const char* text) { return strtoll(text, nullptr, 10); }
