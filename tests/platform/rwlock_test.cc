#include "platform/rwlock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/system_time.h"

namespace {

void WaitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) usleep(1000);
  EXPECT_TRUE(condition());
}

bool Finishes(std::future<void>& task, int ms) {
  return task.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

// Another thread that holds a reader lock from construction until Release().
class OtherReader {
 public:
  explicit OtherReader(CReaderWriterLock& lock) : thread_([this, &lock] {
      lock.AcquireReaderLock(INFINITE);
      holds_ = true;
      while (!release_) usleep(1000);
      lock.ReleaseReaderLock();
    }) {
    WaitUntil([this] { return holds_.load(); });
  }
  ~OtherReader() { Release(); }
  void Release() {
    release_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> holds_{false}, release_{false};
  std::thread thread_;
};

TEST(ReaderWriterLock, ReaderInsideWriterBecomesAReaderWhenTheWriterLeaves) {
  CReaderWriterLock lock;
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_EQ(0x10001u, lock.GetCurrentThreadStatus());
  lock.ReleaseWriterLock();
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.ReaderCount()) << "the base lock shows one reader, no writer";
  EXPECT_EQ(0u, lock.WriterCount());
  lock.ReleaseReaderLock();
  EXPECT_EQ(0u, lock.ReaderCount());
  EXPECT_EQ(0, lock.ThreadRecordCount());
}

TEST(ReaderWriterLock, UpgradeFromSharedReadWaitsUntilTheOtherReleases) {
  CReaderWriterLock lock;
  OtherReader other(lock);
  std::atomic<unsigned int> status{0};
  auto upgrader = std::async(std::launch::async, [&] {
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireWriterLock(INFINITE);
    status = lock.GetCurrentThreadStatus();
    lock.ReleaseAllLocks();
  });
  EXPECT_FALSE(Finishes(upgrader, 100)) << "the upgrade must wait for the other reader";
  other.Release();
  EXPECT_TRUE(Finishes(upgrader, 5000));
  EXPECT_EQ(0x10002u, status.load()) << "the two reads are kept beside the write";
  EXPECT_EQ(0u, lock.ReaderCount() + lock.WriterCount());
}

TEST(ReaderWriterLock, WaitingWriterShutsOutNewReadersAndGoesFirst) {
  CReaderWriterLock lock;
  OtherReader reader(lock);
  std::atomic<bool> writerHeld{false}, lateReaderSawWriter{false};
  auto writer = std::async(std::launch::async, [&] {
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

  auto lateReader = std::async(std::launch::async, [&] {
    lock.AcquireReaderLock(INFINITE);
    lateReaderSawWriter = writerHeld.load();
    lock.ReleaseReaderLock();
  });
  reader.Release();
  EXPECT_TRUE(Finishes(writer, 5000));
  EXPECT_TRUE(Finishes(lateReader, 5000));
  EXPECT_TRUE(lateReaderSawWriter.load()) << "the writer went first";
}

// A deliberate liveness guarantee: every reader blocked behind a writer
// proceeds once the writer leaves, with no later writer to signal them.
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
  for (int i = 0; i < 2000 && acquired < 3; ++i) usleep(1000);
  EXPECT_EQ(3, acquired.load());
  for (auto& t : readers) t.join();
  EXPECT_EQ(0u, lock.ReaderCount());
}

TEST(ReaderWriterLock, ReleaseAllLocksFreesNestedReadsInOneStep) {
  CReaderWriterLock lock;
  for (int i = 0; i < 3; ++i) lock.AcquireReaderLock(INFINITE);
  EXPECT_EQ(3u, lock.GetCurrentThreadStatus());
  std::thread([&] {
    unsigned int start = GetTickCount();
    EXPECT_FALSE(lock.AcquireWriterLock(0));
    EXPECT_LT(GetTickCount() - start, 20u) << "a zero-timeout writer fails at once";
    EXPECT_FALSE(lock.AcquireWriterLock(30));
  }).join();
  EXPECT_EQ(0u, lock.WriterCount()) << "the timed-out writer left the count as it was";
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
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireWriterLock(INFINITE);
  unsigned int readers = 0, writers = 0;
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus(&readers, &writers));
  EXPECT_EQ(2u, readers);
  EXPECT_EQ(1u, writers);
  EXPECT_EQ(0x10002u, lock.GetCurrentThreadStatus(nullptr, nullptr)) << "no writer pointer: the packed value";
  EXPECT_EQ(0x10002u, lock.GetCurrentThreadStatus());
  lock.ReleaseAllLocks();
  EXPECT_EQ(0u, lock.GetCurrentThreadStatus());
}

TEST(ReaderWriterLock, RecursiveWritesNeedAsManyReleasesAndForeignReleasesAreIgnored) {
  CReaderWriterLock lock;
  lock.ReleaseReaderLock();
  lock.ReleaseWriterLock();
  lock.AcquireWriterLock(INFINITE);
  lock.AcquireWriterLock(INFINITE);
  EXPECT_EQ(0x20000u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.WriterCount()) << "the base lock sees the thread once";
  lock.ReleaseReaderLock();  // writes only: ignored
  lock.ReleaseWriterLock();
  std::thread([&] { EXPECT_FALSE(lock.AcquireReaderLock(0)); }).join();
  lock.ReleaseWriterLock();
  EXPECT_EQ(0u, lock.WriterCount());
  lock.AcquireReaderLock(INFINITE);
  lock.ReleaseWriterLock();  // reads only: ignored
  EXPECT_EQ(1u, lock.GetCurrentThreadStatus());
  EXPECT_EQ(1u, lock.ReaderCount());
  lock.ReleaseReaderLock();
}

// A lone reader that upgrades on the base lock waits on an event nobody will
// signal; when its wait times out it finds the lock free and takes it after all.
TEST(ReaderWriterLockBase, TimedOutUpgradeTakesAFreeLockAfterAll) {
  CReaderWriterLockNonReentrance lock;
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_FALSE(lock.UpgradeToWriterLock(0)) << "timeout 0 fails and keeps the read";
  EXPECT_EQ(1u, lock.ReaderCount());
  unsigned int start = GetTickCount();
  EXPECT_TRUE(lock.UpgradeToWriterLock(30));
  EXPECT_GE(GetTickCount() - start, 25u);
  EXPECT_EQ(1u, lock.WriterCount());
  EXPECT_EQ(0u, lock.ReaderCount());
  lock.ReleaseWriterLock();
  EXPECT_EQ(0u, lock.WriterCount());
}

TEST(ReaderWriterLockBase, DowngradeLetsReadersInButNotWriters) {
  CReaderWriterLockNonReentrance lock;
  ASSERT_TRUE(lock.AcquireWriterLock(0));
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
  std::vector<std::unique_ptr<OtherReader>> readers;
  std::vector<int> capacities;
  for (int i = 0; i < 10; ++i) {
    readers.push_back(std::make_unique<OtherReader>(lock));
    capacities.push_back(lock.ThreadListCapacity());
  }
  EXPECT_EQ((std::vector<int>{1, 5, 5, 5, 5, 9, 9, 9, 9, 13}), capacities);
  readers.clear();
  EXPECT_EQ(0, lock.ThreadRecordCount());
  EXPECT_EQ(13, lock.ThreadListCapacity()) << "removal never shrinks the storage";
}

// size/8 stays below 4 up to 32 elements, then grows with the size, at most by
// 1024 slots; a first allocation takes exactly index + 1 zeroed slots.
TEST(CArray, GrowthRule) {
  CArray<int, int> list;
  std::vector<int> capacities;
  for (int i = 0; i < 200; ++i) {
    list.SetAtGrow(list.GetSize(), i);
    if (capacities.empty() || capacities.back() != list.GetCapacity()) capacities.push_back(list.GetCapacity());
  }
  EXPECT_EQ((std::vector<int>{1, 5, 9, 13, 17, 21, 25, 29, 33, 37, 41, 46, 51, 57, 64, 72, 81, 91, 102, 114, 128,
                              144, 162, 182, 204}),
            capacities);
  list.RemoveAt(0);
  ASSERT_EQ(199, list.GetSize());
  for (int i = 0; i < 199; ++i) ASSERT_EQ(i + 1, list.GetAt(i)) << "copied on growth; moved down in order";

  CArray<int, int> sparse;
  sparse.SetAtGrow(9, 5);
  EXPECT_EQ(10, sparse.GetCapacity());
  EXPECT_EQ(0, sparse.GetAt(3));

  CArray<int, int> big;
  for (int i = 0; i < 9000 || big.GetSize() < big.GetCapacity(); ++i) big.Add(0);
  const int full = big.GetCapacity();
  big.Add(0);
  EXPECT_EQ(full + 1024, big.GetCapacity()) << "at most 1024 slots at a time";
}

}  // namespace
