#include "image/image.h"

#include <cstring>

#include "platform/global_memory.h"

namespace {

constexpr uint64_t kMaxImageBytes = 0x7FFFFFFF;

bool SupportedBitCount(uint16_t bits) {
  return bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
}

}  // namespace

void* CImage::CreateNormalDIB(void* dib) {
  if (dib == nullptr) return nullptr;
  const uint64_t blockSize = GlobalSize(dib);
  if (blockSize < sizeof(BITMAPINFOHEADER)) return nullptr;

  BITMAPINFOHEADER header;
  memcpy(&header, dib, sizeof(header));
  if (header.biSize < sizeof(BITMAPINFOHEADER) || header.biSize > blockSize) return nullptr;
  if (header.biWidth <= 0 || header.biHeight == 0 || header.biHeight == INT32_MIN) return nullptr;
  if (header.biPlanes != 1 || !SupportedBitCount(header.biBitCount)) return nullptr;

  const uint16_t bits = header.biBitCount;
  uint64_t colours;
  if (bits <= 8) {
    const uint64_t full = uint64_t{1} << bits;
    if (header.biClrUsed > full) return nullptr;
    colours = header.biClrUsed != 0 ? header.biClrUsed : full;
  } else {
    // A true-colour bitmap may still carry an optional palette.
    if (header.biClrUsed > 256) return nullptr;
    colours = header.biClrUsed;
  }

  uint64_t masks = 0;
  if (header.biCompression == BI_BITFIELDS) {
    if (bits != 16 && bits != 32) return nullptr;
    // A 40-byte header is followed by the three masks; larger headers hold them.
    if (header.biSize == sizeof(BITMAPINFOHEADER)) masks = 3;
  } else if (header.biCompression != BI_RGB) {
    return nullptr;
  }

  const uint64_t width = static_cast<uint64_t>(header.biWidth);
  const bool topDown = header.biHeight < 0;
  const uint64_t height = topDown ? static_cast<uint64_t>(-static_cast<int64_t>(header.biHeight))
                                  : static_cast<uint64_t>(header.biHeight);
  const uint64_t stride = ((width * bits + 31) / 32) * 4;
  const uint64_t imageBytes = stride * height;  // both factors are below 2^32
  if (imageBytes > kMaxImageBytes) return nullptr;

  const uint64_t tableBytes = (masks + colours) * 4;
  const uint64_t inPixels = header.biSize + tableBytes;
  if (inPixels + imageBytes > blockSize) return nullptr;

  const uint64_t outSize = sizeof(BITMAPINFOHEADER) + tableBytes + imageBytes;
  void* out = GlobalAlloc(GMEM_ZEROINIT, static_cast<unsigned long>(outSize));
  if (out == nullptr) return nullptr;

  const unsigned char* in = static_cast<const unsigned char*>(dib);
  unsigned char* dst = static_cast<unsigned char*>(out);
  BITMAPINFOHEADER normal = header;
  normal.biSize = sizeof(BITMAPINFOHEADER);
  normal.biHeight = static_cast<int32_t>(height);
  normal.biSizeImage = static_cast<uint32_t>(imageBytes);
  memcpy(dst, &normal, sizeof(normal));
  memcpy(dst + sizeof(normal), in + header.biSize, tableBytes);

  const unsigned char* srcRows = in + inPixels;
  unsigned char* dstRows = dst + sizeof(normal) + tableBytes;
  if (!topDown) {
    memcpy(dstRows, srcRows, imageBytes);
  } else {
    for (uint64_t row = 0; row < height; ++row) {
      memcpy(dstRows + (height - 1 - row) * stride, srcRows + row * stride, stride);
    }
  }
  return out;
}
