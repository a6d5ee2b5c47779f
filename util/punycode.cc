#include "util/punycode.h"

#include <cstdint>

namespace {

constexpr uint32_t kBase = 36;
constexpr uint32_t kTMin = 1;
constexpr uint32_t kTMax = 26;
constexpr uint32_t kSkew = 38;
constexpr uint32_t kDamp = 700;
constexpr uint32_t kInitialBias = 72;
constexpr uint32_t kInitialN = 128;

// The largest delta the encoder lets build up before a pass. It stays 512
// below the largest signed 32-bit value, so the at most 512 increments of one
// pass (one per code point) plus the final one can never overflow.
constexpr uint32_t kDeltaLimit = 0x7FFFFDFF;

// A digit value 0-35 as "a"-"z" / "0"-"9"; letters upper case on request.
char DigitChar(uint32_t digit, bool upper) {
  if (digit < 26) return static_cast<char>((upper ? 'A' : 'a') + digit);
  return static_cast<char>('0' + (digit - 26));
}

char MapBasicCase(char c, bool upper) {
  if (upper && c >= 'a' && c <= 'z') return static_cast<char>(c - 'a' + 'A');
  if (!upper && c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  return c;
}

uint32_t Adapt(uint32_t delta, uint32_t numPoints, bool firstTime) {
  delta = firstTime ? delta / kDamp : delta / 2;
  delta += delta / numPoints;
  uint32_t k = 0;
  while (delta > ((kBase - kTMin) * kTMax) / 2) {
    delta /= kBase - kTMin;
    k += kBase;
  }
  return k + (kBase - kTMin + 1) * delta / (delta + kSkew);
}

bool IsLead(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsTrail(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Appends bytes to the caller's buffer, storing only what fits but counting
// everything.
struct Output {
  char* dest;
  int capacity;
  int length = 0;

  void Put(char c) {
    if (length < capacity) dest[length] = c;
    ++length;
  }
};

}  // namespace

int PunyCode::u_strToPunycode(const wchar_t* src, int srcLength, char* dest, int destCapacity,
                              const signed char* caseFlags, int* /*unused*/, int* nonBasicCount) {
  if (nonBasicCount != nullptr) *nonBasicCount = 0;
  if (src == nullptr || srcLength != -1) return 0;
  if (dest == nullptr && destCapacity != 0) return 0;
  if (src[0] == 0) return 0;

  uint32_t codePoints[kMaxCodePoints];
  bool upperLast[kMaxCodePoints];
  int total = 0;
  Output out{dest, destCapacity};

  for (int j = 0; src[j] != 0; ++j) {
    if (total == kMaxCodePoints) return 0;
    uint32_t c = static_cast<uint32_t>(src[j]);
    const bool flag = caseFlags != nullptr && caseFlags[j] != 0;
    if (c < kInitialN) {
      char basic = static_cast<char>(c);
      out.Put(caseFlags != nullptr ? MapBasicCase(basic, flag) : basic);
    } else if (IsLead(c)) {
      const uint32_t trail = static_cast<uint32_t>(src[j + 1]);
      if (!IsTrail(trail)) return 0;
      ++j;
      c = 0x10000 + ((c - 0xD800) << 10) + (trail - 0xDC00);
    } else if (IsTrail(c)) {
      return 0;
    }
    codePoints[total] = c;
    upperLast[total] = flag;
    ++total;
  }

  const uint32_t basicCount = static_cast<uint32_t>(out.length);
  const uint32_t count = static_cast<uint32_t>(total);
  if (basicCount > 0 && basicCount < count) out.Put('-');
  if (nonBasicCount != nullptr) *nonBasicCount = total - static_cast<int>(basicCount);
  if (basicCount == count) return out.length;

  uint32_t n = kInitialN;
  uint32_t delta = 0;
  uint32_t bias = kInitialBias;
  uint32_t h = basicCount;
  while (h < count) {
    uint32_t m = UINT32_MAX;
    for (uint32_t i = 0; i < count; ++i) {
      if (codePoints[i] >= n && codePoints[i] < m) m = codePoints[i];
    }
    // delta is at most 512 here, so the subtraction cannot wrap.
    if (m - n > (kDeltaLimit - delta) / (h + 1)) return 0;
    delta += (m - n) * (h + 1);
    n = m;

    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t c = codePoints[i];
      if (c < n) {
        ++delta;
      } else if (c == n) {
        // delta as a generalized variable-length integer.
        uint32_t q = delta;
        for (uint32_t k = kBase;; k += kBase) {
          const uint32_t t = k <= bias ? kTMin : (k >= bias + kTMax ? kTMax : k - bias);
          if (q < t) break;
          out.Put(DigitChar(t + (q - t) % (kBase - t), false));
          q = (q - t) / (kBase - t);
        }
        out.Put(DigitChar(q, upperLast[i]));
        bias = Adapt(delta, h + 1, h == basicCount);
        delta = 0;
        ++h;
      }
    }
    ++delta;
    // n only wraps when m was 0xFFFFFFFF, and then every code point has just
    // been emitted, so the loop ends.
    ++n;
  }
  return out.length;
}
