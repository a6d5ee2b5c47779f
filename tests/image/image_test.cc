// The bitmap normaliser behind the clipboard: packed bitmaps in, a 40-byte
// header, the colour table and bottom-up padded rows out, or nothing. (The
// clipboard itself, a stored copy handed out normalised, has no caller in the
// module.)
#include "image/image.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/global_memory.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A packed bitmap in a tracked block: header, then `rest` (colour table or
// masks), then the pixels.
void* MakeDib(int width, int height, int bits, void (*change)(BITMAPINFOHEADER&), const Bytes& rest) {
  BITMAPINFOHEADER h{40, width, height, 1, static_cast<uint16_t>(bits)};
  if (change != nullptr) change(h);
  auto* block = static_cast<unsigned char*>(GlobalAlloc(GMEM_ZEROINIT, sizeof(h) + rest.size()));
  memcpy(block, &h, sizeof(h));
  if (!rest.empty()) memcpy(block + sizeof(h), rest.data(), rest.size());
  return block;
}

// What follows the header of a normalised block, after checking the header;
// "null" when there is no block.
std::string Normalised(void* dib) {
  void* normal = CImage().CreateNormalDIB(dib);
  GlobalFree(dib);
  if (normal == nullptr) return "null";
  BITMAPINFOHEADER h;
  memcpy(&h, normal, sizeof(h));
  auto* bytes = static_cast<unsigned char*>(normal);
  std::string text = "h=" + std::to_string(h.biHeight) + " size=" + std::to_string(h.biSizeImage) + ":";
  for (size_t i = 40; i < GlobalSize(normal); ++i) text += " " + std::to_string(bytes[i]);
  EXPECT_EQ(40u, h.biSize);
  GlobalFree(normal);
  return text;
}

TEST(CreateNormalDIB, NormalisesOrRefuses) {
  const struct { const char* what; void* dib; std::string expected; } rows[] = {
      // 24 bits: rows of 6 bytes padded to 8, already bottom-up; the image size is filled in.
      {"true colour", MakeDib(2, 2, 24, nullptr, {1, 2, 3, 4, 5, 6, 0, 0, 7, 8, 9, 10, 11, 12, 0, 0}),
       "h=2 size=16: 1 2 3 4 5 6 0 0 7 8 9 10 11 12 0 0"},
      // Top-down rows are turned; the used colours only.
      {"top-down, 2 colours used", MakeDib(3, -3, 8, [](BITMAPINFOHEADER& h) { h.biClrUsed = 2; },
                                           {0, 0, 0, 0, 255, 255, 255, 0, 0, 0, 0, 0, 1, 1, 1, 0, 0, 1, 0, 0}),
       "h=3 size=12: 0 0 0 0 255 255 255 0 0 1 0 0 1 1 1 0 0 0 0 0"},
      // A larger header is cut to 40 bytes; the full palette when no count is given.
      {"1 bit, 52-byte header", MakeDib(9, 1, 1, [](BITMAPINFOHEADER& h) { h.biSize = 52; },
                                        {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 1, 1, 1, 0, 2, 2, 2, 0, 255, 128, 0, 0}),
       "h=1 size=4: 1 1 1 0 2 2 2 0 255 128 0 0"},
      {"bit-field masks", MakeDib(1, 1, 16, [](BITMAPINFOHEADER& h) { h.biCompression = BI_BITFIELDS; },
                                  {0, 248, 0, 0, 224, 7, 0, 0, 31, 0, 0, 0, 52, 18, 0, 0}),
       "h=1 size=4: 0 248 0 0 224 7 0 0 31 0 0 0 52 18 0 0"},
      {"zero width", MakeDib(0, 2, 24, nullptr, Bytes(16)), "null"},
      {"most negative height", MakeDib(2, INT32_MIN, 24, nullptr, Bytes(16)), "null"},
      {"RLE", MakeDib(2, 2, 8, [](BITMAPINFOHEADER& h) { h.biCompression = 1; }, Bytes(16)), "null"},
      {"257 colours", MakeDib(2, 2, 8, [](BITMAPINFOHEADER& h) { h.biClrUsed = 257; }, Bytes(16)), "null"},
      {"header below 40", MakeDib(2, 2, 24, [](BITMAPINFOHEADER& h) { h.biSize = 12; }, Bytes(16)), "null"},
      {"header past the block", MakeDib(2, 2, 24, [](BITMAPINFOHEADER& h) { h.biSize = 0x7FFFFFFF; }, Bytes(16)),
       "null"},
      {"pixels past the block", MakeDib(2, 3, 24, nullptr, Bytes(16)), "null"},
      {"overflowing size", MakeDib(0x7FFFFFFF, 0x7FFFFFFF, 32, nullptr, Bytes(16)), "null"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.expected, Normalised(row.dib)) << row.what;
  EXPECT_EQ(nullptr, CImage().CreateNormalDIB(nullptr));
  static char untracked[64];
  EXPECT_EQ(nullptr, CImage().CreateNormalDIB(untracked)) << "GlobalSize 0";
  gmapMemSize.erase(untracked);
  // The clipboard keeps a copy of what it was given and hands it out normalised.
  void* dib = MakeDib(1, 1, 24, nullptr, {1, 2, 3, 0});
  SetClipBoard(dib);
  GlobalFree(dib);
  EXPECT_EQ("h=1 size=4: 1 2 3 0", Normalised(GetClipBoard()));
  SetClipBoard(nullptr);
  EXPECT_EQ(nullptr, GetClipBoard());
}

}  // namespace
