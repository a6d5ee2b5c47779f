// Fuzzes CUtil::IdnToAscii with arbitrary host bytes and
// PunyCode::u_strToPunycode with arbitrary wide units.
//
// IdnToAscii: the size asked for with a null output must be exactly what the
// call with a buffer of that size writes (length + terminator), and the name
// must be printable as ASCII. The encoder: a small capacity must change only
// what is stored, never the length returned, and never be overrun (ASan).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util/punycode.h"
#include "util/util.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

void FuzzIdn(const uint8_t* data, size_t size) {
  std::vector<char> host(data, data + size);
  host.push_back('\0');

  const unsigned int needed = CUtil::IdnToAscii(host.data(), nullptr);
  if (needed == 0) {
    // Failures are decided before anything is written: a one-byte heap
    // buffer must come back untouched.
    std::vector<char> out(1, '\x7F');
    Check(CUtil::IdnToAscii(host.data(), out.data()) == 0);
    Check(out[0] == '\x7F');
    return;
  }
  std::vector<char> out(needed);  // exactly the size asked for
  const unsigned int length = CUtil::IdnToAscii(host.data(), out.data());
  Check(length == needed - 1);
  Check(out[length] == '\0');
  for (unsigned int i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(out[i]);
    Check(c != 0 && c < 0x80);
  }
}

void FuzzEncoder(const uint8_t* data, size_t size) {
  if (size == 0) return;
  // The first byte picks 16-bit units (to reach surrogate pairs often) or
  // 32-bit units (any wchar_t value) and whether case flags are used.
  const bool narrowUnits = (data[0] & 1) != 0;
  const bool withFlags = (data[0] & 2) != 0;
  ++data;
  --size;

  std::vector<wchar_t> units;
  if (narrowUnits) {
    for (size_t i = 0; i + 1 < size; i += 2) {
      units.push_back(static_cast<wchar_t>(data[i] | (data[i + 1] << 8)));
    }
  } else {
    for (size_t i = 0; i + 3 < size; i += 4) {
      uint32_t unit;
      memcpy(&unit, data + i, sizeof(unit));
      units.push_back(static_cast<wchar_t>(unit));
    }
  }
  units.push_back(0);
  std::vector<signed char> flags(units.size());
  for (size_t i = 0; i < flags.size() && size > 0; ++i) {
    flags[i] = static_cast<signed char>(data[i % size] & 0x80 ? 1 : 0);
  }
  const signed char* caseFlags = withFlags ? flags.data() : nullptr;

  constexpr int kSmall = 16;
  std::vector<char> small(kSmall);
  int unused = 0x5A5A5A5A;
  int nonBasic = -1;
  const int length =
      PunyCode::u_strToPunycode(units.data(), -1, small.data(), kSmall, caseFlags, &unused, &nonBasic);
  Check(unused == 0x5A5A5A5A);
  Check(nonBasic >= 0 && nonBasic <= PunyCode::kMaxCodePoints);
  Check(length >= 0);
  const int sized = PunyCode::u_strToPunycode(units.data(), -1, nullptr, 0, caseFlags, nullptr, nullptr);
  Check(sized == length);
  if (length == 0) return;

  std::vector<char> full(static_cast<size_t>(length));
  Check(PunyCode::u_strToPunycode(units.data(), -1, full.data(), length, caseFlags, nullptr, nullptr) ==
        length);
  Check(memcmp(full.data(), small.data(), static_cast<size_t>(length < kSmall ? length : kSmall)) == 0);
  for (char c : full) Check(c > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzIdn(data, size);
  FuzzEncoder(data, size);
  return 0;
}
