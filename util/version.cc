// Version normalisation and identifiers.
#include "util/version.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/util.h"

unsigned int random_char() { return static_cast<unsigned int>(rand() % 255); }

std::string generate_hex(unsigned int count) {
  std::string hex;
  hex.reserve(static_cast<size_t>(count) * 2);
  char digits[8];
  for (unsigned int i = 0; i < count; ++i) {
    snprintf(digits, sizeof(digits), "%02x", random_char());
    hex += digits;
  }
  return hex;
}

int CUtil::CreateUUID(char* out) {
  if (out == nullptr) return 0;
  memset(out, 0, 1024);
  std::string hex = generate_hex(16);
  strncpy(out, hex.c_str(), 1023);
  return static_cast<int>(hex.size());
}

bool CUtil::NormalizeVersion(const char* input, char* out) {
  if (out == nullptr) return false;
  out[0] = '\0';
  if (input == nullptr) return false;
  const size_t n = strlen(input);
  if (n <= 6) return false;

  // MMmmpp from the leading characters by the input's length, then the build:
  // always the last four characters.
  char head[7];
  const char* in = input;
  switch (n) {
    case 7:  // M m p
      head[0] = '0', head[1] = in[0], head[2] = '0', head[3] = in[1], head[4] = '0', head[5] = in[2];
      break;
    case 8:  // MM m p
      head[0] = in[0], head[1] = in[1], head[2] = '0', head[3] = in[2], head[4] = '0', head[5] = in[3];
      break;
    case 9:  // MM mm p
      memcpy(head, in, 4);
      head[4] = '0', head[5] = in[4];
      break;
    default:  // MM mm pp, anything between dropped
      memcpy(head, in, 6);
      break;
  }
  memcpy(out, head, 6);
  memcpy(out + 6, in + n - 4, 4);
  out[10] = '\0';
  return true;
}
