#include "platform/global_memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "platform/rwlock.h"

namespace {

bool Tracked(void* block) {
  ScopedReaderLock hold(glockMemSize);
  return gmapMemSize.count(block) != 0;
}

TEST(GlobalMemory, ZeroInitFlagClearsAndSizeIsRecorded) {
  unsigned char* block = static_cast<unsigned char*>(GlobalAlloc(GMEM_ZEROINIT, 100));
  ASSERT_NE(nullptr, block);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(0, block[i]);
  EXPECT_EQ(100u, GlobalSize(block));
  EXPECT_EQ(block, GlobalLock(block));
  EXPECT_EQ(1, GlobalUnlock(block));
  EXPECT_EQ(0u, GlobalFlags(block));
  GlobalFree(block);
  EXPECT_FALSE(Tracked(block));
}

TEST(GlobalMemory, UnknownAddressIsEnteredWithSizeZero) {
  static char notOurs[16];
  EXPECT_EQ(0u, GlobalSize(notOurs));
  EXPECT_TRUE(Tracked(notOurs)) << "the lookup inserts";
  EXPECT_EQ(0u, GlobalSize(nullptr));
  EXPECT_FALSE(Tracked(nullptr));
  ScopedWriterLock hold(glockMemSize);
  gmapMemSize.erase(notOurs);
}

// The new address is recorded before the old one is erased: a block that stays
// where it was ends up untracked.
TEST(GlobalMemory, ReAllocInPlaceLeavesTheBlockUntracked) {
  void* block = GlobalAlloc(0, 4000);
  void* shrunk = GlobalReAlloc(block, 100, 0);
  ASSERT_NE(nullptr, shrunk);
  if (shrunk != block) {
    // Sanitizer allocators always move: then the size simply follows the block.
    EXPECT_EQ(100u, GlobalSize(shrunk));
    GlobalFree(shrunk);
    return;
  }
  EXPECT_FALSE(Tracked(shrunk));
  EXPECT_EQ(0u, GlobalSize(shrunk));
  GlobalFree(shrunk);
}

TEST(GlobalMemory, ReAllocThatMovesTransfersTheSize) {
  void* block = GlobalAlloc(0, 16);
  void* keep = GlobalAlloc(0, 16);  // stands in the way of growing in place
  void* grown = GlobalReAlloc(block, 4 << 20, 0);
  ASSERT_NE(nullptr, grown);
  ASSERT_NE(block, grown);
  EXPECT_EQ(4u << 20, GlobalSize(grown));
  EXPECT_FALSE(Tracked(block));
  GlobalFree(grown);
  GlobalFree(keep);
}

TEST(GlobalMemory, FreeOfNullIsIgnored) { GlobalFree(nullptr); }

TEST(GlobalMemory, ConcurrentUseKeepsTheMapConsistent) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 2000; ++i) {
        unsigned long size = 1 + (i * 7 + t) % 300;
        void* block = GlobalAlloc(GMEM_ZEROINIT, size);
        EXPECT_EQ(size, GlobalSize(block));
        block = GlobalReAlloc(block, size + 1000, 0);
        GlobalSize(block);
        GlobalFree(block);
      }
    });
  }
  for (auto& t : threads) t.join();
}

}  // namespace
