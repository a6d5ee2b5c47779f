#include "platform/event.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>
#include <thread>

#include "platform/process_flags.h"
#include "platform/system_time.h"
#include "tests/platform/shm_util.h"

namespace {

// Closes an event at the end of a scope.
struct EventCloser {
  void* event;
  ~EventCloser() { CloseEvent(event); }
};

TEST(Event, AutoResetEventCountsSignals) {
  void* event = CreateEvent(nullptr, 0, 0, nullptr);
  ASSERT_NE(nullptr, event);
  EventCloser closer{event};
  EXPECT_EQ(1, SetEvent(event));
  EXPECT_EQ(1, SetEvent(event));
  EXPECT_EQ(0u, WaitForEvent(event, 10));
  EXPECT_EQ(0u, WaitForEvent(event, 10));
  EXPECT_EQ(258u, WaitForEvent(event, 10));
}

TEST(Event, InitialStateIsOnePendingSignal) {
  void* event = CreateEvent(nullptr, 0, 1, nullptr);
  EventCloser closer{event};
  EXPECT_EQ(0u, WaitForEvent(event, 10));
  EXPECT_EQ(258u, WaitForEvent(event, 10));
}

TEST(Event, ZeroTimeoutNeverSucceeds) {
  void* event = CreateEvent(nullptr, 0, 1, nullptr);
  EventCloser closer{event};
  EXPECT_EQ(258u, WaitForEvent(event, 0));
  EXPECT_EQ(0u, WaitForEvent(event, 10)) << "the zero-timeout poll must not have taken the signal";
}

// The budget is timeout x 1,000,000 in 32 bits: 67,108,864 ms wraps to exactly
// 0 and behaves like a zero timeout, 5,000 ms to about 705 ms.
TEST(Event, BudgetWrapsIn32Bits) {
  void* event = CreateEvent(nullptr, 0, 1, nullptr);
  EventCloser closer{event};
  EXPECT_EQ(258u, WaitForEvent(event, 67108864u));

  void* idle = CreateEvent(nullptr, 0, 0, nullptr);
  EventCloser idleCloser{idle};
  unsigned int start = GetTickCount();
  EXPECT_EQ(258u, WaitForEvent(idle, 5000));
  unsigned int took = GetTickCount() - start;
  EXPECT_GE(took, 690u);
  EXPECT_LT(took, 3000u) << "a 5000 ms wait gives up after about 705 ms";
}

TEST(Event, ManualResetLetsOneWaiterThroughAndSwallowsOneMoreSignal) {
  void* event = CreateEvent(nullptr, 1, 0, nullptr);
  EventCloser closer{event};
  SetEvent(event);
  SetEvent(event);
  EXPECT_EQ(0u, WaitForEvent(event, 10));
  EXPECT_EQ(258u, WaitForEvent(event, 10)) << "the second signal was swallowed";
}

TEST(Event, ResetTakesAwayAtMostOneSignal) {
  void* event = CreateEvent(nullptr, 0, 0, nullptr);
  EventCloser closer{event};
  EXPECT_EQ(1, ResetEvent(event)) << "nothing pending is still success";
  SetEvent(event);
  SetEvent(event);
  EXPECT_EQ(1, ResetEvent(event));
  EXPECT_EQ(0u, WaitForEvent(event, 10));
  EXPECT_EQ(258u, WaitForEvent(event, 10));
}

TEST(Event, InfiniteWaitWakesOnAnotherThreadsSignal) {
  void* event = CreateEvent(nullptr, 0, 0, nullptr);
  EventCloser closer{event};
  std::thread setter([&] {
    Sleep(30);
    SetEvent(event);
  });
  EXPECT_EQ(0u, WaitForEvent(event, INFINITE));
  setter.join();
}

TEST(Event, NullHandles) {
  EXPECT_EQ(0xFFFFFFFFu, WaitForEvent(nullptr, 10));
  EXPECT_EQ(0xFFFFFFFFu, WaitForEvent(nullptr, INFINITE));
  EXPECT_EQ(0, SetEvent(nullptr));
  EXPECT_EQ(1, ResetEvent(nullptr));
  EXPECT_EQ(0u, WaitForEvents(0, nullptr, true, 10));
  CloseEvent(nullptr);
  EXPECT_EQ(nullptr, GetEventName(nullptr));
}

TEST(Event, AutomaticNamesCarryPidCounterAndSeed) {
  SetGlobalSeed(77);
  void* first = CreateEvent(nullptr, 0, 0, nullptr);
  void* second = CreateEvent(nullptr, 0, 0, nullptr);
  EventCloser c1{first}, c2{second};
  std::smatch m1, m2;
  std::string n1 = GetEventName(first), n2 = GetEventName(second);
  const std::regex pattern("ce0" + std::to_string(getpid()) + "_([0-9]+)_77");
  ASSERT_TRUE(std::regex_match(n1, m1, pattern)) << n1;
  ASSERT_TRUE(std::regex_match(n2, m2, pattern)) << n2;
  EXPECT_EQ(std::stoul(m1[1]) + 1, std::stoul(m2[1]));
  EXPECT_TRUE(qs_test::SemaphoreExists(n1));
  SetGlobalSeed(0);
}

TEST(Event, GivenNamesKeepAtMost31Characters) {
  std::string longName = "qs_evt_" + std::to_string(getpid()) + "_abcdefghijklmnopqrstuvwxyz0123456789";
  void* event = CreateEvent(nullptr, 0, 0, longName.c_str());
  ASSERT_NE(nullptr, event);
  EXPECT_EQ(longName.substr(0, 31), GetEventName(event));
  CloseEvent(event);
  EXPECT_FALSE(qs_test::SemaphoreExists(longName.substr(0, 31)));
}

TEST(Event, CreateRefusesAnExistingNameAndPrintsTheFailure) {
  static std::string name;
  name = "qs_evt_dup_" + std::to_string(getpid());
  void* event = CreateEvent(nullptr, 0, 0, name.c_str());
  ASSERT_NE(nullptr, event);
  static void* second;
  std::string printed = qs_test::CaptureStdout([](void*) { second = CreateEvent(nullptr, 0, 0, name.c_str()); }, nullptr);
  EXPECT_EQ(nullptr, second);
  EXPECT_EQ("CreateEvent sem_open failed " + std::to_string(EEXIST) + " name " + name + "\n", printed);
  CloseEvent(event);
}

// OpenEvent shares the semaphore; CloseEvent unlinks the name, so opening it
// again afterwards fails.
TEST(Event, OpenSharesTheSemaphoreUntilCloseUnlinksIt) {
  static std::string name;
  name = "qs_evt_open_" + std::to_string(getpid());
  void* created = CreateEvent(nullptr, 1, 0, name.c_str());
  void* opened = OpenEvent(0, 0, name.c_str());
  ASSERT_NE(nullptr, opened);
  EXPECT_EQ(name, GetEventName(opened));
  SetEvent(opened);
  SetEvent(opened);
  EXPECT_EQ(0u, WaitForEvent(opened, 10));
  EXPECT_EQ(0u, WaitForEvent(created, 10)) << "the opened record is auto-reset: it swallowed nothing";
  CloseEvent(created);
  EXPECT_FALSE(qs_test::SemaphoreExists(name));
  static void* again;
  std::string printed = qs_test::CaptureStdout([](void*) { again = OpenEvent(0, 0, name.c_str()); }, nullptr);
  EXPECT_EQ(nullptr, again);
  EXPECT_EQ("OpenEvent sem_open failed " + std::to_string(ENOENT) + "\n", printed);
  CloseEvent(opened);

  std::string nullName = qs_test::CaptureStdout([](void*) { again = OpenEvent(0, 0, nullptr); }, nullptr);
  EXPECT_EQ(nullptr, again);
  EXPECT_EQ("OpenEvent sem_open failed " + std::to_string(EINVAL) + "\n", nullName);
}

TEST(Semaphore, ReleasePostsOnceWhateverTheCount) {
  int previous = -7;
  void* sem = CreateSemaphore(nullptr, 0, 10, nullptr);
  ASSERT_NE(nullptr, sem);
  EXPECT_EQ(1, ReleaseSemaphore(sem, 5, &previous));
  EXPECT_EQ(-7, previous);
  EXPECT_EQ(0u, WaitForSemaphone(sem, 0));
  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(sem, 0));
  CloseSemaphore(sem);
  qs_test::UnlinkOwnAutoSemaphores();
}

// Timeout 20 polls in 2 ms steps and reports 0xFFFFFFFF, not 258.
TEST(Semaphore, FiniteWaitTimesOutWithFailureCode) {
  void* sem = CreateSemaphore(nullptr, 0, 1, nullptr);
  unsigned int start = GetTickCount();
  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(sem, 20));
  unsigned int took = GetTickCount() - start;
  EXPECT_GE(took, 19u);
  EXPECT_LT(took, 1000u);
  CloseSemaphore(sem);
  qs_test::UnlinkOwnAutoSemaphores();
}

TEST(Semaphore, InfiniteWaitBlocksUntilReleased) {
  void* sem = CreateSemaphore(nullptr, 0, 1, nullptr);
  std::thread releaser([&] {
    Sleep(20);
    ReleaseSemaphore(sem, 1, nullptr);
  });
  EXPECT_EQ(0u, WaitForSemaphone(sem, INFINITE));
  releaser.join();
  CloseSemaphore(sem);
  qs_test::UnlinkOwnAutoSemaphores();
}

TEST(Semaphore, CloseLeavesTheNameInPlace) {
  std::string name = "qs_sem_keep_" + std::to_string(getpid());
  void* sem = CreateSemaphore(nullptr, 2, 2, &name[0]);
  ASSERT_NE(nullptr, sem);
  CloseSemaphore(sem);
  EXPECT_TRUE(qs_test::SemaphoreExists(name));
  sem_unlink(name.c_str());
}

TEST(Semaphore, NullHandles) {
  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(nullptr, 10));
  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(nullptr, INFINITE));
  std::string printed = qs_test::CaptureStdout([](void*) { EXPECT_EQ(1, ReleaseSemaphore(nullptr, 1, nullptr)); }, nullptr);
  EXPECT_EQ("sem_post failed " + std::to_string(EINVAL) + "\n", printed);
  CloseSemaphore(nullptr);
}

}  // namespace
