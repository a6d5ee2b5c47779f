#include "platform/event.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include "platform/process_flags.h"
#include "platform/system_time.h"
#include "tests/platform/shm_util.h"

namespace {

// An event closed (and its name unlinked) at the end of the scope.
using Event = std::unique_ptr<void, void (*)(void*)>;
Event MakeEvent(signed char manualReset, signed char initialState, const char* name = nullptr) {
  return Event(CreateEvent(nullptr, manualReset, initialState, name), CloseEvent);
}

// Runs `fn` with standard output captured and returns what it printed.
template <typename F>
std::string Printed(F fn) {
  static F* current;
  current = &fn;
  return qs_test::CaptureStdout([](void*) { (*current)(); }, nullptr);
}

TEST(Event, AutoResetEventCountsSignalsAndZeroTimeoutNeverSucceeds) {
  Event event = MakeEvent(0, 1);
  ASSERT_NE(nullptr, event);
  EXPECT_EQ(258u, WaitForEvent(event.get(), 0)) << "not even with the initial signal pending";
  EXPECT_EQ(1, SetEvent(event.get()));
  EXPECT_EQ(1, SetEvent(event.get()));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, WaitForEvent(event.get(), 10)) << "initial state and two sets: " << i;
  EXPECT_EQ(258u, WaitForEvent(event.get(), 10));
}

// The budget is timeout x 1,000,000 in 32 bits: 67,108,864 ms wraps to exactly
// 0 and behaves like a zero timeout, 5,000 ms to about 705 ms.
TEST(Event, BudgetWrapsIn32Bits) {
  Event set = MakeEvent(0, 1), idle = MakeEvent(0, 0);
  EXPECT_EQ(258u, WaitForEvent(set.get(), 67108864u));
  unsigned int start = GetTickCount();
  EXPECT_EQ(258u, WaitForEvent(idle.get(), 5000));
  unsigned int took = GetTickCount() - start;
  EXPECT_GE(took, 690u);
  EXPECT_LT(took, 3000u) << "a 5000 ms wait gives up after about 705 ms";
}

TEST(Event, ManualResetLetsOneWaiterThroughAndSwallowsOneMoreSignal) {
  Event event = MakeEvent(1, 0);
  SetEvent(event.get());
  SetEvent(event.get());
  EXPECT_EQ(0u, WaitForEvent(event.get(), 10));
  EXPECT_EQ(258u, WaitForEvent(event.get(), 10)) << "the second signal was swallowed";
}

TEST(Event, ResetTakesAwayAtMostOneSignal) {
  Event event = MakeEvent(0, 0);
  EXPECT_EQ(1, ResetEvent(event.get())) << "nothing pending is still success";
  SetEvent(event.get());
  SetEvent(event.get());
  EXPECT_EQ(1, ResetEvent(event.get()));
  EXPECT_EQ(0u, WaitForEvent(event.get(), 10));
  EXPECT_EQ(258u, WaitForEvent(event.get(), 10));
}

TEST(Event, InfiniteWaitWakesOnAnotherThreadsSignal) {
  Event event = MakeEvent(0, 0);
  std::thread setter([&] {
    Sleep(30);
    SetEvent(event.get());
  });
  EXPECT_EQ(0u, WaitForEvent(event.get(), INFINITE));
  setter.join();
}

TEST(Event, NullHandles) {
  EXPECT_EQ(0xFFFFFFFFu, WaitForEvent(nullptr, 10));
  EXPECT_EQ(0xFFFFFFFFu, WaitForEvent(nullptr, INFINITE));
  EXPECT_EQ(0, SetEvent(nullptr));
  EXPECT_EQ(1, ResetEvent(nullptr));
  EXPECT_EQ(0u, WaitForEvents(0, nullptr, true, 10));
  CloseEvent(nullptr);
}

TEST(Event, NamesAutomaticOrCutTo31Characters) {
  SetGlobalSeed(77);
  Event first = MakeEvent(0, 0), second = MakeEvent(0, 0);
  SetGlobalSeed(0);
  const std::regex pattern("ce0" + std::to_string(getpid()) + "_([0-9]+)_77");
  std::string n1 = GetEventName(first.get()), n2 = GetEventName(second.get());
  std::smatch m1, m2;
  ASSERT_TRUE(std::regex_match(n1, m1, pattern)) << n1;
  ASSERT_TRUE(std::regex_match(n2, m2, pattern)) << n2;
  EXPECT_EQ(std::stoul(m1[1]) + 1, std::stoul(m2[1])) << "a process-wide counter";
  EXPECT_TRUE(qs_test::SemaphoreExists(n1));

  std::string longName = "qs_evt_" + std::to_string(getpid()) + "_abcdefghijklmnopqrstuvwxyz0123456789";
  Event named = MakeEvent(0, 0, longName.c_str());
  EXPECT_EQ(longName.substr(0, 31), GetEventName(named.get()));
  named.reset();
  EXPECT_FALSE(qs_test::SemaphoreExists(longName.substr(0, 31))) << "closing unlinks the name";
}

TEST(Event, CreateRefusesAnExistingNameAndOpenFailsAfterClose) {
  const std::string name = "qs_evt_open_" + std::to_string(getpid());
  Event created = MakeEvent(1, 0, name.c_str());
  ASSERT_NE(nullptr, created);
  void* again = nullptr;
  EXPECT_EQ("CreateEvent sem_open failed " + std::to_string(EEXIST) + " name " + name + "\n",
            Printed([&] { again = CreateEvent(nullptr, 0, 0, name.c_str()); }));
  EXPECT_EQ(nullptr, again);

  // OpenEvent shares the semaphore in an auto-reset record.
  Event opened(OpenEvent(0, 0, name.c_str()), CloseEvent);
  ASSERT_NE(nullptr, opened);
  EXPECT_EQ(name, GetEventName(opened.get()));
  SetEvent(opened.get());
  SetEvent(opened.get());
  EXPECT_EQ(0u, WaitForEvent(opened.get(), 10));
  EXPECT_EQ(0u, WaitForEvent(created.get(), 10)) << "the opened record swallowed nothing";
  created.reset();
  EXPECT_FALSE(qs_test::SemaphoreExists(name));
  EXPECT_EQ("OpenEvent sem_open failed " + std::to_string(ENOENT) + "\n",
            Printed([&] { again = OpenEvent(0, 0, name.c_str()); }));
  EXPECT_EQ(nullptr, again);
}

// Semaphores keep their name on close: the automatic ones are unlinked here.
TEST(Semaphore, ReleasePostsOnceAndFiniteWaitsFailWith0xFFFFFFFF) {
  int previous = -7;
  void* sem = CreateSemaphore(nullptr, 0, 10, nullptr);
  ASSERT_NE(nullptr, sem);
  EXPECT_EQ(1, ReleaseSemaphore(sem, 5, &previous));
  EXPECT_EQ(-7, previous);
  EXPECT_EQ(0u, WaitForSemaphone(sem, 0));
  unsigned int start = GetTickCount();
  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(sem, 20)) << "one post whatever the count; timed out is not 258";
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

TEST(Semaphore, CloseLeavesTheNameInPlaceAndNullHandlesFail) {
  std::string name = "qs_sem_keep_" + std::to_string(getpid());
  void* sem = CreateSemaphore(nullptr, 2, 2, &name[0]);
  ASSERT_NE(nullptr, sem);
  CloseSemaphore(sem);
  EXPECT_TRUE(qs_test::SemaphoreExists(name));
  sem_unlink(name.c_str());

  EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(nullptr, 10));
  EXPECT_EQ("sem_post failed " + std::to_string(EINVAL) + "\n",
            Printed([] { EXPECT_EQ(1, ReleaseSemaphore(nullptr, 1, nullptr)); }));
  CloseSemaphore(nullptr);
}

}  // namespace
