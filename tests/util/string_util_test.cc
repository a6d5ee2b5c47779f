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
  EXPECT_STREQ("abc", out);
  EXPECT_EQ('z', out[4]) << "nothing is written past count";
  lstrcpyn(out, "ab", 6);
  EXPECT_EQ(0, memcmp(out, "ab\0\0\0", 6)) << "strncpy pads with zeros";
  memset(out, 'z', sizeof(out));
  lstrcpyn(out, "abc", 0);
  EXPECT_EQ('z', out[0]) << "count 0 writes nothing";
  unsigned char bytes[4];
  lstrcpyn(bytes, "xyz!", 4);
  EXPECT_STREQ("xyz", reinterpret_cast<char*>(bytes));
  EXPECT_EQ(3u, strlen(bytes));
  unsigned char copy[4];
  EXPECT_EQ(copy, strcpy(copy, "abc"));
}

TEST(WinString, TrimRightResults) {
  char a[] = "abc  ";
  EXPECT_EQ(2, TrimRight(a, ' '));
  EXPECT_STREQ("abc", a);
  char b[] = "abc";
  EXPECT_EQ(2, TrimRight(b, ' ')) << "nothing removed: the index of the last character";
  char c[] = "   ";
  EXPECT_EQ(-1, TrimRight(c, ' '));
  EXPECT_STREQ("", c);
  char d[] = "";
  EXPECT_EQ(-1, TrimRight(d, ' '));
  char e[] = "a//";
  EXPECT_EQ(0, CUtil::TrimRight(e, '/'));
  char f[] = "x y ";
  EXPECT_EQ(2, CUtil::TrimRight(f));
  EXPECT_EQ(-1, TrimRight(nullptr, ' '));
}

TEST(WinString, ReverseFindChar) {
  EXPECT_EQ(3, ReverseFindChar("a/b/c", '/'));
  EXPECT_EQ(-1, ReverseFindChar("abc", '/'));
  EXPECT_EQ(-1, ReverseFindChar("", '/'));
  EXPECT_EQ(0, CUtil::ReverseFindChar("/", '/'));
  EXPECT_EQ(-1, CUtil::ReverseFindChar(nullptr, '/'));
}

TEST(CUtilText, SplitStringFields) {
  EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), Split("a,,b,", ','));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), Split("a,b", ','));
  EXPECT_EQ((std::vector<std::string>{"", "x"}), Split(",x", ','));
  EXPECT_EQ((std::vector<std::string>{"abc"}), Split("abc", ','));
  EXPECT_EQ((std::vector<std::string>{""}), Split(",", ',')) << "one separator at the end: one empty field";
  EXPECT_TRUE(Split("", ',').empty());

  char** fields = reinterpret_cast<char**>(1);
  unsigned int count = 5;
  EXPECT_FALSE(CUtil::SplitString(nullptr, ',', &fields, &count));
  EXPECT_EQ(nullptr, fields);
  EXPECT_EQ(0u, count);
  CUtil::FreeSplitStringRet(nullptr, 3);
}

TEST(CUtilText, GetStringCount) {
  EXPECT_EQ(2u, CUtil::GetStringCount("a,b", ','));
  EXPECT_EQ(2u, CUtil::GetStringCount("a,b,", ','));
  EXPECT_EQ(3u, CUtil::GetStringCount("a,,b", ','));
  EXPECT_EQ(0u, CUtil::GetStringCount("", ','));
  EXPECT_EQ(1u, CUtil::GetStringCount("abc", ','));
  EXPECT_EQ(0u, CUtil::GetStringCount(nullptr, ','));
}

TEST(CUtilText, GetStringPosRestartsAtTheMismatchingCharacter) {
  EXPECT_EQ(-1, CUtil::GetStringPos("aaab", "aab", 1)) << "the overlapping occurrence is missed";
  EXPECT_EQ(2, CUtil::GetStringPos("xxabc", "abc", 1));
  EXPECT_EQ(0, CUtil::GetStringPos("abab", "ab", 1));
  EXPECT_EQ(1, CUtil::GetStringPos("aab", "ab", 1)) << "a mismatch that matches the first character restarts there";
  EXPECT_EQ(-1, CUtil::GetStringPos("ABC", "abc", 1));
  EXPECT_EQ(0, CUtil::GetStringPos("ABC", "abc", 0));
  EXPECT_EQ(-1, CUtil::GetStringPos("[]", "{}", 0)) << "only A-Z fold";
  EXPECT_EQ(-1, CUtil::GetStringPos("abc", "", 1));
  EXPECT_EQ(-1, CUtil::GetStringPos(nullptr, "a", 1));
  EXPECT_EQ(-1, CUtil::GetStringPos("abc", nullptr, 1));
}

TEST(CUtilText, GetStringPosRange) {
  const char* text = "abcabc";
  EXPECT_EQ(3, CUtil::GetStringPos(text, "abc", 1, 6, 1));
  EXPECT_EQ(-1, CUtil::GetStringPos(text, "abc", 1, 5, 1)) << "the match must end before `to`";
  EXPECT_EQ(-1, CUtil::GetStringPos(text, "a", 4, 4, 1)) << "from >= to";
  EXPECT_EQ(3, CUtil::GetStringPos(text, "a", 1, 1000, 1)) << "a range past the end stops at the terminator";
  EXPECT_EQ(0, CUtil::GetStringPos(text, "a", -5, 2, 1));
}

TEST(CUtilText, CountLine) {
  EXPECT_EQ(1, CUtil::CountLine("abc")) << "one failed search";
  EXPECT_EQ(2, CUtil::CountLine("abcd")) << "failed search: next start 3 equals length - 1";
  EXPECT_EQ(1, CUtil::CountLine("H\r\n\r\n")) << "next start is the end";
  EXPECT_EQ(2, CUtil::CountLine("H\r\n\r\nX")) << "next start 5 is past length - 1";
  EXPECT_EQ(3, CUtil::CountLine("a\r\n\r\nb\r\n\r\ncd"));
  EXPECT_EQ(2, CUtil::CountLine("a\r\n\r\nbc")) << "the last start equals length - 1";
  EXPECT_EQ(1, CUtil::CountLine(""));
}

TEST(CUtilText, InPlaceEdits) {
  char text[] = "a-b-c";
  CUtil::ReplaceChar(text, '-', '+');
  EXPECT_STREQ("a+b+c", text);
  EXPECT_EQ(5, CUtil::RemoveChar(text, '+')) << "the length before removal";
  EXPECT_STREQ("abc", text);

  char version[] = "14, 3, 3, 1212";
  CUtil::RemoveChar(version, ',');
  CUtil::RemoveChar(version, ' ');
  EXPECT_STREQ("14331212", version);

  char blanks[] = " \t a \t b\t ";
  CUtil::Trim(blanks);
  EXPECT_STREQ("a \t b", blanks);
  char only[] = " \t ";
  CUtil::Trim(only);
  EXPECT_STREQ("", only);
  CUtil::Trim(nullptr);
  CUtil::ReplaceChar(nullptr, 'a', 'b');
  EXPECT_EQ(0, CUtil::RemoveChar(nullptr, 'a'));
}

TEST(CUtilText, FindAndSubString) {
  EXPECT_EQ(3, CUtil::Find("abcabc", 'a', 1));
  EXPECT_EQ(-1, CUtil::Find("abc", 'a', 3)) << "start not below the length";
  EXPECT_EQ(-1, CUtil::Find("abc", 'z', 0));
  char out[16];
  CUtil::SubString("abcdef", 2, 3, out);
  EXPECT_STREQ("cde", out);
  CUtil::SubString("abcdef", 4, 10, out);
  EXPECT_STREQ("ef", out);
  strcpy(out, "junk");
  CUtil::SubString("abc", 3, 2, out);
  EXPECT_STREQ("", out);
  strcpy(out, "junk");
  CUtil::SubString("abc", 9, 2, out);
  EXPECT_STREQ("", out);
}

TEST(CUtilText, FindAndReplaceResumesAfterEachReplacement) {
  std::string text = "aaa";
  CUtil::find_and_replace(text, "a", "aa");
  EXPECT_EQ("aaaaaa", text);
  std::string same = "abc";
  CUtil::find_and_replace(same, "b", "b");
  EXPECT_EQ("abc", same);
  std::string path = "/home/~/x/~";
  CUtil::find_and_replace(path, "~", "user");
  EXPECT_EQ("/home/user/x/user", path);
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
  CUtil::UrlDecode("%4", out);
  EXPECT_STREQ("%4", out);
  CUtil::UrlDecode(nullptr, out);
  CUtil::UrlDecode("x", nullptr);
}

TEST(CUtilText, DigitsAndPaths) {
  EXPECT_TRUE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("0123"), 4));
  EXPECT_FALSE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("01a3"), 4));
  EXPECT_TRUE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("01a3"), 2));
  EXPECT_TRUE(CUtil::AllIsNumber(reinterpret_cast<const unsigned char*>("x"), 0));
  EXPECT_FALSE(CUtil::AllIsNumber(nullptr, 3));
  EXPECT_EQ(3, CUtil::FindFirstNumPos("abc123", 6));
  EXPECT_EQ(-1, CUtil::FindFirstNumPos("abc123", 3));
  EXPECT_EQ(-1, CUtil::FindFirstNumPos(nullptr, 3));
  char path[] = "/opt/q/file.txt";
  CUtil::TrimWindowsFileName(path);
  EXPECT_STREQ("/opt/q/", path);
  char windows[] = "C:\\q\\file.txt";
  CUtil::TrimWindowsFileName(windows);
  EXPECT_STREQ("C:\\q\\", windows);
}

}  // namespace
