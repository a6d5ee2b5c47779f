#include "environment/log.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "environment/configuration.h"
#include "environment/configuration_keys.h"
#include "environment/program_info.h"
#include "ini/profile.h"
#include "platform/format.h"
#include "platform/log.h"
#include "platform/process_flags.h"
#include "platform/rwlock.h"
#include "platform/thread.h"

const int Log_Error = 2;
const int Log_Info = 4;
const int Log_Debug = 8;
const int Log_ALL = 14;

int g_default_log_level = DecimalOf(kLogLevelKey.defaultValue);
int g_log_level = 0;
int g_log_level_mem = 0;
bool g_enumLogLevel = false;
CReaderWriterLock g_csWriteLog;

namespace {

// The level globals are read by every log call on every thread; they are
// accessed atomically so that concurrent callers never race.
int LoadLevel(const int& level) { return __atomic_load_n(&level, __ATOMIC_RELAXED); }
void StoreLevel(int& level, int value) { __atomic_store_n(&level, value, __ATOMIC_RELAXED); }

const char* const kTypeNames[] = {"NULL", "Error", "Info", "Debug"};

// Keeps the caller's errno across a log call: logging must not change what a
// caller reads with GetLastError afterwards.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : m_saved(errno) {}
  ~ErrnoKeeper() { errno = m_saved; }
  int Saved() const { return m_saved; }

 private:
  int m_saved;
};

unsigned int ProcessId() {
  static const unsigned int pid = GetCurrentProcessId();
  return pid;
}

// Appends one entry (the level already passed the filter).
bool AppendEntry(int level, const char* text, const unsigned char* data, int length, int lastError) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);

  char prefix[512];
  memset(prefix, 0, sizeof(prefix));
  snprintf(prefix, sizeof(prefix), "[Process:%6d Thread:%6d] [%02d/%02d/%04d %02d:%02d:%02d.%03d] [%s-%d]: ",
           static_cast<int>(ProcessId()), static_cast<int>(GetCurrentThreadId()), local.tm_mon + 1, local.tm_mday,
           local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(now.tv_nsec / 1000000), GetLogTypeStr(level).c_str(), static_cast<int>(GetProgramMode()));

  ScopedWriterLock hold(g_csWriteLog);
  const std::string& file = GetIfScanningProcess() ? g_logs_file : g_log_file;
  FILE* out = fopen(file.c_str(), "a+b");
  if (out == nullptr) return false;
  fprintf(out, "%s%s", prefix, text != nullptr ? text : "");
  if (level & Log_Error) fprintf(out, " GetLastError = %d.", lastError);
  fputc('\n', out);
  // Raw data goes on a line of its own, ended by a line feed even when it is
  // empty.
  if (data != nullptr) {
    if (length > 0) fwrite(data, 1, static_cast<size_t>(length), out);
    fputc('\n', out);
  }
  fclose(out);
  return true;
}

bool FormatAndAppend(int level, const char* format, va_list args, int lastError) {
  va_list measure;
  va_copy(measure, args);
  int length = _vscprintf(format, measure);
  va_end(measure);
  if (length < 0) length = 0;
  size_t size = static_cast<size_t>(length) + 513;
  char* text = static_cast<char*>(malloc(size));
  if (text == nullptr) return false;
  vsnprintf(text, size, format, args);
  bool written = AppendEntry(level, text, nullptr, 0, lastError);
  free(text);
  return written;
}

bool Filtered(int level) { return (level & GetLogLevel()) == 0; }

}  // namespace

bool WriteLog(int level, const char* text, const unsigned char* data, int length) {
  ErrnoKeeper keep;
  if (Filtered(level)) return true;
  return AppendEntry(level, text, data, length, keep.Saved());
}

bool WriteLog(int level, const char* format, va_list args) {
  ErrnoKeeper keep;
  if (Filtered(level)) return true;
  return FormatAndAppend(level, format, args, keep.Saved());
}

#define QS_FORWARD_LOG(level)                    \
  ErrnoKeeper keep;                              \
  if (Filtered(level)) return true;              \
  va_list args;                                  \
  va_start(args, format);                        \
  bool written = FormatAndAppend(level, format, args, keep.Saved()); \
  va_end(args);                                  \
  return written

bool LogErr(const char* format, ...) { QS_FORWARD_LOG(Log_Error); }
bool LogInfo(const char* format, ...) { QS_FORWARD_LOG(Log_Info); }
bool LogDebug(const char* format, ...) { QS_FORWARD_LOG(Log_Debug); }
#undef QS_FORWARD_LOG

bool LogDebug(const char* text, const unsigned char* data, int length) {
  return WriteLog(Log_Debug, text, data, length);
}

void Log(int type, const char* format, ...) {
  ErrnoKeeper keep;
  const int level = type == 3 ? Log_Error : Log_Debug;
  if (Filtered(level)) return;
  va_list args;
  va_start(args, format);
  FormatAndAppend(level, format, args, keep.Saved());
  va_end(args);
}

int GetLogLevelInLocal() {
  // The default's decimal text ("%d"), made without the printf machinery:
  // this runs on every log call, filtered or not.
  char defaultText[32] = {0};
  std::to_chars(defaultText, defaultText + sizeof(defaultText) - 1, g_default_log_level);
  char value[64];
  memset(value, 0, sizeof(value));
  ScopedReaderLock hold(g_csWriteLog);
  GetPrivateProfileStringA(appName, kLogLevelKey.name, defaultText, value, sizeof(value), g_szIniFile);
  return static_cast<int>(strtol(value, nullptr, 10));
}

int GetLogLevel() {
  int level = GetLogLevelInLocal() | LoadLevel(g_log_level_mem);
  StoreLevel(g_log_level, level);
  return level;
}

void UpdateLogLevel() {
  const int memory = LoadLevel(g_log_level_mem);
  const int combined = GetLogLevelInLocal() | memory;
  int level;
  if (combined == 65535 || memory == 65535) {
    level = 14;
  } else if (combined == 0) {
    level = 6;
  } else if (combined >= 1 && combined <= 14) {
    level = combined;
  } else {
    LogErr("Invalid Service Log Level value. Default log level value loaded.");
    level = g_default_log_level;
  }
  StoreLevel(g_log_level, level);
}

void SetLogLevel(int mask) {
  SetConfigurationToInitFile(kLogLevelKey.name, mask, nullptr);
  UpdateLogLevel();
  g_enumLogLevel = LoadLevel(g_log_level) == 14;
  LogDebug("Log Level = %d, %d.", LoadLevel(g_log_level), LoadLevel(g_log_level_mem));
}

bool ChangeLogLevel(int mask) {
  ScopedWriterLock hold(g_csWriteLog);
  StoreLevel(g_log_level_mem, mask);
  UpdateLogLevel();
  return LoadLevel(g_log_level) == 14;
}

std::string GetLogTypeStr(int mask) {
  for (int bit = 0; bit < 4; ++bit) {
    if (mask & (1 << bit)) return kTypeNames[bit];
  }
  return "";
}
