// Fuzzes CUtil::IdnToAscii with arbitrary host bytes and
// PunyCode::u_strToPunycode with arbitrary wide units.
//
// IdnToAscii: the size asked for with a null output is exactly what a buffer
// of that size receives (ASCII name plus terminator), and a failure writes
// nothing. The encoder: a small capacity changes only what is stored, never
// the length returned, and is never overrun (ASan).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util/punycode.h"
#include "util/util.h"

namespace {

void Check(bool condition) { if (!condition) abort(); }

int Encode(const std::vector<wchar_t>& units, char* dest, int capacity, const signed char* flags,
           int* unused = nullptr, int* nonBasic = nullptr) {
  return PunyCode::u_strToPunycode(units.data(), -1, dest, capacity, flags, unused, nonBasic);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> host(data, data + size);
  host.push_back('\0');
  const unsigned int needed = CUtil::IdnToAscii(host.data(), nullptr);
  std::vector<char> out(needed == 0 ? 1 : needed, '\x7F');
  const unsigned int length = CUtil::IdnToAscii(host.data(), out.data());
  Check(needed == 0 ? length == 0 && out[0] == '\x7F' : length == needed - 1 && out[length] == '\0');
  for (unsigned int i = 0; i < length; ++i) Check(out[i] > 0);

  // The first byte picks 16-bit units (to reach surrogate pairs often) or
  // 32-bit units (any wchar_t value), and whether case flags are used.
  if (size == 0) return 0;
  const size_t width = (data[0] & 1) != 0 ? 2 : 4;
  std::vector<wchar_t> units;
  std::vector<signed char> flags;
  for (size_t i = 1; i + width <= size; i += width) {
    uint32_t unit = 0;
    memcpy(&unit, data + i, width);
    units.push_back(static_cast<wchar_t>(unit));
    flags.push_back(static_cast<signed char>(data[i] >> 7));
  }
  units.push_back(0);
  flags.push_back(0);
  const signed char* caseFlags = (data[0] & 2) != 0 ? flags.data() : nullptr;

  char small[16];
  int unused = 0x5A5A5A5A, nonBasic = -1;
  const int encoded = Encode(units, small, sizeof small, caseFlags, &unused, &nonBasic);
  Check(unused == 0x5A5A5A5A && nonBasic >= 0 && nonBasic <= PunyCode::kMaxCodePoints && encoded >= 0);
  Check(Encode(units, nullptr, 0, caseFlags) == encoded);
  if (encoded == 0) return 0;
  std::vector<char> full(static_cast<size_t>(encoded));
  Check(Encode(units, full.data(), encoded, caseFlags) == encoded);
  Check(memcmp(full.data(), small, static_cast<size_t>(encoded < 16 ? encoded : 16)) == 0);
  for (char c : full) Check(c > 0);
  return 0;
}
