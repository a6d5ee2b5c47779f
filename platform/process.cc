#include "platform/process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

void GetLoginUser(char* out) {
  if (out == nullptr) return;
  char name[1024];
  memset(name, 0, sizeof(name));
  if (getlogin_r(name, sizeof(name)) != 0) {
    puts("getlogin_r failed.");
    return;
  }
  strcpy(out, name);
}

int parseLine(char* line) {
  if (line == nullptr) return 0;
  size_t length = strlen(line);
  char* digits = line;
  while (*digits != '\0' && (*digits < '0' || *digits > '9')) ++digits;
  if (*digits == '\0') return 0;
  if (length >= 3) {
    char* cut = digits + (length - 3);
    if (cut < line + length) *cut = '\0';
  }
  return static_cast<int>(strtol(digits, nullptr, 10));
}

int parseLineLinux(char* line) { return parseLine(line); }

unsigned int GetVmRssFromStatusFile(const char* path) {
  FILE* file = fopen(path, "r");
  if (file == nullptr) return 0;
  char line[128];
  unsigned int result = 0;
  while (fgets(line, sizeof(line), file) != nullptr) {
    if (strncmp(line, "VmRSS:", 6) == 0) {
      result = static_cast<unsigned int>(parseLine(line)) << 10;
      break;
    }
  }
  fclose(file);
  return result;
}

unsigned int GetCurrentProcessVirtualMemSize() { return GetVmRssFromStatusFile("/proc/self/status"); }

void TerminateProcess(void*, int) { syscall(SYS_tgkill, getpid(), 9); }
