#include "image/image.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/global_memory.h"

namespace {

// A packed bitmap in a tracked block, built from parts.
void* MakeDib(const BITMAPINFOHEADER& header, const std::vector<unsigned char>& table,
              const std::vector<unsigned char>& pixels, size_t extra = 0) {
  size_t size = sizeof(header) + table.size() + pixels.size() + extra;
  unsigned char* block = static_cast<unsigned char*>(GlobalAlloc(GMEM_ZEROINIT, size));
  memcpy(block, &header, sizeof(header));
  if (!table.empty()) memcpy(block + sizeof(header), table.data(), table.size());
  if (!pixels.empty()) memcpy(block + sizeof(header) + table.size(), pixels.data(), pixels.size());
  return block;
}

BITMAPINFOHEADER Header(int width, int height, int bits) {
  BITMAPINFOHEADER h{};
  h.biSize = 40;
  h.biWidth = width;
  h.biHeight = height;
  h.biPlanes = 1;
  h.biBitCount = static_cast<uint16_t>(bits);
  return h;
}

std::vector<unsigned char> Bytes(void* block) {
  unsigned char* p = static_cast<unsigned char*>(block);
  return std::vector<unsigned char>(p, p + GlobalSize(block));
}

BITMAPINFOHEADER HeaderOf(void* block) {
  BITMAPINFOHEADER h;
  memcpy(&h, block, sizeof(h));
  return h;
}

TEST(CreateNormalDIB, BottomUpTrueColourKeepsItsRowsAndFillsTheImageSize) {
  // 2x2 at 24 bits: 6 bytes a row, padded to 8.
  std::vector<unsigned char> pixels = {1, 2, 3, 4, 5, 6, 0, 0, 7, 8, 9, 10, 11, 12, 0, 0};
  void* dib = MakeDib(Header(2, 2, 24), {}, pixels);
  CImage image;
  void* normal = image.CreateNormalDIB(dib);
  ASSERT_NE(nullptr, normal);
  EXPECT_EQ(40u + 16u, GlobalSize(normal));
  BITMAPINFOHEADER h = HeaderOf(normal);
  EXPECT_EQ(40u, h.biSize);
  EXPECT_EQ(2, h.biHeight);
  EXPECT_EQ(16u, h.biSizeImage);
  std::vector<unsigned char> out = Bytes(normal);
  EXPECT_EQ(pixels, std::vector<unsigned char>(out.begin() + 40, out.end()));
  GlobalFree(normal);
  GlobalFree(dib);
}

TEST(CreateNormalDIB, TopDownRowsAreTurnedBottomUpWithTheUsedColours) {
  // 3x3 at 8 bits with two palette entries: 3 bytes a row, padded to 4.
  BITMAPINFOHEADER h = Header(3, -3, 8);
  h.biClrUsed = 2;
  std::vector<unsigned char> table = {0, 0, 0, 0, 255, 255, 255, 0};
  std::vector<unsigned char> pixels = {0, 0, 0, 0, 1, 1, 1, 0, 0, 1, 0, 0};
  void* dib = MakeDib(h, table, pixels);
  void* normal = CImage().CreateNormalDIB(dib);
  ASSERT_NE(nullptr, normal);
  EXPECT_EQ(40u + 8u + 12u, GlobalSize(normal));
  BITMAPINFOHEADER out = HeaderOf(normal);
  EXPECT_EQ(3, out.biHeight);
  EXPECT_EQ(2u, out.biClrUsed);
  EXPECT_EQ(12u, out.biSizeImage);
  std::vector<unsigned char> bytes = Bytes(normal);
  EXPECT_EQ(table, std::vector<unsigned char>(bytes.begin() + 40, bytes.begin() + 48));
  std::vector<unsigned char> flipped = {0, 1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0};
  EXPECT_EQ(flipped, std::vector<unsigned char>(bytes.begin() + 48, bytes.end()));
  GlobalFree(normal);
  GlobalFree(dib);
}

TEST(CreateNormalDIB, FullPaletteWhenNoColourCountIsGiven) {
  // 9x1 at 1 bit: two colours, 2 bytes of pixels padded to 4; a larger header.
  BITMAPINFOHEADER h = Header(9, 1, 1);
  h.biSize = 52;
  std::vector<unsigned char> rest(12, 0xEE);  // the header's extra 12 bytes
  std::vector<unsigned char> table = {1, 1, 1, 0, 2, 2, 2, 0};
  rest.insert(rest.end(), table.begin(), table.end());
  void* dib = MakeDib(h, rest, {0xFF, 0x80, 0, 0});
  void* normal = CImage().CreateNormalDIB(dib);
  ASSERT_NE(nullptr, normal);
  std::vector<unsigned char> bytes = Bytes(normal);
  ASSERT_EQ(40u + 8u + 4u, bytes.size());
  EXPECT_EQ(40u, HeaderOf(normal).biSize);
  EXPECT_EQ(table, std::vector<unsigned char>(bytes.begin() + 40, bytes.begin() + 48));
  EXPECT_EQ(0xFF, bytes[48]);
  GlobalFree(normal);
  GlobalFree(dib);
}

TEST(CreateNormalDIB, BitFieldMasksTravelWithTheHeader) {
  BITMAPINFOHEADER h = Header(1, 1, 16);
  h.biCompression = BI_BITFIELDS;
  std::vector<unsigned char> masks = {0, 0xF8, 0, 0, 0xE0, 0x07, 0, 0, 0x1F, 0, 0, 0};
  void* dib = MakeDib(h, masks, {0x34, 0x12, 0, 0});
  void* normal = CImage().CreateNormalDIB(dib);
  ASSERT_NE(nullptr, normal);
  std::vector<unsigned char> bytes = Bytes(normal);
  ASSERT_EQ(40u + 12u + 4u, bytes.size());
  EXPECT_EQ(masks, std::vector<unsigned char>(bytes.begin() + 40, bytes.begin() + 52));
  GlobalFree(normal);
  GlobalFree(dib);
}

TEST(CreateNormalDIB, InvalidBitmapsGiveZero) {
  CImage image;
  EXPECT_EQ(nullptr, image.CreateNormalDIB(nullptr));

  static char untracked[64];
  EXPECT_EQ(nullptr, image.CreateNormalDIB(untracked)) << "GlobalSize 0";
  gmapMemSize.erase(untracked);

  void* tiny = GlobalAlloc(GMEM_ZEROINIT, 39);
  EXPECT_EQ(nullptr, image.CreateNormalDIB(tiny));
  GlobalFree(tiny);

  struct Case {
    const char* what;
    BITMAPINFOHEADER header;
  };
  std::vector<Case> cases;
  auto add = [&](const char* what, auto change) {
    BITMAPINFOHEADER h = Header(2, 2, 24);
    change(h);
    cases.push_back({what, h});
  };
  add("zero width", [](BITMAPINFOHEADER& h) { h.biWidth = 0; });
  add("negative width", [](BITMAPINFOHEADER& h) { h.biWidth = -2; });
  add("zero height", [](BITMAPINFOHEADER& h) { h.biHeight = 0; });
  add("most negative height", [](BITMAPINFOHEADER& h) { h.biHeight = INT32_MIN; });
  add("two planes", [](BITMAPINFOHEADER& h) { h.biPlanes = 2; });
  add("2 bits", [](BITMAPINFOHEADER& h) { h.biBitCount = 2; });
  add("0 bits", [](BITMAPINFOHEADER& h) { h.biBitCount = 0; });
  add("RLE", [](BITMAPINFOHEADER& h) {
    h.biBitCount = 8;
    h.biCompression = 1;
  });
  add("bit fields at 24 bits", [](BITMAPINFOHEADER& h) { h.biCompression = BI_BITFIELDS; });
  add("too many colours", [](BITMAPINFOHEADER& h) {
    h.biBitCount = 8;
    h.biClrUsed = 257;
  });
  add("huge colour count", [](BITMAPINFOHEADER& h) { h.biClrUsed = 0xFFFFFFFF; });
  add("header size below 40", [](BITMAPINFOHEADER& h) { h.biSize = 12; });
  add("header size past the block", [](BITMAPINFOHEADER& h) { h.biSize = 0x7FFFFFFF; });
  add("pixels past the block", [](BITMAPINFOHEADER& h) { h.biHeight = 3; });
  add("overflowing size", [](BITMAPINFOHEADER& h) {
    h.biWidth = 0x7FFFFFFF;
    h.biHeight = 0x7FFFFFFF;
    h.biBitCount = 32;
  });
  for (const Case& c : cases) {
    void* dib = MakeDib(c.header, {}, std::vector<unsigned char>(16, 0));
    EXPECT_EQ(nullptr, image.CreateNormalDIB(dib)) << c.what;
    GlobalFree(dib);
  }
}

TEST(Clipboard, StoresACopyAndHandsOutANormalisedBitmap) {
  EXPECT_EQ(nullptr, GetClipBoard()) << "empty at start";
  void* dib = MakeDib(Header(1, -2, 32), {}, {1, 2, 3, 4, 5, 6, 7, 8});
  SetClipBoard(dib);
  GlobalFree(dib);  // the caller keeps, and may free, its own block
  void* first = GetClipBoard();
  void* second = GetClipBoard();
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second) << "each call makes a new block";
  std::vector<unsigned char> bytes = Bytes(first);
  ASSERT_EQ(48u, bytes.size());
  EXPECT_EQ((std::vector<unsigned char>{5, 6, 7, 8, 1, 2, 3, 4}), std::vector<unsigned char>(bytes.begin() + 40, bytes.end()));
  GlobalFree(first);
  GlobalFree(second);

  void* garbage = GlobalAlloc(GMEM_ZEROINIT, 10);
  SetClipBoard(garbage);
  EXPECT_EQ(nullptr, GetClipBoard()) << "not a bitmap";
  GlobalFree(garbage);

  SetClipBoard(nullptr);
  EXPECT_EQ(nullptr, GetClipBoard());
}

}  // namespace
