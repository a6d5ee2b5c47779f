#include "util/mem_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "platform/global_memory.h"

namespace {

// Counts the virtual calls it receives and can make every growth fail.
class Recording : public CMemBuffer {
 public:
  using CMemBuffer::CMemBuffer;
  ~Recording() override { Close(); }
  unsigned char* Alloc(unsigned int size) override {
    return ++allocs, lastSize = size, fail ? nullptr : CMemBuffer::Alloc(size);
  }
  unsigned char* Realloc(unsigned char* buffer, unsigned int size) override {
    return ++reallocs, lastSize = size, fail ? nullptr : CMemBuffer::Realloc(buffer, size);
  }
  void Free(unsigned char* buffer) override { ++frees, CMemBuffer::Free(buffer); }
  unsigned int Read(void* buffer, unsigned int count) override { return ++reads, CMemBuffer::Read(buffer, count); }
  unsigned int Write(const void* buffer, unsigned int n) override { return ++writes, CMemBuffer::Write(buffer, n); }
  void Close() override { ++closes, CMemBuffer::Close(); }
  unsigned char* Buffer() const { return m_pBuffer; }
  std::vector<ptrdiff_t> Offsets() const {
    auto at = [this](const void* field) { return static_cast<const char*>(field) - reinterpret_cast<const char*>(this); };
    return {at(&m_nGrowBy), at(&m_nPosition), at(&m_nCapacity), at(&m_nLength), at(&m_pBuffer), at(&m_bAutoDelete),
            at(&m_hMemory)};
  }

  int allocs = 0, reallocs = 0, frees = 0, reads = 0, writes = 0, closes = 0;
  unsigned int lastSize = 0;
  bool fail = false;
};

// "position length capacity"
std::string State(const CMemBuffer& file) {
  return std::to_string(file.GetPosition()) + " " + std::to_string(file.GetLength()) + " " +
         std::to_string(file.GetCapacity());
}

std::string Contents(CMemBuffer& file) {
  std::string bytes(file.GetLength(), '\0');
  unsigned int position = file.GetPosition();
  file.Seek(0, 0);
  EXPECT_EQ(bytes.size(), file.Read(&bytes[0], file.GetLength()));
  file.Seek(static_cast<int>(position), 0);
  return bytes;
}

TEST(MemBuffer, FieldsAndSizeFollowTheExportedLayout) {
  if (sizeof(void*) != 8) GTEST_SKIP() << "offsets are those of LP64";
  EXPECT_EQ(48u, sizeof(CMemBuffer));
  EXPECT_EQ((std::vector<ptrdiff_t>{8, 12, 16, 20, 24, 32, 40}), Recording(16).Offsets());
}

TEST(MemBuffer, GrowsByWholeStepsAndNeverPast32Bits) {
  std::string data(3000, 'x');
  Recording file(1024);
  EXPECT_EQ(3000u, file.Write(data.data(), 3000));
  EXPECT_EQ("3000 3000 3072", State(file));
  EXPECT_EQ(72u, file.Write(data.data(), 72));
  EXPECT_EQ("3072 3072 3072", State(file)) << "an exact fit takes no step";
  CMemBuffer exact(16), fixed(0);
  EXPECT_EQ(32u, exact.Write(data.data(), 32));
  EXPECT_EQ(32u, exact.GetCapacity()) << "a whole number of steps";
  EXPECT_FALSE(fixed.Write("a", 1) || fixed.SetLength(1)) << "grow-by 0 never grows";
  // A stepped capacity past 32 bits would wrap to a small block: refused
  // before any storage is asked for.
  EXPECT_EQ(0u, file.Write(data.data(), 0xFFFFFFFFu - 3072)) << "3072 + count = 0xFFFFFFFF";
  EXPECT_EQ(0u, file.Write(data.data(), 0xFFFFFFFFu - 3071)) << "3072 + count overflows";
  EXPECT_EQ(0, file.reallocs);
  EXPECT_EQ("3072 3072 3072", State(file));
}

TEST(MemBuffer, SeekOriginsRefusalsAndReservation) {
  CMemBuffer file(16);
  ASSERT_EQ(10u, file.Write("0123456789", 10));
  ASSERT_EQ(6u, file.Seek(-4, 2));
  const struct { int offset, origin; const char* name; } refused[] = {
      {1, 2, "positive offset from the end"}, {0, 3, "unknown origin"}, {0, -1, "negative origin"},
      {-11, 2, "negative target from the end"}, {-7, 1, "negative target from the position"}};
  for (const auto& c : refused) EXPECT_EQ(6u, file.Seek(c.offset, c.origin)) << c.name;
  EXPECT_EQ(0u, file.Seek(-6, 1));

  EXPECT_EQ(20u, file.Seek(20, 0));
  EXPECT_EQ("20 10 32", State(file)) << "capacity reserved for the target, length unchanged";
  char out[4];
  EXPECT_EQ(0u, file.Read(out, 4)) << "position past the length";
  EXPECT_EQ(1u, file.Write("Z", 1));
  EXPECT_EQ('Z', Contents(file).at(20)) << "after a gap at 10..19 that is not cleared";

  unsigned char small[16] = {};
  CMemBuffer huge(small, 0xFFFFFFF0u, 0, 0);  // only positions are computed
  EXPECT_EQ(0xFFFFFFF0u, huge.Seek(0, 2));
  EXPECT_EQ(0xFFFFFFF0u, huge.Seek(INT_MAX, 1)) << "target past 32 bits";
}

TEST(MemBuffer, ReadCopiesWhatRemainsAndSetLengthPullsThePositionBack) {
  CMemBuffer file(16);
  ASSERT_EQ(10u, file.Write("0123456789", 10));
  char out[16] = {};
  file.Seek(3, 0);
  EXPECT_EQ(0u, file.Read(nullptr, 5) + file.Read(out, 0) + file.Write(nullptr, 3));
  EXPECT_EQ(7u, file.Read(out, 0xFFFFFFFFu)) << "position + count overflows";
  EXPECT_EQ("3456789", std::string(out, 7));
  EXPECT_EQ(0u, file.Read(out, 1)) << "at the length";
  EXPECT_TRUE(file.SetLength(4));
  EXPECT_EQ("4 4 16", State(file));
  file.Seek(2, 0);
  EXPECT_TRUE(file.SetLength(40));
  EXPECT_EQ("2 40 48", State(file));
}

TEST(MemBuffer, AttachDetachAndDetachEx) {
  unsigned char bytes[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  Recording file(16);
  EXPECT_EQ(8u, file.Attach(bytes, 8, 0, 0)) << "grow-by 0: the contents are the file";
  EXPECT_EQ("abcdefgh", Contents(file));
  EXPECT_EQ(0u, file.Attach(bytes, 8, 0, 16)) << "grow-by set: an empty file over the buffer";
  EXPECT_EQ(0, file.frees) << "the previous buffer is not released";
  EXPECT_EQ(3u, file.Write("XYZ", 3));
  EXPECT_EQ('X', bytes[0]);
  file.Seek(0, 0);
  EXPECT_EQ(0u, file.Write("123456789", 9)) << "no handle: the caller's buffer never grows";
  EXPECT_EQ(bytes, file.Detach());
  EXPECT_EQ("0 0 0", State(file));
  ASSERT_EQ(5u, file.Write("hello", 5));
  EXPECT_EQ("5 5 16", State(file)) << "grow-by kept";
  unsigned char* own = file.Buffer();
  file.Close();
  EXPECT_EQ(0, file.frees) << "auto-delete kept off";
  GlobalFree(own);

  Recording copied(static_cast<unsigned char*>(GlobalAlloc(0, 4)), 4, 1, 16);
  ASSERT_EQ(4u, copied.Write("abcd", 4));
  char* copy = static_cast<char*>(copied.DetachEx());
  EXPECT_EQ("abcd", std::string(copy, GlobalSize(copy))) << "a copy of exactly the length";
  EXPECT_EQ(1, copied.closes);
  EXPECT_EQ(1, copied.frees) << "closed; auto-delete hands the attached block to Free";
  GlobalFree(copy);
}

TEST(MemBuffer, InternalCallsGoThroughTheVirtualSlotsAndFailedGrowthChangesNothing) {
  Recording file(64);
  EXPECT_TRUE(file.WriteString("abc"));
  EXPECT_EQ(100u, file.Seek(100, 0));
  char text[4] = {};
  file.Seek(0, 0);
  EXPECT_TRUE(file.ReadString(text, -1));
  EXPECT_EQ((std::vector<int>{1, 1, 2, 2}), (std::vector<int>{file.allocs, file.reallocs, file.writes, file.reads}));
  EXPECT_EQ(128u, file.lastSize);

  file.fail = true;
  EXPECT_EQ(7u, file.Seek(500, 0)) << "falls back to the length";
  EXPECT_EQ(0u, file.Write(std::string(200, 'q').data(), 200));
  EXPECT_FALSE(file.SetLength(300));
  EXPECT_EQ("7 7 128", State(file));
  EXPECT_EQ(std::string("\3\0\0\0abc", 7), Contents(file));
}

TEST(MemBuffer, StringRecordsAreALengthPrefixAndTheBytes) {
  CMemBuffer file(16);
  EXPECT_TRUE(file.WriteString("abc"));
  EXPECT_TRUE(file.WriteStringContent("xy"));
  EXPECT_FALSE(file.WriteStringContent(nullptr));
  EXPECT_TRUE(file.WriteString(nullptr, 0));
  EXPECT_FALSE(file.WriteString(nullptr, 3)) << "refused before the prefix";
  EXPECT_EQ(std::string("\3\0\0\0abcxy\0\0\0\0", 13), Contents(file)) << "little-endian prefix";

  unsigned char bytes[6];
  CMemBuffer tight(bytes, 6, 0, 16);
  EXPECT_FALSE(tight.WriteString("abc")) << "the prefix fits, the text does not";
  EXPECT_FALSE(tight.WriteString("abc")) << "the prefix cannot go out whole";
  EXPECT_EQ(4u, tight.GetLength()) << "the first prefix stays";
}

TEST(MemBuffer, ReadStringExAllocatesOrFillsTheCallersBuffer) {
  CMemBuffer file(16);
  file.WriteString("abc");
  file.WriteString("hello");
  file.Seek(0, 0);
  char* block = nullptr;
  ASSERT_TRUE(file.ReadStringEx(&block, 0, -1));
  EXPECT_EQ(std::string("abc", 4), std::string(block, GlobalSize(block))) << "a new block: text and terminator";
  GlobalFree(block);
  block = nullptr;
  char out[16];
  memset(out, '#', sizeof out);
  EXPECT_TRUE(file.ReadString(out, 2));
  EXPECT_EQ(16u - 3u, file.GetPosition()) << "3 bytes before the record's end";
  file.Seek(7, 0);
  EXPECT_TRUE(file.ReadString(out, 2, -1));
  EXPECT_EQ("hehello#", std::string(out, 8)) << "bounded and unbounded reads are not terminated";

  file.Seek(7, 0);
  EXPECT_FALSE(file.ReadStringEx(nullptr, 0, -1) || file.ReadStringEx(&block, -1, -1) ||
               file.ReadStringEx(&block, 0, -2) || file.ReadString(nullptr, -1));
  EXPECT_EQ(7u, file.GetPosition()) << "bad arguments leave the stream";
  EXPECT_FALSE(file.ReadStringEx(&block, 0, 5)) << "a null pointer needs an unbounded read";
  EXPECT_EQ(11u, file.GetPosition());
  file.Seek(7, 0);
  EXPECT_FALSE(file.ReadStringEx(&block, 1, -1)) << "a null pointer needs offset 0";
  EXPECT_EQ(nullptr, block);

  // A length beyond the stream is refused after the prefix, with nothing copied.
  unsigned int corrupt = 0xFFFFFFFFu;
  file.Seek(0, 0);
  file.Write(&corrupt, 4);
  file.Seek(0, 0);
  EXPECT_FALSE(file.ReadStringEx(&block, 0, -1));
  EXPECT_EQ(4u, file.GetPosition());
  file.Seek(0, 0);
  EXPECT_FALSE(file.ReadString(out, 13)) << "a bound above the 12 bytes that remain";
  EXPECT_EQ("hehello#", std::string(out, 8));
  file.Seek(0, 0);
  EXPECT_TRUE(file.ReadString(out, 8)) << "a bound within the stream reads";
  EXPECT_EQ(std::string("abc\5\0\0\0h", 8), std::string(out, 8));

  unsigned char zero[6] = {};
  CMemBuffer empty(zero, 6, 0, 0);
  EXPECT_TRUE(empty.ReadStringEx(&block, 0, -1) && block == nullptr) << "L = 0 unbounded allocates nothing";
  EXPECT_FALSE(empty.ReadStringEx(&block, 0, -1)) << "a short prefix";
}

}  // namespace
