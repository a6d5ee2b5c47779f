// The service log: one text file per kind of process in the log folder, a line
// per message, filtered by a level mask that is read from the configuration
// file on every call, so the level can be changed while the service runs.
//
// A line reads
//   [Process:  1234 Thread:  5678] [03/07/2024 09:05:01.042] [Error-0]: text GetLastError = 2.
// (month/day/year, the lowest type bit of the level, the program mode; error
// lines end with the caller's last error). The service process writes qss.log,
// a scanning process qsu.log. Appends are serialised by g_csWriteLog, which
// configuration reads take as readers and writes as writer; it is re-entrant
// for its holder.
#pragma once

#include <cstdarg>
#include <string>

class CReaderWriterLock;

extern const int Log_Error;  // 2
extern const int Log_Info;   // 4
extern const int Log_Debug;  // 8
extern const int Log_ALL;    // 14

extern int g_default_log_level;  // 6
extern int g_log_level;          // the effective mask
extern int g_log_level_mem;      // ORed in at run time; 65535 means everything
extern bool g_enumLogLevel;      // the effective mask is exactly 14
extern CReaderWriterLock g_csWriteLog;

// True when the entry was written or filtered out; false only when the file
// could not be opened. `data`, when not null, follows the line as `length`
// raw bytes and a line feed (the line feed also when `length` is 0).
bool WriteLog(int level, const char* text, const unsigned char* data, int length);
bool WriteLog(int level, const char* format, va_list args);
bool LogErr(const char* format, ...) __attribute__((format(printf, 1, 2)));
bool LogInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));
bool LogDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
bool LogDebug(const char* text, const unsigned char* data, int length);

// "LogLevel" of section "QS" (default 6) as a base-10 number (no digits: 0).
int GetLogLevelInLocal();
// GetLogLevelInLocal() | g_log_level_mem, unvalidated; stored in g_log_level.
int GetLogLevel();
// Recomputes g_log_level: 14 when the combination or the run-time mask is
// 65535, 6 for 0, the combination for 1-14, else an error line and 6.
void UpdateLogLevel();
// Writes "LogLevel" (service process only), recomputes, and logs the result.
void SetLogLevel(int mask);
// Sets the run-time mask; true when the effective level is now 14.
bool ChangeLogLevel(int mask);
// "NULL", "Error", "Info" or "Debug" for the lowest of bits 1, 2, 4, 8; "" when
// none is set.
std::string GetLogTypeStr(int mask);
