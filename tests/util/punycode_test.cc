#include "util/punycode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "util/util.h"

namespace {

// One line of punycode_vectors.txt: a label and its raw RFC 3492 encoding
// made by an independent encoder (see make_punycode_vectors.py).
struct Vector {
  std::string utf8;
  std::wstring wide;
  std::string encoded;
  int nonBasic = 0;
};

// A strict UTF-8 decoder of our own, so the vectors do not depend on the
// conversion under test in IdnToAscii.
bool DecodeUtf8(const std::string& text, std::wstring& out) {
  out.clear();
  for (size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    int extra = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
    if (extra < 0 || i + extra >= text.size()) return false;
    uint32_t cp = extra == 0 ? lead : lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3F);
    }
    out.push_back(static_cast<wchar_t>(cp));
    i += static_cast<size_t>(extra) + 1;
  }
  return true;
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

const std::vector<Vector>& Vectors() {
  static const std::vector<Vector> vectors = [] {
    std::vector<Vector> result;
    std::ifstream file(QS_TEST_DATA_DIR "/punycode_vectors.txt");
    std::string line;
    while (std::getline(file, line)) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream fields(line);
      std::string hex;
      Vector v;
      fields >> hex >> v.encoded;
      v.utf8 = FromHex(hex);
      if (!DecodeUtf8(v.utf8, v.wide)) continue;  // counted below as missing
      for (wchar_t c : v.wide) v.nonBasic += static_cast<uint32_t>(c) >= 128 ? 1 : 0;
      result.push_back(v);
    }
    return result;
  }();
  return vectors;
}

// Encodes without case flags; fills `nonBasic` and returns the stored text
// (at most `capacity` bytes) with the returned length in `length`.
std::string Encode(const std::wstring& label, int capacity, int* length, int* nonBasic = nullptr,
                   const signed char* flags = nullptr) {
  std::vector<char> dest(static_cast<size_t>(capacity) + 1, '\x7F');
  int count = -1;
  *length = PunyCode::u_strToPunycode(label.c_str(), -1, capacity > 0 ? dest.data() : nullptr,
                                      capacity, flags, nullptr, nonBasic ? nonBasic : &count);
  EXPECT_EQ('\x7F', dest[static_cast<size_t>(capacity)]) << "wrote past the capacity";
  const int stored = *length < capacity ? *length : capacity;
  return std::string(dest.data(), static_cast<size_t>(stored > 0 ? stored : 0));
}

std::string Encode(const std::wstring& label, int* nonBasic = nullptr) {
  int length = 0;
  std::string text = Encode(label, 4096, &length, nonBasic);
  EXPECT_EQ(static_cast<int>(text.size()), length);
  return text;
}

std::string Idn(const char* host) {
  std::vector<char> out(8192, '\x7F');
  unsigned int length = CUtil::IdnToAscii(host, out.data());
  if (length == 0) return "<fail>";
  EXPECT_EQ('\0', out[length]);
  return std::string(out.data(), length);
}

// ---- PunyCode::u_strToPunycode --------------------------------------------

TEST(PunyCode, MatchesIndependentEncoderOnVectors) {
  const std::vector<Vector>& vectors = Vectors();
  // 18 RFC 3492 samples and 300 random labels; a short read would hide cases.
  ASSERT_EQ(318u, vectors.size());
  for (const Vector& v : vectors) {
    int nonBasic = -1;
    EXPECT_EQ(v.encoded, Encode(v.wide, &nonBasic)) << v.encoded;
    EXPECT_EQ(v.nonBasic, nonBasic) << v.encoded;
    // A size query (no destination) reports the same length.
    EXPECT_EQ(static_cast<int>(v.encoded.size()),
              PunyCode::u_strToPunycode(v.wide.c_str(), -1, nullptr, 0, nullptr, nullptr, nullptr));
  }
}

TEST(PunyCode, RfcSamplesAndDelimiterRule) {
  // Sample P mixes basic and non-basic code points: delimiter after the basics.
  EXPECT_EQ("MajiKoi5-783gue6qz075azm5e", Encode(L"Maji\u3067Koi\u3059\u308B5\u79D2\u524D"));
  // Sample R has no basic code points: no delimiter at all.
  EXPECT_EQ("d9juau41awczczp", Encode(L"\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067"));
  // Sample S is all basic: returned as it is, without the RFC's trailing "-".
  int nonBasic = -1;
  EXPECT_EQ("-> $1.00 <-", Encode(L"-> $1.00 <-", &nonBasic));
  EXPECT_EQ(0, nonBasic);
  // A basic "-" in the label is kept ahead of the delimiter.
  EXPECT_EQ("a--yka", Encode(L"a-\u00FC"));
  EXPECT_EQ("bcher-kva", Encode(L"b\u00FCcher"));
  EXPECT_EQ("tda", Encode(L"\u00FC"));
}

TEST(PunyCode, CaseFlags) {
  // RFC sample I: the flag on the first letter makes its last digit "D".
  const std::wstring russian =
      L"\u043F\u043E\u0447\u0435\u043C\u0443\u0436\u0435\u043E\u043D\u0438\u043D\u0435\u0433"
      L"\u043E\u0432\u043E\u0440\u044F\u0442\u043F\u043E\u0440\u0443\u0441\u0441\u043A\u0438";
  std::vector<signed char> flags(russian.size(), 0);
  flags[0] = 1;
  int length = 0;
  EXPECT_EQ("b1abfaaepdrnnbgefbaDotcwatmq2g4l", Encode(russian, 64, &length, nullptr, flags.data()));
  // All flags clear: the plain lower-case encoding.
  std::fill(flags.begin(), flags.end(), 0);
  EXPECT_EQ("b1abfaaepdrnnbgefbadotcwatmq2g4l", Encode(russian, 64, &length, nullptr, flags.data()));

  // Basic letters follow their flag either way; digits and "-" have no case.
  const signed char mixed[] = {1, 0, 1, 0, 1, 0};
  EXPECT_EQ("AbC-9b", Encode(L"abC-9B", 64, &length, nullptr, mixed));
  // Set on a non-basic code point: only the final digit of its delta changes.
  const signed char second[] = {0, 1};
  EXPECT_EQ("a-ehA", Encode(L"a\u00FC", 64, &length, nullptr, second));
  EXPECT_EQ("a-eha", Encode(L"a\u00FC"));
  // The flag of a surrogate pair is read at its lead unit.
  const signed char pair[] = {1, 0};
  const wchar_t grin[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ("e28H", Encode(grin, 64, &length, nullptr, pair));
}

TEST(PunyCode, RejectedArgumentsGiveZero) {
  char dest[16];
  int nonBasic = 7;
  EXPECT_EQ(0, PunyCode::u_strToPunycode(nullptr, -1, dest, 16, nullptr, nullptr, &nonBasic));
  EXPECT_EQ(0, nonBasic) << "the count is cleared before anything is checked";
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"\u00FC", 1, dest, 16, nullptr, nullptr, nullptr))
      << "only zero-terminated input (-1) is accepted";
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"\u00FC", 0, dest, 16, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"\u00FC", -1, nullptr, 16, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"", -1, dest, 16, nullptr, nullptr, nullptr));
  // The second output is never written, on success or failure.
  int unused = 12345;
  nonBasic = 7;
  EXPECT_EQ(3, PunyCode::u_strToPunycode(L"\u00FC", -1, dest, 16, nullptr, &unused, &nonBasic));
  EXPECT_EQ(1, nonBasic);
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"", -1, dest, 16, nullptr, &unused, nullptr));
  EXPECT_EQ(12345, unused);
}

TEST(PunyCode, AtMost512CodePoints) {
  int nonBasic = 0;
  // 511 basic letters and one non-basic: accepted, the delimiter after 511.
  std::wstring label(511, L'a');
  label += L'\u00FC';
  std::string encoded = Encode(label, &nonBasic);
  EXPECT_EQ(1, nonBasic);
  EXPECT_EQ(std::string(511, 'a') + "-", encoded.substr(0, 512));
  // One more code point of either kind is refused.
  EXPECT_EQ(0, PunyCode::u_strToPunycode((label + L'a').c_str(), -1, nullptr, 0, nullptr, nullptr,
                                         nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode(std::wstring(513, L'a').c_str(), -1, nullptr, 0, nullptr,
                                         nullptr, nullptr));
  EXPECT_EQ(512, PunyCode::u_strToPunycode(std::wstring(512, L'a').c_str(), -1, nullptr, 0,
                                           nullptr, nullptr, nullptr));
  // A surrogate pair is one code point: 511 pairs plus one letter still fit.
  std::wstring pairs;
  for (int i = 0; i < 511; ++i) pairs += std::wstring{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
  EXPECT_NE(0, PunyCode::u_strToPunycode((pairs + L'a').c_str(), -1, nullptr, 0, nullptr, nullptr,
                                         nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode((pairs + L"ab").c_str(), -1, nullptr, 0, nullptr, nullptr,
                                         nullptr));
}

TEST(PunyCode, Surrogates) {
  // Separate UTF-16 units are combined into the code point they stand for,
  // which encodes as the same code point given whole.
  const wchar_t pair[] = {L'x', 0xD83D, 0xDE00, L'y', 0};
  int nonBasic = 0;
  EXPECT_EQ(Encode(L"x\U0001F600y"), Encode(pair, &nonBasic));
  EXPECT_EQ(1, nonBasic);
  EXPECT_EQ("e28h", Encode(L"\U0001F600"));

  const wchar_t loneLeadAtEnd[] = {L'a', 0xD800, 0};
  const wchar_t leadThenLetter[] = {0xDBFF, L'a', 0};
  const wchar_t loneTrail[] = {0xDC00, 0};
  const wchar_t reversed[] = {0xDE00, 0xD83D, 0};
  const wchar_t leadLead[] = {0xD83D, 0xD83D, 0xDE00, 0};
  for (const wchar_t* bad : {loneLeadAtEnd, leadThenLetter, loneTrail, reversed, leadLead}) {
    EXPECT_EQ(0, PunyCode::u_strToPunycode(bad, -1, nullptr, 0, nullptr, nullptr, nullptr));
  }
  // The edges of the ranges: 0xD7FF and 0xE000 are ordinary code points.
  EXPECT_NE(0, PunyCode::u_strToPunycode(L"\uD7FF\uE000", -1, nullptr, 0, nullptr, nullptr, nullptr));
}

TEST(PunyCode, CapacityLimitsStoringNotTheLength) {
  int length = 0;
  // Cut inside the deltas, inside the basics, and at zero with a buffer.
  EXPECT_EQ("a-e", Encode(L"a\u00FC", 3, &length));
  EXPECT_EQ(5, length);
  EXPECT_EQ("bc", Encode(L"b\u00FCcher", 2, &length));
  EXPECT_EQ(9, length);
  char dest[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(9, PunyCode::u_strToPunycode(L"b\u00FCcher", -1, dest, 0, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, memcmp(dest, "####", 4));
  // Exactly fitting output is not terminated.
  char exact[6] = {'#', '#', '#', '#', '#', '#'};
  EXPECT_EQ(5, PunyCode::u_strToPunycode(L"a\u00FC", -1, exact, 5, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, memcmp(exact, "a-eha#", 6));
}

TEST(PunyCode, OverflowGuardBoundary) {
  // With no basic code points the first pass allows m - 128 up to 0x7FFFFDFF,
  // 512 below the largest signed 32-bit value.
  const wchar_t highest[] = {static_cast<wchar_t>(0x7FFFFDFF + 128), 0};
  const wchar_t beyond[] = {static_cast<wchar_t>(0x7FFFFDFF + 129), 0};
  EXPECT_EQ("9p16146o", Encode(highest));  // delta 0x7FFFFDFF at bias 72
  EXPECT_EQ(0, PunyCode::u_strToPunycode(beyond, -1, nullptr, 0, nullptr, nullptr, nullptr));
  // One basic code point halves the room: (0x7FFFFDFF - 0) / 2 = 0x3FFFFEFF.
  const wchar_t halfHighest[] = {L'a', static_cast<wchar_t>(0x3FFFFEFF + 128), 0};
  const wchar_t halfBeyond[] = {L'a', static_cast<wchar_t>(0x3FFFFEFF + 129), 0};
  // delta 0x7FFFFDFE, plus 1 for the "a" passed before the emission.
  EXPECT_EQ("a-9p16146o", Encode(halfHighest));
  EXPECT_EQ(0, PunyCode::u_strToPunycode(halfBeyond, -1, nullptr, 0, nullptr, nullptr, nullptr));
  // Delta carried into a pass narrows the room: after U+0080 is emitted the
  // 200 basic letters behind it leave delta 201 for the second pass, at
  // h = 201, so m - 129 may be (0x7FFFFDFF - 201) / 202 = 10631103, one less
  // than without the carried delta.
  std::wstring carried = L"\u0080" + std::wstring(200, L'a');
  EXPECT_NE(0, PunyCode::u_strToPunycode((carried + static_cast<wchar_t>(129 + 10631103)).c_str(), -1,
                                         nullptr, 0, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode((carried + static_cast<wchar_t>(129 + 10631104)).c_str(), -1,
                                         nullptr, 0, nullptr, nullptr, nullptr));
  // Negative wide characters are huge code points and trip it too.
  const wchar_t negative[] = {static_cast<wchar_t>(-1), 0};
  EXPECT_EQ(0, PunyCode::u_strToPunycode(negative, -1, nullptr, 0, nullptr, nullptr, nullptr));
  // Within Unicode it cannot trip: the largest step, U+10FFFF after 511
  // basic code points, is about a quarter of the room.
  EXPECT_NE(0, PunyCode::u_strToPunycode((std::wstring(511, L'a') + L"\U0010FFFF").c_str(), -1,
                                         nullptr, 0, nullptr, nullptr, nullptr));
}

// ---- CUtil::IdnToAscii ------------------------------------------------------

TEST(IdnToAscii, AsciiHostsPassUnchanged) {
  EXPECT_EQ("Example.COM", Idn("Example.COM"));
  EXPECT_EQ(11u, CUtil::IdnToAscii("Example.COM", nullptr) - 1);
  EXPECT_EQ("a-b.c_d.1", Idn("a-b.c_d.1"));
  // A trailing dot is dropped.
  EXPECT_EQ("example.com", Idn("example.com."));
  EXPECT_EQ(12u, CUtil::IdnToAscii("example.com.", nullptr));
}

TEST(IdnToAscii, NonAsciiLabelsGetPrefix) {
  EXPECT_EQ("xn--tda.com", Idn("\xC3\xBC.com"));  // one character: no "-"
  EXPECT_EQ("www.xn--bcher-kva.de", Idn("www.b\xC3\xBC" "cher.de"));
  EXPECT_EQ("xn--e28h.xn--tda", Idn("\xF0\x9F\x98\x80.\xC3\xBC"));
  // Labels are not case-folded or normalised.
  EXPECT_EQ("xn--Bcher-kva", Idn("B\xC3\xBC" "cher"));
  // Malformed UTF-8 reaches the encoder as U+FFFD.
  EXPECT_EQ("xn--zn7c.com", Idn("\xFF.com"));
}

TEST(IdnToAscii, Failures) {
  EXPECT_EQ(0u, CUtil::IdnToAscii(nullptr, nullptr));
  char out[64];
  EXPECT_EQ(0u, CUtil::IdnToAscii(nullptr, out));
  for (const char* host : {"a..b", ".", ".com", "a.b..", "\xC3\xBC..de"}) {
    EXPECT_EQ(0u, CUtil::IdnToAscii(host, out)) << host;
    EXPECT_EQ(0u, CUtil::IdnToAscii(host, nullptr)) << host;
  }
  // 513 code points in a label fail, 512 pass.
  std::string label;
  for (int i = 0; i < 512; ++i) label += "\xC3\xBC";
  const std::string ok = "x." + label + ".y";
  EXPECT_NE(0u, CUtil::IdnToAscii(ok.c_str(), nullptr));
  const std::string tooLong = "x." + label + "a.y";
  EXPECT_EQ(0u, CUtil::IdnToAscii(tooLong.c_str(), nullptr));
}

TEST(IdnToAscii, LabelEncodingMustFitIn1024Bytes) {
  // "a" * a + the first p of a fixed spread of CJK ideographs: (2, 344)
  // encodes to exactly 1024 bytes, (0, 346) to 1025.
  auto make = [](int a, int p, std::wstring& wide, std::string& utf8) {
    wide.assign(static_cast<size_t>(a), L'a');
    utf8.assign(static_cast<size_t>(a), 'a');
    for (int i = 0; i < p; ++i) {
      const unsigned cp = 0x4E00 + (static_cast<unsigned>(i) * 7919u) % 20000u;
      wide.push_back(static_cast<wchar_t>(cp));
      utf8 += static_cast<char>(0xE0 | (cp >> 12));
      utf8 += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      utf8 += static_cast<char>(0x80 | (cp & 0x3F));
    }
  };
  std::wstring wide;
  std::string utf8;
  make(2, 344, wide, utf8);
  const std::string fits = Encode(wide);
  ASSERT_EQ(1024u, fits.size());
  EXPECT_EQ("xn--" + fits, Idn(utf8.c_str()));
  make(0, 346, wide, utf8);
  ASSERT_EQ(1025u, Encode(wide).size());
  EXPECT_EQ(0u, CUtil::IdnToAscii(utf8.c_str(), nullptr));
}

TEST(IdnToAscii, VectorsAndSizeQuery) {
  size_t checked = 0;
  for (const Vector& v : Vectors()) {
    const std::string host = "www." + v.utf8 + ".Example";
    const unsigned int needed = CUtil::IdnToAscii(host.c_str(), nullptr);
    if (v.encoded.size() > 1024) {
      EXPECT_EQ(0u, needed) << v.encoded;
      continue;
    }
    const std::string expected = "www.xn--" + v.encoded + ".Example";
    // A buffer of exactly the size asked for is filled and terminated; the
    // byte after it stays untouched.
    std::vector<char> out(needed + 1, '\x7F');
    ASSERT_EQ(expected.size() + 1, needed);
    ASSERT_EQ(needed - 1, CUtil::IdnToAscii(host.c_str(), out.data()));
    EXPECT_EQ(expected, std::string(out.data()));
    EXPECT_EQ('\x7F', out[needed]);
    ++checked;
  }
  EXPECT_GT(checked, 300u);
}

}  // namespace
