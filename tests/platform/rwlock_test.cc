#include "platform/rwlock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "platform/carray.h"
#include "platform/system_time.h"

namespace {

// Runs `fn` on its own thread and reports whether it finished within `ms`.
class Background {
 public:
  template <typename F>
  explicit Background(F fn) : thread_([this, fn] {
      fn();
      done_ = true;
    }) {}
  ~Background() {
    if (thread_.joinable()) thread_.join();
  }
  bool DoneWithin(unsigned int ms) {
    unsigned int start = GetTickCount();
    while (!done_ && GetTickCount() - start < ms) usleep(1000);
    return done_;
  }
  void Join() { thread_.join(); }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

void WaitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) usleep(1000);
  ASSERT_TRUE(condition());
}

TEST(ReaderWriterLock, ReaderInsideWriterBecomesAReaderWhenTheWriterLeaves) {
  CReaderWriterLock lock;
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_EQ(0x10001u, lock.GetCurrentThreadStatus());
  lock.ReleaseWriterLock();
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.ReaderCount());
  EXPECT_EQ(0u, lock.WriterCount());
  std::thread([&] {
    EXPECT_TRUE(lock.AcquireReaderLock(0)) << "another reader may join";
    lock.ReleaseReaderLock();
    EXPECT_FALSE(lock.AcquireWriterLock(0));
  }).join();
  lock.ReleaseReaderLock();
  EXPECT_EQ(0u, lock.ReaderCount());
  EXPECT_EQ(0, lock.ThreadRecordCount());
}

TEST(ReaderWriterLock, UpgradeFromSharedReadWaitsUntilTheOtherReleases) {
  CReaderWriterLock lock;
  std::atomic<bool> otherHolds{false}, releaseOther{false};
  std::thread other([&] {
    lock.AcquireReaderLock(INFINITE);
    otherHolds = true;
    while (!releaseOther) usleep(1000);
    lock.ReleaseReaderLock();
  });
  WaitUntil([&] { return otherHolds.load(); });
  std::atomic<unsigned int> status{0};
  Background upgrader([&] {
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireWriterLock(INFINITE);
    status = lock.GetCurrentThreadStatus();
    lock.ReleaseAllLocks();
  });
  EXPECT_FALSE(upgrader.DoneWithin(100)) << "the upgrade must wait for the other reader";
  releaseOther = true;
  other.join();
  EXPECT_TRUE(upgrader.DoneWithin(5000));
  EXPECT_EQ(0x10002u, status.load()) << "the two reads are kept beside the write";
  EXPECT_EQ(0u, lock.ReaderCount());
  EXPECT_EQ(0u, lock.WriterCount());
}

TEST(ReaderWriterLock, WaitingWriterShutsOutNewReaders) {
  CReaderWriterLock lock;
  std::atomic<bool> readerHolds{false}, releaseReader{false};
  std::thread reader([&] {
    lock.AcquireReaderLock(INFINITE);
    readerHolds = true;
    while (!releaseReader) usleep(1000);
    lock.ReleaseReaderLock();
  });
  WaitUntil([&] { return readerHolds.load(); });
  std::atomic<bool> writerHeld{false};
  Background writer([&] {
    lock.AcquireWriterLock(INFINITE);
    writerHeld = true;
    Sleep(20);
    lock.ReleaseWriterLock();
  });
  WaitUntil([&] { return lock.WriterCount() == 1; });

  EXPECT_FALSE(lock.AcquireReaderLock(0)) << "a zero-timeout reader fails at once while a writer waits";
  unsigned int start = GetTickCount();
  EXPECT_FALSE(lock.AcquireReaderLock(50));
  EXPECT_GE(GetTickCount() - start, 45u);
  EXPECT_EQ(0u, lock.WaitingReaderCount()) << "a timed-out reader leaves the counts as they were";
  EXPECT_EQ(1u, lock.ReaderCount());

  std::atomic<bool> lateReaderSawWriter{false};
  Background lateReader([&] {
    lock.AcquireReaderLock(INFINITE);
    lateReaderSawWriter = writerHeld.load();
    lock.ReleaseReaderLock();
  });
  releaseReader = true;
  reader.join();
  EXPECT_TRUE(writer.DoneWithin(5000));
  EXPECT_TRUE(lateReader.DoneWithin(5000));
  EXPECT_TRUE(lateReaderSawWriter.load()) << "the writer went first";
}

// Every reader blocked behind a writer proceeds once the writer leaves, with no
// later writer to signal them.
TEST(ReaderWriterLock, AllBlockedReadersProceedWhenTheWriterLeaves) {
  CReaderWriterLock lock;
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  std::atomic<int> acquired{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      lock.AcquireReaderLock(INFINITE);
      ++acquired;
      while (acquired < 3) usleep(1000);  // hold until all three are in together
      lock.ReleaseReaderLock();
    });
  }
  WaitUntil([&] { return lock.WaitingReaderCount() == 3; });
  EXPECT_EQ(0, acquired.load());
  lock.ReleaseWriterLock();
  unsigned int start = GetTickCount();
  while (acquired < 3 && GetTickCount() - start < 2000) usleep(1000);
  EXPECT_EQ(3, acquired.load());
  for (auto& t : readers) t.join();
  EXPECT_EQ(0u, lock.ReaderCount());
}

TEST(ReaderWriterLock, ReleaseAllLocksFreesNestedReadsInOneStep) {
  CReaderWriterLock lock;
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireReaderLock(INFINITE);
  EXPECT_EQ(3u, lock.GetCurrentThreadStatus());
  std::thread([&] { EXPECT_FALSE(lock.AcquireWriterLock(0)); }).join();
  lock.ReleaseAllLocks();
  EXPECT_EQ(0u, lock.GetCurrentThreadStatus());
  std::thread([&] {
    EXPECT_TRUE(lock.AcquireWriterLock(0));
    lock.ReleaseWriterLock();
  }).join();
  lock.ReleaseAllLocks();  // nothing held: ignored
}

TEST(ReaderWriterLock, ThreadStatusPacksReadsLowAndWritesHigh) {
  CReaderWriterLock lock;
  EXPECT_EQ(0u, lock.GetCurrentThreadStatus());
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireWriterLock(INFINITE);
  EXPECT_EQ(0x10002u, lock.GetCurrentThreadStatus());
  unsigned int readers = 0, writers = 0;
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus(&readers, &writers));
  EXPECT_EQ(2u, readers);
  EXPECT_EQ(1u, writers);
  EXPECT_EQ(0x10002u, lock.GetCurrentThreadStatus(nullptr, nullptr)) << "no writer pointer: the packed value";
  lock.ReleaseAllLocks();
}

TEST(ReaderWriterLock, RecursiveWritesNeedAsManyReleases) {
  CReaderWriterLock lock;
  lock.AcquireWriterLock(INFINITE);
  lock.AcquireWriterLock(INFINITE);
  EXPECT_EQ(0x20000u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.WriterCount()) << "the base lock sees the thread once";
  lock.ReleaseWriterLock();
  std::thread([&] { EXPECT_FALSE(lock.AcquireReaderLock(0)); }).join();
  lock.ReleaseWriterLock();
  std::thread([&] {
    EXPECT_TRUE(lock.AcquireReaderLock(0));
    lock.ReleaseReaderLock();
  }).join();
}

TEST(ReaderWriterLock, ReleasingWhatTheThreadDoesNotHoldIsIgnored) {
  CReaderWriterLock lock;
  lock.ReleaseReaderLock();
  lock.ReleaseWriterLock();
  lock.AcquireReaderLock(INFINITE);
  lock.ReleaseWriterLock();  // reads only
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.ReaderCount());
  lock.ReleaseReaderLock();
  lock.AcquireWriterLock(INFINITE);
  lock.ReleaseReaderLock();  // writes only
  EXPECT_EQ(0x10000u, lock.GetCurrentThreadStatus());
  lock.ReleaseWriterLock();
  EXPECT_EQ(0u, lock.WriterCount());
}

TEST(ReaderWriterLock, ZeroTimeoutWriterFailsAtOnceWhileReadersHold) {
  CReaderWriterLock lock;
  lock.AcquireReaderLock(INFINITE);
  std::thread([&] {
    unsigned int start = GetTickCount();
    EXPECT_FALSE(lock.AcquireWriterLock(0));
    EXPECT_LT(GetTickCount() - start, 20u);
    EXPECT_FALSE(lock.AcquireWriterLock(30)) << "a timed-out writer";
  }).join();
  EXPECT_EQ(0u, lock.WriterCount()) << "the timed-out writer left the count as it was";
  lock.ReleaseReaderLock();
}

// A lone reader that upgrades on the base lock waits on an event nobody will
// signal; when its wait times out it finds the lock free and takes it after all.
TEST(ReaderWriterLockBase, TimedOutWriterTakesAFreeLockAfterAll) {
  CReaderWriterLockNonReentrance lock;
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  unsigned int start = GetTickCount();
  EXPECT_TRUE(lock.UpgradeToWriterLock(30));
  EXPECT_GE(GetTickCount() - start, 25u);
  EXPECT_EQ(1u, lock.WriterCount());
  EXPECT_EQ(0u, lock.ReaderCount());
  lock.ReleaseWriterLock();
  EXPECT_EQ(0u, lock.WriterCount());
}

TEST(ReaderWriterLockBase, UpgradeWithZeroTimeoutFailsAndKeepsTheRead) {
  CReaderWriterLockNonReentrance lock;
  lock.AcquireReaderLock(INFINITE);
  EXPECT_FALSE(lock.UpgradeToWriterLock(0));
  EXPECT_EQ(1u, lock.ReaderCount());
  lock.ReleaseReaderLock();
}

TEST(ReaderWriterLockBase, DowngradeLetsReadersInButNotWriters) {
  CReaderWriterLockNonReentrance lock;
  ASSERT_TRUE(lock.AcquireWriterLock(0));
  std::thread([&] { EXPECT_FALSE(lock.AcquireReaderLock(0)); }).join();
  lock.DowngradeFromWriterLock();
  EXPECT_EQ(1u, lock.ReaderCount());
  EXPECT_EQ(0u, lock.WriterCount());
  std::thread([&] {
    EXPECT_TRUE(lock.AcquireReaderLock(0));
    lock.ReleaseReaderLock();
    EXPECT_FALSE(lock.AcquireWriterLock(0));
  }).join();
  lock.ReleaseReaderLock();
  EXPECT_TRUE(lock.AcquireWriterLock(0));
  lock.ReleaseWriterLock();
}

// The thread list grows from exactly one slot, then by size/8 clamped to at
// least 4: capacities 1, 5, 9, 13 for ten threads.
TEST(ReaderWriterLock, ThreadListGrowth) {
  CReaderWriterLock lock;
  std::atomic<int> holding{0};
  std::atomic<bool> release{false};
  std::vector<std::thread> threads;
  std::vector<int> capacities;
  for (int i = 0; i < 10; ++i) {
    threads.emplace_back([&] {
      lock.AcquireReaderLock(INFINITE);
      ++holding;
      while (!release) usleep(1000);
      lock.ReleaseReaderLock();
    });
    WaitUntil([&] { return holding == i + 1; });
    capacities.push_back(lock.ThreadListCapacity());
  }
  EXPECT_EQ((std::vector<int>{1, 5, 5, 5, 5, 9, 9, 9, 9, 13}), capacities);
  release = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, lock.ThreadRecordCount());
  EXPECT_EQ(13, lock.ThreadListCapacity()) << "removal never shrinks the storage";
}

TEST(CArray, GrowthRule) {
  CArray<int, int> list;
  std::vector<int> capacities;
  for (int i = 0; i < 200; ++i) {
    list.SetAtGrow(list.GetSize(), i);
    if (capacities.empty() || capacities.back() != list.GetCapacity()) capacities.push_back(list.GetCapacity());
  }
  // size/8 stays below 4 up to 32 elements, then grows with the size.
  EXPECT_EQ((std::vector<int>{1, 5, 9, 13, 17, 21, 25, 29, 33, 37, 41, 46, 51, 57, 64, 72, 81, 91, 102, 114, 128,
                              144, 162, 182, 204}),
            capacities);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(i, list.GetAt(i));
  list.RemoveAt(0);
  EXPECT_EQ(199, list.GetSize());
  EXPECT_EQ(1, list.GetAt(0));
  EXPECT_EQ(199, list.GetAt(198));

  CArray<int, int> sparse;
  sparse.SetAtGrow(9, 5);
  EXPECT_EQ(10, sparse.GetCapacity()) << "a first allocation takes exactly index + 1 slots";
  EXPECT_EQ(0, sparse.GetAt(3)) << "new slots are zeroed";
}

TEST(CArray, GrowthIsCappedAt1024Slots) {
  CArray<int, int> list;
  for (int i = 0; i < 9000; ++i) list.SetAtGrow(i, i);
  int before = list.GetCapacity();
  while (list.GetSize() < before) list.Add(0);
  list.Add(0);
  EXPECT_EQ(before + 1024, list.GetCapacity());
}

}  // namespace
