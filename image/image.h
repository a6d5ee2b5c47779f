// The device-independent-bitmap image class. Only the member the clipboard
// needs is built here.
#pragma once

#include <cstdint>

// BITMAPINFOHEADER, the 40-byte header of a packed device-independent bitmap.
#pragma pack(push, 1)
struct BITMAPINFOHEADER {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;  // negative: rows stored top-down
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};
#pragma pack(pop)
static_assert(sizeof(BITMAPINFOHEADER) == 40, "the header is 40 bytes");

constexpr uint32_t BI_RGB = 0;
constexpr uint32_t BI_BITFIELDS = 3;

class CImage {
 public:
  // Reads the packed bitmap held in the tracked global-memory block `dib` (a
  // header of at least 40 bytes, its colour table or bit-field masks, its pixel
  // rows padded to 4 bytes) and returns a new tracked block with the same
  // picture in the normal layout: a 40-byte header with a positive height
  // (bottom-up rows), the colour table sized from the bit count and biClrUsed,
  // rows padded to 4 bytes and biSizeImage filled in. The caller frees it with
  // GlobalFree.
  //
  // Returns 0 for anything that is not a valid bitmap: a null or short block,
  // a zero or negative width, a zero height, a plane count other than 1, a bit
  // count other than 1, 4, 8, 16, 24 or 32, a compression other than BI_RGB (or
  // BI_BITFIELDS at 16 and 32 bits), a colour count beyond the bit count, or
  // sizes that overflow or exceed the block's GlobalSize.
  void* CreateNormalDIB(void* dib);
};
