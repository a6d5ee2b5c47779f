#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/global_memory.h"
#include "util/util.h"
#include "util/win_string.h"

namespace {

std::vector<std::string> Split(const char* text, char separator) {
  char** fields = nullptr;
  unsigned int count = 99;
  EXPECT_TRUE(CUtil::SplitString(text, separator, &fields, &count));
  EXPECT_EQ(count, CUtil::GetStringCount(text, separator));
  std::vector<std::string> out;
  for (unsigned int i = 0; i < count; ++i) {
    EXPECT_EQ(strlen(fields[i]) + 1, GlobalSize(fields[i])) << "each field is its own block of length + 1";
    out.push_back(fields[i]);
  }
  CUtil::FreeSplitStringRet(fields, count);
  return out;
}

TEST(WinString, LstrcpynKeepsAtMostCountMinusOne) {
  char out[8];
  memset(out, 'z', sizeof(out));
  EXPECT_EQ(out, lstrcpyn(out, "abcdef", 4));
  EXPECT_EQ(0, memcmp(out, "abc\0z", 5)) << "nothing is written past count";
  lstrcpyn(out, "ab", 6);
  EXPECT_EQ(0, memcmp(out, "ab\0\0\0", 6)) << "strncpy pads with zeros";
  memset(out, 'z', sizeof(out));
  lstrcpyn(out, "abc", 0);
  EXPECT_EQ('z', out[0]) << "count 0 writes nothing";
  unsigned char bytes[4];
  lstrcpyn(bytes, "xyz!", 4);
  EXPECT_EQ(3u, strlen(bytes));
}

TEST(WinString, TrimRightAndReverseFindChar) {
  const struct { const char* text; int index; const char* left; } cases[] = {
      {"abc  ", 2, "abc"}, {"abc", 2, "abc"}, {"   ", -1, ""}, {"", -1, ""}, {"a b ", 2, "a b"}};
  for (const auto& c : cases) {
    std::string text = c.text;
    EXPECT_EQ(c.index, TrimRight(&text[0], ' ')) << '"' << c.text << '"';
    EXPECT_STREQ(c.left, text.c_str());
  }
  char slashes[] = "a//";
  EXPECT_EQ(0, CUtil::TrimRight(slashes, '/'));
  EXPECT_EQ(3, ReverseFindChar("a/b/c", '/'));
  EXPECT_EQ(-1, ReverseFindChar("abc", '/'));
  EXPECT_EQ(0, CUtil::ReverseFindChar("/", '/'));
}

TEST(CUtilText, SplitStringAndGetStringCount) {
  EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), Split("a,,b,", ','));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), Split("a,b", ','));
  EXPECT_EQ((std::vector<std::string>{"", "x"}), Split(",x", ','));
  EXPECT_EQ((std::vector<std::string>{""}), Split(",", ',')) << "one separator at the end: one empty field";
  EXPECT_TRUE(Split("", ',').empty());
  EXPECT_EQ(2u, CUtil::GetStringCount("a,b,", ','));

  char** fields = reinterpret_cast<char**>(1);
  unsigned int count = 5;
  EXPECT_FALSE(CUtil::SplitString(nullptr, ',', &fields, &count));
  EXPECT_EQ(nullptr, fields);
  EXPECT_EQ(0u, count);
}

TEST(CUtilText, GetStringPosRestartsAtTheMismatchingCharacter) {
  const struct { const char* text; const char* pattern; long from; unsigned int to; signed char cs; int pos; } cases[] = {
      {"aaab", "aab", 0, 4, 1, -1},    // the overlapping occurrence is missed
      {"aab", "ab", 0, 3, 1, 1},       // a mismatch that matches the first character restarts there
      {"xxabc", "abc", 0, 5, 1, 2},
      {"ABC", "abc", 0, 3, 1, -1},     // case-sensitive
      {"ABC", "abc", 0, 3, 0, 0},      // folded
      {"[]", "{}", 0, 2, 0, -1},       // only A-Z fold
      {"abc", "", 0, 3, 1, -1},        // empty pattern
      {"abcabc", "abc", 1, 6, 1, 3},
      {"abcabc", "abc", 1, 5, 1, -1},  // the match must end before `to`
      {"abcabc", "a", 4, 4, 1, -1},    // from >= to
      {"abcabc", "a", 1, 1000, 1, 3},  // a range past the end stops at the terminator
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.pos, CUtil::GetStringPos(c.text, c.pattern, c.from, c.to, c.cs)) << c.text << " / " << c.pattern;
  }
  EXPECT_EQ(-1, CUtil::GetStringPos("aaab", "aab", 1)) << "the whole-text form";
}

TEST(CUtilText, CountLine) {
  const struct { const char* text; int lines; } cases[] = {
      {"abc", 1},           // one failed search
      {"abcd", 2},          // failed search: next start 3 equals length - 1
      {"H\r\n\r\n", 1},     // next start is the end
      {"H\r\n\r\nX", 2},    // next start 5 is past length - 1
      {"a\r\n\r\nbc", 2},   // the last start equals length - 1
      {"a\r\n\r\nb\r\n\r\ncd", 3},
  };
  for (const auto& c : cases) EXPECT_EQ(c.lines, CUtil::CountLine(c.text)) << c.text;
}

TEST(CUtilText, InPlaceEdits) {
  char text[] = "a-b-c";
  CUtil::ReplaceChar(text, '-', '+');
  EXPECT_STREQ("a+b+c", text);
  EXPECT_EQ(5, CUtil::RemoveChar(text, '+')) << "the length before removal";
  EXPECT_STREQ("abc", text);
  char blanks[] = " \t a \t b\t ";
  CUtil::Trim(blanks);
  EXPECT_STREQ("a \t b", blanks);
  char only[] = " \t ";
  CUtil::Trim(only);
  EXPECT_STREQ("", only);
}

TEST(CUtilText, FindAndSubString) {
  EXPECT_EQ(3, CUtil::Find("abcabc", 'a', 1));
  EXPECT_EQ(-1, CUtil::Find("abc", 'a', 3)) << "start not below the length";
  const struct { const char* text; int start, count; const char* out; } cases[] = {
      {"abcdef", 2, 3, "cde"}, {"abcdef", 4, 10, "ef"}, {"abc", 3, 2, ""}, {"abc", 9, 2, ""}};
  for (const auto& c : cases) {
    char out[16] = "junk";
    CUtil::SubString(c.text, c.start, c.count, out);
    EXPECT_STREQ(c.out, out) << c.text << " " << c.start;
  }
}

TEST(CUtilText, FindAndReplaceResumesAfterEachReplacement) {
  std::string text = "aaa", same = "abc";
  CUtil::find_and_replace(text, "a", "aa");
  EXPECT_EQ("aaaaaa", text);
  CUtil::find_and_replace(same, "b", "b");
  EXPECT_EQ("abc", same);
  std::wstring wide = L"x\u00e9x";
  CUtil::find_and_replace(wide, L"x", L"\U0001F600");
  EXPECT_EQ(L"\U0001F600\u00e9\U0001F600", wide);
}

TEST(CUtilText, UrlDecodeReadsDigitsUnvalidated) {
  char out[64];
  CUtil::UrlDecode("a+b%41%6a%2F", out);
  EXPECT_STREQ("a bAj/", out);
  CUtil::UrlDecode("%zz", out);
  EXPECT_EQ(static_cast<char>(16 * ('Z' - 55) + ('Z' - 55)), out[0]) << "no validation of the digits";
  CUtil::UrlDecode("50%", out);
  EXPECT_STREQ("50%", out) << "a '%' without two following characters is kept";
}

TEST(CUtilText, DigitsAndPaths) {
  EXPECT_TRUE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("01a3"), 2));
  EXPECT_FALSE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("01a3"), 4));
  EXPECT_TRUE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("x"), 0));
  EXPECT_FALSE(CUtil::AllIsNumber(nullptr, 3));
  EXPECT_EQ(3, CUtil::FindFirstNumPos("abc123", 6));
  EXPECT_EQ(-1, CUtil::FindFirstNumPos("abc123", 3));
  char path[] = "/opt/q/file.txt";
  CUtil::TrimWindowsFileName(path);
  EXPECT_STREQ("/opt/q/", path);
}

}  // namespace
