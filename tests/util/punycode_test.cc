#include "util/punycode.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "util/util.h"

namespace {

// A UTF-8 decoder of our own, so the vectors do not depend on the conversion
// under test in IdnToAscii.
std::wstring DecodeUtf8(const std::string& text) {
  std::wstring out;
  for (size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const int extra = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    uint32_t cp = extra == 0 ? lead : lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    out.push_back(static_cast<wchar_t>(cp));
    i += static_cast<size_t>(extra) + 1;
  }
  return out;
}

// The encoder's full result (size query without a destination).
int Length(const std::wstring& label) {
  return PunyCode::u_strToPunycode(label.c_str(), -1, nullptr, 0, nullptr, nullptr, nullptr);
}

// Encodes into `capacity` bytes and returns what was stored; checks that
// nothing is written past the capacity.
std::string Encode(const std::wstring& label, const signed char* flags = nullptr, int capacity = 4096,
                   int* length = nullptr, int* nonBasic = nullptr) {
  std::vector<char> dest(static_cast<size_t>(capacity) + 1, '#');
  int unused = 0;
  const int n = PunyCode::u_strToPunycode(label.c_str(), -1, dest.data(), capacity, flags, nullptr,
                                          nonBasic ? nonBasic : &unused);
  if (length != nullptr) *length = n;
  EXPECT_EQ('#', dest[static_cast<size_t>(capacity)]) << "wrote past the capacity";
  return std::string(dest.data(), static_cast<size_t>(n < capacity ? n : capacity));
}

std::string Idn(const std::string& host) {
  std::vector<char> out(8192, '#');
  const unsigned int length = CUtil::IdnToAscii(host.c_str(), out.data());
  if (length == 0) return "<fail>";
  EXPECT_EQ('\0', out[length]);
  EXPECT_EQ('#', out[length + 1]);
  EXPECT_EQ(length + 1, CUtil::IdnToAscii(host.c_str(), nullptr)) << "the size query counts the terminator";
  return std::string(out.data(), length);
}

TEST(PunyCode, MatchesIndependentEncoderOnVectorsAlsoInsideIdnToAscii) {
  // 18 RFC 3492 samples and 300 random labels from an independent encoder
  // (make_punycode_vectors.py), one "<label as UTF-8 hex> <raw encoding>" a line.
  std::ifstream file(QS_TEST_DATA_DIR "/punycode_vectors.txt");
  std::string line, hex, encoded;
  int count = 0;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream(line) >> hex >> encoded;
    std::string utf8;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) utf8 += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    const std::wstring wide = DecodeUtf8(utf8);
    int nonBasic = -1, expectedNonBasic = 0;
    for (wchar_t c : wide) expectedNonBasic += static_cast<uint32_t>(c) >= 128;
    EXPECT_EQ(encoded, Encode(wide, nullptr, 4096, nullptr, &nonBasic)) << encoded;
    EXPECT_EQ(expectedNonBasic, nonBasic) << encoded;
    EXPECT_EQ(static_cast<int>(encoded.size()), Length(wide)) << encoded;
    // IdnToAscii prefixes it, or fails when it is longer than the 1024-byte label buffer.
    EXPECT_EQ(encoded.size() > 1024 ? "<fail>" : "www.xn--" + encoded + ".Example", Idn("www." + utf8 + ".Example"));
    ++count;
  }
  EXPECT_EQ(318, count) << "a short read would hide cases";
}

TEST(PunyCode, RfcSamplesAndDelimiterRule) {
  const struct { std::wstring label; const char* encoded; const char* name; } cases[] = {
      {L"Maji\u3067Koi\u3059\u308B5\u79D2\u524D", "MajiKoi5-783gue6qz075azm5e", "sample P: delimiter after the basics"},
      {L"\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067", "d9juau41awczczp", "sample R: no basics, no delimiter"},
      {L"-> $1.00 <-", "-> $1.00 <-", "sample S: all basic, no trailing delimiter"},
      {L"a-\u00FC", "a--yka", "a basic '-' stays ahead of the delimiter"},
      {L"\u00FC", "tda", "one non-basic code point"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.encoded, Encode(c.label)) << c.name;
}

TEST(PunyCode, CaseFlags) {
  // RFC sample I: the flag on the first letter makes its last digit "D".
  const std::wstring russian =
      L"\u043F\u043E\u0447\u0435\u043C\u0443\u0436\u0435\u043E\u043D\u0438\u043D\u0435\u0433"
      L"\u043E\u0432\u043E\u0440\u044F\u0442\u043F\u043E\u0440\u0443\u0441\u0441\u043A\u0438";
  std::vector<signed char> flags(russian.size(), 0);
  EXPECT_EQ("b1abfaaepdrnnbgefbadotcwatmq2g4l", Encode(russian, flags.data()));
  flags[0] = 1;
  EXPECT_EQ("b1abfaaepdrnnbgefbaDotcwatmq2g4l", Encode(russian, flags.data()));
  // Basic letters follow their flag either way; digits and "-" have no case.
  const signed char mixed[] = {1, 0, 1, 0, 1, 0};
  EXPECT_EQ("AbC-9b", Encode(L"abC-9B", mixed));
  const signed char second[] = {0, 1};
  EXPECT_EQ("a-ehA", Encode(L"a\u00FC", second)) << "only the final digit of the delta";
  const signed char pair[] = {1, 0};
  EXPECT_EQ("e28H", Encode(std::wstring{wchar_t(0xD83D), wchar_t(0xDE00)}, pair)) << "read at the lead unit";
}

TEST(PunyCode, RejectedArgumentsAndCapacity) {
  char dest[6];
  int nonBasic = 7, unused = 12345;
  EXPECT_EQ(0, PunyCode::u_strToPunycode(nullptr, -1, dest, 6, nullptr, &unused, &nonBasic));
  EXPECT_EQ(0, nonBasic) << "the count is cleared before anything is checked";
  for (int srcLength : {1, 0}) {  // only zero-terminated input (-1) is accepted
    EXPECT_EQ(0, PunyCode::u_strToPunycode(L"\u00FC", srcLength, dest, 6, nullptr, nullptr, nullptr));
  }
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"\u00FC", -1, nullptr, 6, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, PunyCode::u_strToPunycode(L"", -1, dest, 6, nullptr, &unused, nullptr));
  EXPECT_EQ(3, PunyCode::u_strToPunycode(L"\u00FC", -1, dest, 6, nullptr, &unused, &nonBasic));
  EXPECT_EQ(1, nonBasic);
  EXPECT_EQ(12345, unused) << "the second output is never written";

  // Capacity limits what is stored, not the length; output is not terminated.
  int length = 0;
  EXPECT_EQ("a-e", Encode(L"a\u00FC", nullptr, 3, &length));
  EXPECT_EQ(5, length);
  EXPECT_EQ("bc", Encode(L"b\u00FCcher", nullptr, 2, &length)) << "cut inside the basics";
  EXPECT_EQ(9, length);
  EXPECT_EQ("a-eha", Encode(L"a\u00FC", nullptr, 5));  // exact fit; the byte after is checked by Encode
}

TEST(PunyCode, AtMost512CodePointsWithPairsCountingOnce) {
  int nonBasic = 0;
  const std::wstring label = std::wstring(511, L'a') + L'\u00FC';
  EXPECT_EQ(std::string(511, 'a') + "-", Encode(label, nullptr, 4096, nullptr, &nonBasic).substr(0, 512));
  EXPECT_EQ(1, nonBasic);
  EXPECT_EQ(0, Length(label + L'a'));
  EXPECT_EQ(512, Length(std::wstring(512, L'a')));
  EXPECT_EQ(0, Length(std::wstring(513, L'a')));
  std::wstring pairs;
  for (int i = 0; i < 511; ++i) pairs += {wchar_t(0xD83D), wchar_t(0xDE00)};
  EXPECT_NE(0, Length(pairs + L'a'));
  EXPECT_EQ(0, Length(pairs + L"ab"));
}

TEST(PunyCode, Surrogates) {
  // A UTF-16 pair encodes as the code point it stands for.
  EXPECT_EQ(Encode(L"x\U0001F600y"), Encode(std::wstring{L'x', wchar_t(0xD83D), wchar_t(0xDE00), L'y'}));
  EXPECT_EQ("e28h", Encode(L"\U0001F600"));
  const std::wstring bad[] = {{L'a', wchar_t(0xD800)}, {wchar_t(0xDBFF), L'a'}, {wchar_t(0xDC00)},
                              {wchar_t(0xDE00), wchar_t(0xD83D)}, {wchar_t(0xD83D), wchar_t(0xD83D), wchar_t(0xDE00)}};
  for (const std::wstring& label : bad) EXPECT_EQ(0, Length(label)) << "lone or reversed: " << unsigned(label[0]);
  EXPECT_NE(0, Length(L"\uD7FF\uE000")) << "the edges of the ranges are ordinary code points";
}

TEST(PunyCode, OverflowGuardBoundary) {
  // With no basic code points the first pass allows m - 128 up to 0x7FFFFDFF,
  // 512 below the largest signed 32-bit value.
  EXPECT_EQ("9p16146o", Encode(std::wstring(1, wchar_t(0x7FFFFDFF + 128))));
  EXPECT_EQ(0, Length(std::wstring(1, wchar_t(0x7FFFFDFF + 129))));
  // One basic code point halves the room to 0x3FFFFEFF; the "a" adds 1 to delta.
  EXPECT_EQ("a-9p16146o", Encode(std::wstring{L'a', wchar_t(0x3FFFFEFF + 128)}));
  EXPECT_EQ(0, Length(std::wstring{L'a', wchar_t(0x3FFFFEFF + 129)}));
  // Delta carried into a pass narrows the room: after U+0080 the 200 letters
  // behind it leave delta 201 at h = 201, so m - 129 may be at most
  // (0x7FFFFDFF - 201) / 202 = 10631103.
  const std::wstring carried = L"\u0080" + std::wstring(200, L'a');
  EXPECT_NE(0, Length(carried + wchar_t(129 + 10631103)));
  EXPECT_EQ(0, Length(carried + wchar_t(129 + 10631104)));
  EXPECT_EQ(0, Length(std::wstring(1, wchar_t(-1)))) << "a negative unit is a huge code point";
  EXPECT_NE(0, Length(std::wstring(511, L'a') + L"\U0010FFFF")) << "within Unicode it never trips";
}

TEST(IdnToAscii, LabelRules) {
  const struct { const char* host; const char* ascii; } cases[] = {
      {"Example.COM", "Example.COM"},  // ASCII labels pass unchanged, case kept
      {"example.com.", "example.com"},  // a trailing dot is dropped
      {"\xC3\xBC.com", "xn--tda.com"},  // one non-ASCII character: prefix, no "-"
      {"www.B\xC3\xBC" "cher.de", "www.xn--Bcher-kva.de"},  // not case-folded
      {"\xF0\x9F\x98\x80.\xC3\xBC", "xn--e28h.xn--tda"},
      {"\xFF.com", "xn--zn7c.com"},  // malformed UTF-8 reaches the encoder as U+FFFD
      {"a..b", "<fail>"}, {".", "<fail>"}, {".com", "<fail>"}, {"a.b..", "<fail>"},  // empty labels
  };
  for (const auto& c : cases) EXPECT_EQ(c.ascii, Idn(c.host)) << c.host;
  EXPECT_EQ(0u, CUtil::IdnToAscii("a..b", nullptr));
  EXPECT_EQ(0u, CUtil::IdnToAscii(nullptr, nullptr));

  std::string label;
  for (int i = 0; i < 512; ++i) label += "\xC3\xBC";
  EXPECT_NE("<fail>", Idn("x." + label + ".y"));
  EXPECT_EQ("<fail>", Idn("x." + label + "a.y")) << "513 code points";
}

// "a" * a + the first p of a spread of CJK ideographs: (2, 344) encodes to
// exactly 1024 bytes, (0, 346) to 1025, one more than the label buffer holds.
TEST(IdnToAscii, LabelEncodingMustFitIn1024Bytes) {
  const struct { int letters, ideographs; size_t size; } cases[] = {{2, 344, 1024}, {0, 346, 1025}};
  for (const auto& c : cases) {
    std::wstring wide(c.letters, L'a');
    std::string utf8(c.letters, 'a');
    for (unsigned i = 0; i < static_cast<unsigned>(c.ideographs); ++i) {
      const unsigned cp = 0x4E00 + i * 7919u % 20000u;
      wide.push_back(static_cast<wchar_t>(cp));
      utf8 += {char(0xE0 | (cp >> 12)), char(0x80 | ((cp >> 6) & 0x3F)), char(0x80 | (cp & 0x3F))};
    }
    const std::string encoded = Encode(wide);
    ASSERT_EQ(c.size, encoded.size());
    EXPECT_EQ(c.size <= 1024 ? "xn--" + encoded : "<fail>", Idn(utf8)) << c.size;
  }
}

}  // namespace
