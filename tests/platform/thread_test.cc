#include "platform/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/system_time.h"

namespace {

std::atomic<int> g_ran{0};
std::atomic<bool> g_cancelled{false};
std::atomic<bool> g_release{false};
std::atomic<bool> g_finishedNormally{false};

void* Record(void* arg) {
  g_ran.store(*static_cast<int*>(arg));
  return nullptr;
}

void MarkCancelled(void*) { g_cancelled = true; }

void ResetFlags() {
  g_ran = 0;
  g_cancelled = false;
  g_release = false;
  g_finishedNormally = false;
}

// Sleeps (a cancellation point) until released, then finishes normally.
void* WaitForRelease(void*) {
  pthread_cleanup_push(MarkCancelled, nullptr);
  while (!g_release.load()) usleep(1000);
  g_finishedNormally = true;
  pthread_cleanup_pop(0);
  return nullptr;
}

TEST(Thread, CreateThreadRunsTheRoutineInAMallocedSlot) {
  int value = 42;
  void* handle = CreateThread(nullptr, 0, Record, &value, 0, nullptr, nullptr);
  ASSERT_NE(nullptr, handle);
  EXPECT_EQ(0, WaitForThread(handle, INFINITE));
  EXPECT_EQ(42, g_ran.load());
  CloseThread(handle);
}

TEST(Thread, CreateThreadUsesCallerStorageAndWritesNoId) {
  int value = 7;
  pthread_t slot;
  unsigned int id = 12345;
  void* handle = CreateThread(nullptr, 0, Record, &value, 0, &id, &slot);
  EXPECT_EQ(static_cast<void*>(&slot), handle);
  EXPECT_EQ(0, WaitForThread(handle, INFINITE));
  EXPECT_EQ(12345u, id);
  EXPECT_EQ(7, g_ran.load());
}

TEST(Thread, NullHandles) {
  EXPECT_EQ(-1, WaitForThread(nullptr, INFINITE));
  EXPECT_EQ(-1, WaitForThread(nullptr, 0));
  TerminateThread(nullptr, 0);
  CloseThread(nullptr);
  ThreadExit();
}

// A finite timeout never bounds the wait: it cancels the thread, then joins.
TEST(Thread, FiniteTimeoutCancelsBeforeJoining) {
  ResetFlags();
  void* handle = CreateThread(nullptr, 0, WaitForRelease, nullptr, 0, nullptr, nullptr);
  ASSERT_NE(nullptr, handle);
  usleep(20 * 1000);
  EXPECT_EQ(0, WaitForThread(handle, 0));
  EXPECT_TRUE(g_cancelled.load());
  EXPECT_FALSE(g_finishedNormally.load());
  CloseThread(handle);
}

TEST(Thread, InfiniteTimeoutOnlyJoins) {
  ResetFlags();
  void* handle = CreateThread(nullptr, 0, WaitForRelease, nullptr, 0, nullptr, nullptr);
  std::thread releaser([] {
    usleep(50 * 1000);
    g_release = true;
  });
  EXPECT_EQ(0, WaitForThread(handle, INFINITE));
  releaser.join();
  EXPECT_TRUE(g_finishedNormally.load());
  EXPECT_FALSE(g_cancelled.load());
  CloseThread(handle);
}

TEST(Thread, TerminateThreadCancels) {
  ResetFlags();
  void* handle = CreateThread(nullptr, 0, WaitForRelease, nullptr, 0, nullptr, nullptr);
  TerminateThread(handle, 99);
  EXPECT_EQ(0, WaitForThread(handle, INFINITE));
  EXPECT_TRUE(g_cancelled.load());
  CloseThread(handle);
}

TEST(Thread, EndthreadEndsTheCallingThread) {
  static std::atomic<bool> after{false};
  void* handle = CreateThread(
      nullptr, 0,
      [](void*) -> void* {
        endthread(5);
        after = true;
        return nullptr;
      },
      nullptr, 0, nullptr, nullptr);
  EXPECT_EQ(0, WaitForThread(handle, INFINITE));
  EXPECT_FALSE(after.load());
  CloseThread(handle);
}

TEST(Thread, IdsAreKernelIds) {
  EXPECT_EQ(static_cast<unsigned int>(syscall(SYS_gettid)), GetCurrentThreadId());
  EXPECT_EQ(static_cast<unsigned int>(getpid()), GetCurrentThreadId()) << "the main thread's id is the pid";
  EXPECT_EQ(static_cast<unsigned int>(getpid()), GetCurrentProcessId());
  EXPECT_EQ(nullptr, GetCurrentProcess());
  unsigned int other = 0;
  std::thread([&] { other = GetCurrentThreadId(); }).join();
  EXPECT_NE(0u, other);
  EXPECT_NE(GetCurrentThreadId(), other);
}

TEST(Thread, ThreadIdIsFreshInAForkedChild) {
  unsigned int parent = GetCurrentThreadId();
  pid_t child = fork();
  if (child == 0) _exit(GetCurrentThreadId() == static_cast<unsigned int>(getpid()) ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child must not keep the parent's id";
  EXPECT_EQ(parent, GetCurrentThreadId());
}

TEST(Thread, InterlockedCountersAreAtomic) {
  int counter = 0;
  EXPECT_EQ(1, InterlockedIncrement(&counter));
  EXPECT_EQ(0, InterlockedDecrement(&counter));
  EXPECT_EQ(-1, InterlockedDecrement(&counter));
  counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) InterlockedIncrement(&counter);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(40000, __atomic_load_n(&counter, __ATOMIC_SEQ_CST));
}

}  // namespace
