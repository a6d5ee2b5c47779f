#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/global_memory.h"
#include "util/util.h"

namespace {

// UTF-8 <-> UTF-32 must be faithful beyond the Basic Multilingual Plane.
TEST(CUtilWide, RoundTripIncludesAstralCharacters) {
  const char* text = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z";  // a é 中 😀 z
  std::wstring wide;
  CUtil::UTF8toUnicode(text, wide);
  EXPECT_EQ((std::wstring{L'a', 0xE9, 0x4E2D, 0x1F600, L'z'}), wide);
  std::string back;
  CUtil::UnicodeToUTF8(wide.c_str(), back);
  EXPECT_EQ(text, back);

  CUtil::UTF8toUnicode(text, 3, wide);
  EXPECT_EQ((std::wstring{L'a', 0xE9}), wide) << "the length bounds the bytes read";
}

TEST(CUtilWide, MalformedInputBecomesReplacementCharacters) {
  std::wstring wide;
  CUtil::UTF8toUnicode("a\xFF" "b\xE4\xB8", wide);
  EXPECT_EQ((std::wstring{L'a', 0xFFFD, L'b', 0xFFFD, 0xFFFD}), wide);
  CUtil::UTF8toUnicode("\xED\xA0\x80", wide);  // an encoded surrogate
  EXPECT_EQ(std::wstring::npos, wide.find(static_cast<wchar_t>(0xD800)));

  std::string utf8;
  const wchar_t invalid[] = {L'x', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), 0};
  CUtil::UnicodeToUTF8(invalid, utf8);
  EXPECT_EQ("x\xEF\xBF\xBD\xEF\xBF\xBD", utf8);
  CUtil::UnicodeToUTF8(nullptr, utf8);
  EXPECT_EQ("", utf8);
  CUtil::UTF8toUnicode(nullptr, wide);
  EXPECT_TRUE(wide.empty());
}

TEST(CUtilWide, GlobalMemoryCopies) {
  char* copy = CUtil::UTF8ToAscii("abc");
  ASSERT_NE(nullptr, copy);
  EXPECT_STREQ("abc", copy);
  EXPECT_EQ(4u, GlobalSize(copy));
  GlobalFree(copy);
  EXPECT_EQ(nullptr, CUtil::UTF8ToAscii(nullptr));
  const char* same = "x";
  EXPECT_EQ(same, CUtil::AsciiToUTF8(same));

  wchar_t* wide = CUtil::ConvertUTF8toUnicode("\xF0\x9F\x98\x80!", 5);
  ASSERT_NE(nullptr, wide);
  EXPECT_EQ(5u * 3 * sizeof(wchar_t), GlobalSize(wide));
  EXPECT_EQ(static_cast<wchar_t>(0x1F600), wide[0]);
  EXPECT_EQ(L'!', wide[1]);
  EXPECT_EQ(L'\0', wide[2]);
  GlobalFree(wide);
  EXPECT_EQ(nullptr, CUtil::ConvertUTF8toUnicode("x", 0));
}

}  // namespace
