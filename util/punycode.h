// PunyCode: the RFC 3492 encoder (base 36, tmin 1, tmax 26, skew 38, damp 700,
// initial bias 72, initial n 128) behind CUtil::IdnToAscii.
#pragma once

class PunyCode {
 public:
  // Upper bound on the code points of one label.
  static constexpr int kMaxCodePoints = 512;

  // Encodes one zero-terminated label of wide characters.
  //
  // Only srcLength == -1 is accepted. Characters are taken as unsigned 32-bit
  // code points; a UTF-16 lead surrogate followed by a trail surrogate is
  // combined into one code point, and a lone or reversed surrogate fails.
  // Basic code points (below 128) are copied first, then "-" when there are
  // also non-basic ones, then the deltas. With caseFlags (indexed like src) a
  // basic letter is made upper case when its flag is set and lower case
  // otherwise; a set flag on a non-basic code point makes the last digit of
  // its delta upper case.
  //
  // Bytes are stored only while below destCapacity, but the full length is
  // returned; the output is never terminated. *nonBasicCount (when given)
  // receives the number of non-basic code points. `unused` is never written.
  // Every failure returns 0: null src, srcLength other than -1, null dest
  // with a nonzero capacity, an empty src, more than kMaxCodePoints code
  // points, a bad surrogate, or a delta that would pass 0x7FFFFDFF.
  static int u_strToPunycode(const wchar_t* src, int srcLength, char* dest, int destCapacity,
                             const signed char* caseFlags, int* unused, int* nonBasicCount);
};
