// Several threads mixing re-entrant reads, writes, upgrades and downgrades
// with the infinite timeout; atomics check that a writer is always alone.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "platform/rwlock.h"
#include "platform/system_time.h"

namespace {

struct Shared {
  CReaderWriterLock lock;
  std::atomic<int> readers{0};
  std::atomic<int> writers{0};
  std::atomic<int> violations{0};
  long long value = 0;  // written only under the writer lock
};

void InRead(Shared& s) {
  ++s.readers;
  if (s.writers.load() != 0) ++s.violations;
  volatile long long seen = s.value;
  (void)seen;
  --s.readers;
}

void InWrite(Shared& s) {
  if (++s.writers != 1) ++s.violations;
  if (s.readers.load() != 0) ++s.violations;
  ++s.value;
  --s.writers;
}

void Worker(Shared& s, unsigned int seed, int operations) {
  std::mt19937 random(seed);
  for (int i = 0; i < operations; ++i) {
    switch (random() % 4) {
      case 0:  // nested reads
        s.lock.AcquireReaderLock(INFINITE);
        s.lock.AcquireReaderLock(INFINITE);
        InRead(s);
        s.lock.ReleaseReaderLock();
        InRead(s);
        s.lock.ReleaseReaderLock();
        break;
      case 1:  // nested writes with a read inside
        s.lock.AcquireWriterLock(INFINITE);
        InWrite(s);
        s.lock.AcquireWriterLock(INFINITE);
        s.lock.AcquireReaderLock(INFINITE);
        InWrite(s);
        s.lock.ReleaseReaderLock();
        s.lock.ReleaseWriterLock();
        InWrite(s);
        s.lock.ReleaseWriterLock();
        break;
      case 2:  // upgrade, then back to reading
        s.lock.AcquireReaderLock(INFINITE);
        InRead(s);
        s.lock.AcquireWriterLock(INFINITE);
        InWrite(s);
        s.lock.ReleaseWriterLock();
        InRead(s);
        s.lock.ReleaseReaderLock();
        break;
      default:  // downgrade: write, read inside, drop the write
        s.lock.AcquireWriterLock(INFINITE);
        InWrite(s);
        s.lock.AcquireReaderLock(INFINITE);
        s.lock.ReleaseWriterLock();
        InRead(s);
        s.lock.ReleaseAllLocks();
        break;
    }
    if (s.lock.GetCurrentThreadStatus() != 0) ++s.violations;
  }
}

TEST(ReaderWriterLockStress, MixedReentrantOperationsKeepWritersAlone) {
  Shared shared;
  constexpr int kThreads = 6;
  constexpr int kOperations = 3000;
  unsigned int start = GetTickCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(Worker, std::ref(shared), 1000u + t, kOperations);
  for (auto& t : threads) t.join();
  unsigned int took = GetTickCount() - start;

  EXPECT_EQ(0, shared.violations.load());
  EXPECT_EQ(0u, shared.lock.ReaderCount());
  EXPECT_EQ(0u, shared.lock.WriterCount());
  EXPECT_EQ(0u, shared.lock.WaitingReaderCount());
  EXPECT_EQ(0, shared.lock.ThreadRecordCount());
  EXPECT_LT(took, 90000u) << "took " << took << " ms";
  RecordProperty("milliseconds", static_cast<int>(took));
}

}  // namespace
