// CUtil's number, hexadecimal, byte, image-signature and system members.
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/system_time.h"
#include "util/util.h"

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Hexadecimal digit values indexed by character - '1': "1"-"9" and "A"-"F";
// the seven characters between '9' and 'A' read as 0.
const unsigned char kHexValues[22] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0, 0, 0, 0, 10, 11, 12, 13, 14, 15};

const char kHexDigits[] = "123456789ABCDEF";

}  // namespace

long CUtil::atol(const char* text, int length) {
  if (text == nullptr || length < 1) return 0;
  const int n = static_cast<int>(strnlen(text, static_cast<size_t>(length)));

  // First pass: leading minus signs flip the sign; then count the digits.
  long sign = 1;
  int i = 0;
  while (i < n && text[i] == '-') {
    sign = -sign;
    ++i;
  }
  int digits = 0;
  while (i + digits < n && IsDigit(text[i + digits])) ++digits;
  if (digits == 0) return 0;

  // Second pass from the first character: a non-digit ends it while the weight
  // is not negative and is skipped while it is. So "-12" is -12 but "--12",
  // whose first character already ends the pass, is 0. Wrapping arithmetic
  // keeps absurdly long inputs defined.
  unsigned long power = 1;
  for (int d = 1; d < digits; ++d) power *= 10;
  long weight = static_cast<long>(power * static_cast<unsigned long>(sign));
  unsigned long result = 0;
  for (int j = 0; j < n; ++j) {
    if (IsDigit(text[j])) {
      result += static_cast<unsigned long>(text[j] - '0') * static_cast<unsigned long>(weight);
      weight /= 10;
    } else if (weight >= 0) {
      break;
    }
  }
  return static_cast<long>(result);
}

long CUtil::atol(const char* text) {
  if (text == nullptr) return 0;
  size_t length = strlen(text);
  return atol(text, length > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(length));
}

double CUtil::atof(const char* text) { return text == nullptr ? 0.0 : strtod(text, nullptr); }

unsigned char CUtil::ConvertHexToBinary(char character) {
  int index = static_cast<unsigned char>(character) - '1';
  return (index >= 0 && index < 22) ? kHexValues[index] : 0;
}

char CUtil::ConvertBinaryToHex(unsigned char value) {
  return (value >= 1 && value <= 15) ? kHexDigits[value - 1] : '0';
}

int CUtil::ConvertHexStrToBinaryArray(const char* text, unsigned char* out) {
  if (text == nullptr) return 0;
  const int count = static_cast<int>(strlen(text) / 2);
  if (out == nullptr) return count;
  memset(out, 0, static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    unsigned char high = ConvertHexToBinary(text[2 * i]);
    unsigned char low = ConvertHexToBinary(text[2 * i + 1]);
    out[i] = static_cast<unsigned char>((high * 16) | (low & 15));
  }
  return count;
}

int CUtil::ConvertBinaryArrayToHexStr(const unsigned char* bytes, int count, char* out) {
  if (bytes == nullptr) return 0;
  if (count < 0) count = 0;
  const int size = 2 * count + 1;
  if (out == nullptr) return size;
  memset(out, 0, static_cast<size_t>(size));
  for (int i = 0; i < count; ++i) {
    out[2 * i] = ConvertBinaryToHex(bytes[i] >> 4);
    out[2 * i + 1] = ConvertBinaryToHex(bytes[i] & 15);
  }
  return size;
}

bool CUtil::CompareMemory(const void* a, const void* b, int count) {
  if (count < 1) return true;
  if (a == nullptr || b == nullptr) return a == b;
  return memcmp(a, b, static_cast<size_t>(count)) == 0;
}

int CUtil::GetSupportedImageType(const unsigned char* bytes, unsigned int length) {
  if (bytes == nullptr || length < 4) return -1;
  const unsigned char* b = bytes;
  if (b[0] == 0xFF && b[1] == 0xD8) return 1;                                  // JPEG
  if (b[0] == 0x89 && b[1] == 'P' && b[2] == 'N' && b[3] == 'G') return 3;     // PNG
  if (b[0] == 'B' && b[1] == 'M') return 0;                                    // BMP
  if (b[0] == 'M' && b[1] == 'M' && b[2] == 0x00 && b[3] == 0x2A) return 2;    // TIFF, big-endian
  if (b[0] == 'I' && b[1] == 'I' && b[2] == 0x2A && b[3] == 0x00) return 2;    // TIFF, little-endian
  if (b[0] == '%' && (b[1] | 0x20) == 'p' && (b[2] | 0x20) == 'd' && (b[3] | 0x20) == 'f') return 4;  // PDF
  if (length >= 6 && b[0] == 'G' && b[1] == 'I' && b[2] == 'F' && b[3] == '8' && (b[4] == '7' || b[4] == '9') &&
      b[5] == 'a') {
    return 6;  // GIF
  }
  return -1;
}

_SYSTEMTIME CUtil::GetLocalTime() {
  _SYSTEMTIME st{};
  ConvertTimeToSystemTime(st, static_cast<long>(time(nullptr)));
  st.wMilliseconds = 0;
  return st;
}

long CUtil::TransferSystemErrorCodeToFolivantErrorCode(unsigned int systemError) {
  return systemError == 0 ? 0 : -3000 - static_cast<long>(systemError);
}

bool CUtil::IsWow64() { return false; }

void CUtil::WaitForThreadDone(void* thread, unsigned int) {
  if (thread != nullptr) pthread_join(*static_cast<pthread_t*>(thread), nullptr);
}

void CUtil::WaitForThreadDone(void*) {}

void CUtil::WaitForThreadDone(void**, int, unsigned int) {}
