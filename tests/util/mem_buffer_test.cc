#include "util/mem_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <string>

#include "platform/global_memory.h"

namespace {

// Counts the virtual operations it is handed, can make growth fail, and
// exposes the fields so their layout can be checked.
class Recording : public CMemBuffer {
 public:
  using CMemBuffer::CMemBuffer;
  ~Recording() override { Close(); }

  unsigned char* Alloc(unsigned int size) override {
    ++allocs;
    lastSize = size;
    return failGrowth ? nullptr : (lastAlloc = CMemBuffer::Alloc(size));
  }
  unsigned char* Realloc(unsigned char* buffer, unsigned int size) override {
    ++reallocs;
    lastSize = size;
    return failGrowth ? nullptr : CMemBuffer::Realloc(buffer, size);
  }
  void Free(unsigned char* buffer) override {
    ++frees;
    CMemBuffer::Free(buffer);
  }
  unsigned int Read(void* buffer, unsigned int count) override {
    ++reads;
    return CMemBuffer::Read(buffer, count);
  }
  unsigned int Write(const void* buffer, unsigned int count) override {
    ++writes;
    return CMemBuffer::Write(buffer, count);
  }
  void Close() override {
    ++closes;
    CMemBuffer::Close();
  }

  ptrdiff_t Offset(const void* field) const {
    return static_cast<const char*>(field) - reinterpret_cast<const char*>(this);
  }
  void CheckLayout() const {
    EXPECT_EQ(8, Offset(&m_nGrowBy));
    EXPECT_EQ(12, Offset(&m_nPosition));
    EXPECT_EQ(16, Offset(&m_nCapacity));
    EXPECT_EQ(20, Offset(&m_nLength));
    EXPECT_EQ(24, Offset(&m_pBuffer));
    EXPECT_EQ(32, Offset(&m_bAutoDelete));
    EXPECT_EQ(40, Offset(&m_hMemory));
  }

  int allocs = 0, reallocs = 0, frees = 0, reads = 0, writes = 0, closes = 0;
  unsigned int lastSize = 0;
  unsigned char* lastAlloc = nullptr;
  bool failGrowth = false;
};

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
  Recording(16).CheckLayout();
}

TEST(MemBuffer, GrowsByWholeStepsAndGrowByZeroNeverGrows) {
  std::string data(3000, 'x');
  CMemBuffer stepped(1024);
  EXPECT_EQ(3000u, stepped.Write(data.data(), 3000));
  EXPECT_EQ(3072u, stepped.GetCapacity());
  EXPECT_EQ(72u, stepped.Write(data.data(), 72));
  EXPECT_EQ(3072u, stepped.GetCapacity()) << "an exact fit takes no step";
  EXPECT_EQ(1u, stepped.Write("y", 1));
  EXPECT_EQ(4096u, stepped.GetCapacity());
  EXPECT_EQ(3073u, stepped.GetLength());
  CMemBuffer exact(16);
  EXPECT_EQ(32u, exact.Write(data.data(), 32));
  EXPECT_EQ(32u, exact.GetCapacity()) << "a whole number of steps";

  CMemBuffer fixed(0);
  EXPECT_EQ(0u, fixed.Write("a", 1));
  EXPECT_FALSE(fixed.SetLength(1));
  EXPECT_EQ(0u, fixed.GetCapacity());

  unsigned char bytes[8] = {'0', '1', '2', '3', '4', '5', '6', '7'};
  CMemBuffer attached(bytes, 8, 0, 0);
  EXPECT_EQ(6u, attached.Seek(6, 0));
  EXPECT_EQ(2u, attached.Write("AB", 2));
  EXPECT_EQ(0u, attached.Write("C", 1));
  EXPECT_EQ(0u, attached.Seek(0, 0));
  EXPECT_EQ(0u, attached.Write("123456789", 9)) << "no partial write";
  EXPECT_FALSE(attached.SetLength(9));
  EXPECT_EQ(8u, attached.Seek(20, 0)) << "unreservable target becomes the length";
  EXPECT_EQ("012345AB", Contents(attached));
}

// Past 32 bits a stepped capacity would wrap to a small block: refused
// before any storage is asked for.
TEST(MemBuffer, GrowthNeverWrapsPast32Bits) {
  Recording file(1024);
  ASSERT_EQ(4u, file.Write("abcd", 4));
  ASSERT_EQ(1, file.allocs);
  unsigned char source[8] = {};
  EXPECT_EQ(0u, file.Write(source, 0xFFFFFFFBu));  // 4 + count = 0xFFFFFFFF
  EXPECT_EQ(0, file.reallocs);
  EXPECT_EQ(0u, file.Write(source, 0xFFFFFFFCu)) << "4 + count overflows";
  EXPECT_EQ(1024u, file.GetCapacity());
  EXPECT_EQ(4u, file.GetLength());
}

TEST(MemBuffer, SeekOriginsAndRefusals) {
  CMemBuffer file(16);
  ASSERT_EQ(10u, file.Write("0123456789", 10));
  EXPECT_EQ(6u, file.Seek(-4, 2));
  EXPECT_EQ(6u, file.Seek(1, 2)) << "positive offset from the end";
  EXPECT_EQ(6u, file.Seek(0, 3));
  EXPECT_EQ(6u, file.Seek(0, -1));
  EXPECT_EQ(6u, file.Seek(-11, 2)) << "negative target";
  EXPECT_EQ(6u, file.Seek(-7, 1));
  EXPECT_EQ(0u, file.Seek(-6, 1));
  EXPECT_EQ(10u, file.Seek(0, 2));

  EXPECT_EQ(20u, file.Seek(20, 0));
  EXPECT_EQ(10u, file.GetLength());
  EXPECT_EQ(32u, file.GetCapacity()) << "reserved for the target";
  char out[4];
  EXPECT_EQ(0u, file.Read(out, 4)) << "position past the length";
  EXPECT_EQ(1u, file.Write("Z", 1));
  EXPECT_EQ(21u, file.GetLength());
  std::string bytes = Contents(file);
  EXPECT_EQ("0123456789", bytes.substr(0, 10));
  EXPECT_EQ('Z', bytes[20]);  // bytes 10..19 are an uncleared gap

  // A length of 0xFFFFFFF0 over 16 real bytes: only positions are computed.
  unsigned char small[16] = {};
  CMemBuffer huge(small, 0xFFFFFFF0u, 0, 0);
  EXPECT_EQ(0xFFFFFFF0u, huge.Seek(0, 2));
  EXPECT_EQ(0xFFFFFFF0u, huge.Seek(0x20, 1)) << "target past 32 bits";
  EXPECT_EQ(0xFFFFFFF0u, huge.Seek(INT_MAX, 1));
  EXPECT_EQ(0u, huge.Write(small, 0x10)) << "position + count overflows";
}

TEST(MemBuffer, ReadCopiesWhatRemainsAndSetLengthPullsThePositionBack) {
  CMemBuffer file(16);
  ASSERT_EQ(10u, file.Write("0123456789", 10));
  char out[16] = {};
  EXPECT_EQ(0u, file.Read(out, 1)) << "at the length";
  file.Seek(3, 0);
  EXPECT_EQ(0u, file.Read(nullptr, 5));
  EXPECT_EQ(0u, file.Read(out, 0));
  EXPECT_EQ(7u, file.Read(out, 0xFFFFFFFFu)) << "position + count overflows";
  EXPECT_EQ("3456789", std::string(out, 7));
  EXPECT_EQ(10u, file.GetPosition());
  EXPECT_EQ(0u, file.Write(nullptr, 3));
  EXPECT_EQ(0u, file.Write("x", 0));

  EXPECT_TRUE(file.SetLength(4));
  EXPECT_EQ(4u, file.GetPosition());
  EXPECT_EQ(0u, file.Read(out, 1));
  file.Seek(2, 0);
  EXPECT_TRUE(file.SetLength(40));
  EXPECT_EQ(2u, file.GetPosition());
  EXPECT_EQ(48u, file.GetCapacity());
  EXPECT_TRUE(file.SetLength(0));
  EXPECT_EQ(0u, file.GetPosition());
}

TEST(MemBuffer, AttachSetsLengthByGrowByAndNeverGrowsTheCallersBuffer) {
  unsigned char bytes[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  Recording file(16);
  EXPECT_EQ(8u, file.Attach(bytes, 8, 0, 0));
  EXPECT_EQ("abcdefgh", Contents(file));
  EXPECT_EQ(0u, file.Attach(bytes, 8, 0, 16));
  EXPECT_EQ(0, file.frees) << "the previous buffer is not released";
  EXPECT_EQ(8u, file.GetCapacity());
  EXPECT_EQ(3u, file.Write("XYZ", 3));
  EXPECT_EQ('X', bytes[0]);
  EXPECT_EQ(0u, file.Seek(0, 0));
  EXPECT_EQ(0u, file.Write("123456789", 9)) << "no handle, no Realloc";
  EXPECT_EQ(1, file.reallocs);
  file.Close();
  EXPECT_EQ(0, file.frees) << "auto-delete off";
  EXPECT_EQ(0u, file.Attach(nullptr, 50, 0, 0));
  EXPECT_EQ(0u, file.GetCapacity());

  unsigned char* block = static_cast<unsigned char*>(GlobalAlloc(0, 4));
  Recording owner(block, 4, 1, 0);
  owner.Close();
  EXPECT_EQ(1, owner.frees) << "auto-delete hands the block to Free";
}

TEST(MemBuffer, DetachHandsOverAndKeepsGrowByAndAutoDelete) {
  unsigned char bytes[4] = {};
  Recording file(bytes, 4, 0, 16);
  EXPECT_EQ(bytes, file.Detach());
  EXPECT_EQ(0u, file.GetCapacity());
  ASSERT_EQ(5u, file.Write("hello", 5));
  EXPECT_EQ(16u, file.GetCapacity()) << "grow-by kept";
  unsigned char* own = file.lastAlloc;
  file.Close();
  EXPECT_EQ(0, file.frees) << "auto-delete kept off";
  GlobalFree(own);

  CMemBuffer owner(16);
  ASSERT_EQ(5u, owner.Write("hello", 5));
  unsigned char* taken = owner.Detach();
  EXPECT_EQ(0u, owner.GetLength());
  EXPECT_EQ(0u, owner.GetPosition());
  EXPECT_EQ(0u, owner.GetCapacity());
  ASSERT_NE(nullptr, taken);
  EXPECT_EQ(0, memcmp(taken, "hello", 5));
  GlobalFree(taken);  // the buffer's destructor no longer frees it

  Recording copied(16);
  ASSERT_EQ(5u, copied.Write("world", 5));
  void* copy = copied.DetachEx();
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(5u, GlobalSize(copy));
  EXPECT_EQ(0, memcmp(copy, "world", 5));
  EXPECT_EQ(1, copied.closes);
  EXPECT_EQ(1, copied.frees);
  EXPECT_EQ(0u, copied.GetLength());
  GlobalFree(copy);
}

TEST(MemBuffer, InternalCallsGoThroughTheVirtualSlots) {
  Recording file(64);
  EXPECT_TRUE(file.WriteString("abc"));
  EXPECT_EQ(2, file.writes) << "prefix and text";
  EXPECT_EQ(1, file.allocs);
  EXPECT_EQ(64u, file.lastSize);
  EXPECT_EQ(100u, file.Seek(100, 0));
  EXPECT_EQ(1, file.reallocs);
  EXPECT_EQ(128u, file.lastSize);
  file.Seek(0, 0);
  char text[4] = {};
  EXPECT_TRUE(file.ReadString(text, -1));
  EXPECT_EQ(2, file.reads);

  // A failed growth leaves everything as it was.
  file.failGrowth = true;
  EXPECT_EQ(7u, file.Seek(500, 0)) << "falls back to the length";
  EXPECT_EQ(0u, file.Write(std::string(200, 'q').data(), 200));
  EXPECT_FALSE(file.SetLength(300));
  EXPECT_EQ(128u, file.GetCapacity());
  EXPECT_EQ(7u, file.GetLength());
  EXPECT_EQ(std::string("\3\0\0\0abc", 7), Contents(file));
}

TEST(MemBuffer, StringRecordsAreALengthPrefixAndTheBytes) {
  CMemBuffer file(16);
  EXPECT_TRUE(file.WriteString("abc"));
  EXPECT_TRUE(file.WriteStringContent("xy"));
  EXPECT_TRUE(file.WriteStringContent(""));
  EXPECT_FALSE(file.WriteStringContent(nullptr));
  EXPECT_TRUE(file.WriteString(nullptr, 0));
  EXPECT_TRUE(file.WriteString(nullptr));
  EXPECT_FALSE(file.WriteString(nullptr, 3)) << "refused before the prefix";
  // The prefix is in machine order: little-endian here.
  EXPECT_EQ(std::string("\3\0\0\0abcxy\0\0\0\0\0\0\0\0", 17), Contents(file));

  // Prefix fits, text does not: the prefix stays.
  unsigned char bytes[6];
  CMemBuffer tight(bytes, 6, 0, 16);
  EXPECT_FALSE(tight.WriteString("abc"));
  EXPECT_EQ(4u, tight.GetLength());
  EXPECT_FALSE(tight.WriteString("abc")) << "prefix cannot go out whole";
  EXPECT_EQ(4u, tight.GetLength());
}

TEST(MemBuffer, ReadStringExAllocatesOrFillsTheCallersBuffer) {
  CMemBuffer file(16);
  file.WriteString("abc");
  file.WriteString("hello");
  file.WriteStringContent("!");
  file.Seek(0, 0);
  char* block = nullptr;
  ASSERT_TRUE(file.ReadStringEx(&block, 0, -1));
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(4u, GlobalSize(block));
  EXPECT_EQ(0, memcmp(block, "abc", 4));
  GlobalFree(block);
  block = nullptr;

  char out[8];
  memset(out, '#', sizeof out);
  EXPECT_TRUE(file.ReadString(out, 2));
  EXPECT_EQ("he######", std::string(out, 8)) << "bounded: not terminated";
  EXPECT_EQ(16u - 3u, file.GetPosition()) << "3 bytes before the record's end";
  memset(out, '#', sizeof out);
  file.Seek(7, 0);
  EXPECT_TRUE(file.ReadString(out, 2, -1));
  EXPECT_EQ("##hello#", std::string(out, 8)) << "unbounded: not terminated";

  file.Seek(7, 0);
  EXPECT_FALSE(file.ReadStringEx(&block, 0, 5)) << "null pointer, bounded";
  EXPECT_EQ(11u, file.GetPosition());
  file.Seek(7, 0);
  EXPECT_FALSE(file.ReadStringEx(&block, 1, -1)) << "null pointer, offset";
  EXPECT_EQ(nullptr, block);
  file.Seek(7, 0);
  EXPECT_FALSE(file.ReadStringEx(nullptr, 0, -1));
  EXPECT_FALSE(file.ReadStringEx(&block, -1, -1));
  EXPECT_FALSE(file.ReadStringEx(&block, 0, -2));
  EXPECT_FALSE(file.ReadString(nullptr, -1));
  EXPECT_EQ(7u, file.GetPosition()) << "bad arguments leave the stream";

  CMemBuffer empty(16);
  empty.WriteString("");
  empty.Seek(0, 0);
  EXPECT_TRUE(empty.ReadStringEx(&block, 0, -1));
  EXPECT_EQ(nullptr, block) << "L = 0 unbounded allocates nothing";
  empty.Seek(2, 0);
  EXPECT_FALSE(empty.ReadStringEx(&block, 0, -1)) << "short prefix";
}

TEST(MemBuffer, ReadStringExRefusesRecordsLongerThanTheStream) {
  CMemBuffer file(16);
  unsigned int corrupt = 0xFFFFFFFFu;
  file.Write(&corrupt, 4);
  file.WriteStringContent("abc");
  file.Seek(0, 0);
  char* block = nullptr;
  EXPECT_FALSE(file.ReadStringEx(&block, 0, -1));
  EXPECT_EQ(nullptr, block);
  EXPECT_EQ(4u, file.GetPosition()) << "only the prefix is consumed";

  char out[4] = {'#', '#', '#', '#'};
  file.Seek(0, 0);
  EXPECT_FALSE(file.ReadString(out, -1));
  file.Seek(0, 0);
  EXPECT_FALSE(file.ReadString(out, 4)) << "bound above what remains";
  EXPECT_EQ("####", std::string(out, 4));
  file.Seek(0, 0);
  EXPECT_TRUE(file.ReadString(out, 3)) << "a bound within the stream reads";
  EXPECT_EQ("abc#", std::string(out, 4));
}

}  // namespace
