#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "platform/format.h"
#include "platform/library.h"
#include "platform/process.h"
#include "platform/process_flags.h"
#include "platform/rwlock.h"
#include "platform/window_stubs.h"
#include "tests/platform/shm_util.h"

namespace {

TEST(Process, ParseLineCutsTheUnitAndReadsTheNumber) {
  char status[] = "VmRSS:\t    2048 kB\n";
  EXPECT_EQ(2048, parseLine(status));
  char netstat[] = "1234/firefox\n";
  EXPECT_EQ(1234, parseLineLinux(netstat));
  EXPECT_STREQ("1234/firef", netstat) << "cut (length - 3) characters after the first digit";
  char noDigit[] = "VmRSS: kB\n";
  EXPECT_EQ(0, parseLine(noDigit));
}

TEST(Process, ResidentSizeComesFromTheVmRssLine) {
  const struct { const char* text; unsigned int bytes; } cases[] = {
      {"Name:\tx\nVmSize:\t  9999 kB\nVmRSS:\t    2048 kB\nThreads:\t1\n", 2097152u}, {"Name:\tx\nVmSize:\t 9 kB\n", 0}};
  for (const auto& c : cases) {
    char path[] = "/tmp/qs_status_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_EQ(static_cast<ssize_t>(strlen(c.text)), write(fd, c.text, strlen(c.text)));
    close(fd);
    EXPECT_EQ(c.bytes, GetVmRssFromStatusFile(path)) << c.text;
    unlink(path);
  }
  EXPECT_EQ(0u, GetVmRssFromStatusFile("/nonexistent/status"));
  unsigned int rss = GetCurrentProcessVirtualMemSize();
  EXPECT_GT(rss, 0u);
  EXPECT_EQ(0u, rss % 1024);
}

// The raw tgkill puts 9 where the thread id goes: the caller survives.
TEST(Process, TerminateProcessDoesNotReliablyEndTheProcess) {
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    TerminateProcess(nullptr, 3);
    _exit(42);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
}

TEST(Process, LoginUserIsCopiedOrTheFailureIsPrinted) {
  static char out[1024];
  strcpy(out, "unchanged");
  char expected[1024] = {0};
  bool known = getlogin_r(expected, sizeof(expected)) == 0;
  std::string printed = qs_test::CaptureStdout([](void*) { GetLoginUser(out); }, nullptr);
  EXPECT_STREQ(known ? expected : "unchanged", out);
  EXPECT_EQ(known ? "" : "getlogin_r failed.\n", printed);
}

TEST(Library, LoadResolveFreeAndClearTheLoaderError) {
  void* libc = LoadLibrary("libc.so.6");
  ASSERT_NE(nullptr, libc);
  EXPECT_NE(nullptr, GetProcAddress(libc, "strlen"));
  EXPECT_EQ(nullptr, GetProcAddress(libc, "no_such_symbol_here"));
  EXPECT_EQ(nullptr, GetProcAddress(nullptr, "strlen"));
  FreeLibrary(libc);
  FreeLibrary(nullptr);
  dlerror();
  EXPECT_EQ(nullptr, LoadLibrary("/nonexistent/libnothing.so"));
  EXPECT_EQ(nullptr, dlerror()) << "the error must already have been taken";
}

int Measure(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = _vscprintf(format, args);
  va_end(args);
  return n;
}

TEST(Format, VscprintfAtoi64AndLastError) {
  EXPECT_EQ(8, Measure("abc%d", 12345)) << "without the terminator";
  EXPECT_EQ(1030, Measure("%1030s", "x"));
  EXPECT_EQ(LLONG_MIN, _atoi64("-9223372036854775808"));
  EXPECT_EQ(12, _atoi64("12abc"));
  errno = 13;
  EXPECT_EQ(13u, GetLastError());
}

TEST(ProcessFlags, StoreAndReturn) {
  SetGlobalSeed(-5);
  EXPECT_EQ(-5, GetGlobalSeed());
  SetGlobalSeed(0);
  for (bool value : {true, false}) {
    SetIfServiceProcess(value);
    SetIfScanningProcess(!value);
    SetExitFlag(value);
    EXPECT_EQ(value, GetIfServiceProcess());
    EXPECT_EQ(!value, GetIfScanningProcess());
    EXPECT_EQ(value, GetExitFlag());
  }
  SetIfScanningProcess(false);
}

// Reading the exit flag takes glock's writer lock, so it waits for a reader.
TEST(ProcessFlags, GetExitFlagTakesTheWriterLock) {
  glock.AcquireReaderLock(INFINITE);
  std::atomic<bool> gotFlag{false};
  std::thread getter([&] {
    GetExitFlag();
    gotFlag = true;
  });
  usleep(100 * 1000);
  EXPECT_FALSE(gotFlag.load());
  glock.ReleaseReaderLock();
  getter.join();
  EXPECT_TRUE(gotFlag.load());
}

TEST(WindowStubs, HaveNoEffect) {
  HWND window = reinterpret_cast<HWND>(0x1234);
  EXPECT_EQ(nullptr, GetWindow(window, 1));
  EXPECT_EQ(nullptr, GetParent(window));
  EXPECT_EQ(0, MessageBox(window, "text", "caption", 0));
  EXPECT_EQ(nullptr, GetModuleHandle("x"));
  EXPECT_EQ(0, IsBadReadPtr(nullptr, 100));
}

}  // namespace
