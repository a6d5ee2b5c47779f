#include "platform/critical_section.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/platform/shm_util.h"

namespace {

int TryLockFromOtherThread(pthread_mutex_t* cs) {
  int rc = -1;
  std::thread other([&] {
    rc = pthread_mutex_trylock(cs);
    if (rc == 0) pthread_mutex_unlock(cs);
  });
  other.join();
  return rc;
}

TEST(CriticalSection, OwnerMayEnterAgainAndMustLeaveAsOften) {
  pthread_mutex_t cs;
  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);
  EnterCriticalSection(&cs);
  LeaveCriticalSection(&cs);
  EXPECT_EQ(EBUSY, TryLockFromOtherThread(&cs)) << "one leave of two entries must keep it held";
  LeaveCriticalSection(&cs);
  EXPECT_EQ(0, TryLockFromOtherThread(&cs));
  DeleteCriticalSection(&cs);
}

// The printed number is errno at the moment of failure, not the error number
// the pthread call returned.
TEST(CriticalSection, FailuresPrintErrnoNotTheReturnedError) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer reports the deliberate misuse itself and changes errno";
#endif
  static pthread_mutex_t cs;
  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);

  std::string unlockLine;
  std::thread stranger([&] {
    unlockLine = qs_test::CaptureStdout(
        [](void*) {
          errno = 0;
          LeaveCriticalSection(&cs);  // EPERM: this thread does not own it
        },
        nullptr);
  });
  stranger.join();
  EXPECT_EQ("pthread_mutex_unlock failed 0\n", unlockLine);

  std::string destroyLine = qs_test::CaptureStdout(
      [](void*) {
        errno = 7;
        DeleteCriticalSection(&cs);  // EBUSY: still locked
      },
      nullptr);
  EXPECT_EQ("pthread_mutex_destroy failed 7\n", destroyLine);

  LeaveCriticalSection(&cs);
  DeleteCriticalSection(&cs);
}

}  // namespace
