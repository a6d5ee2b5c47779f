#include "ini/ini_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/common/temp_dir.h"

namespace {

std::string Saved(const CIniFileA& ini) {
  std::ostringstream out;
  out << ini;
  return out.str();
}

CIniFileA* Loaded(const std::string& text, CIniFileA* ini) {
  std::istringstream in(text);
  in >> *ini;
  return ini;
}

TEST(IniLoad, ValuesStayUntrimmedAndKeysBeforeAnySectionAreDropped) {
  CIniFileA ini;
  Loaded("a=1\n[S]\nk = v \n", &ini);
  ASSERT_EQ(1u, ini.GetSections().size());
  CIniFileA::CIniSectionA* section = ini.GetSection("S");
  ASSERT_NE(nullptr, section);
  ASSERT_EQ(1u, section->GetKeys().size());
  EXPECT_EQ("k", (*section->GetKeys().begin())->GetKeyName());
  EXPECT_EQ(" v ", ini.GetKeyValue("S", "k"));
}

TEST(IniLoad, SectionsAndKeysAreCaseBlindAndKeepTheFirstSpelling) {
  CIniFileA ini;
  Loaded("[s]\nX=1\n[S]\nx=2\n", &ini);
  ASSERT_EQ(1u, ini.GetSections().size());
  EXPECT_EQ("s", (*ini.GetSections().begin())->GetSectionName());
  CIniFileA::CIniSectionA* section = ini.GetSection("S");
  ASSERT_EQ(1u, section->GetKeys().size());
  EXPECT_EQ("X", (*section->GetKeys().begin())->GetKeyName());
  EXPECT_EQ("2", ini.GetKeyValue("S", "x"));
}

TEST(IniLoad, HeaderTrimmingRules) {
  CIniFileA ini;
  Loaded("[Sec]\r\nk=v\r\n  [Port]  \np=1\n\t[ Padded ]\nq=2\n[]\ne=3\n[open\nz=9\n", &ini);
  EXPECT_EQ("v", ini.GetKeyValue("Sec", "k")) << "CR LF line ends";
  EXPECT_NE(nullptr, ini.GetSection("Port]")) << "blanks after the header stay in the line";
  EXPECT_EQ(nullptr, ini.GetSection("Port"));
  EXPECT_EQ("1", ini.GetKeyValue("Port]", "p"));
  EXPECT_EQ("2", ini.GetKeyValue("Padded", "q"));
  EXPECT_EQ("3", ini.GetKeyValue("", "e")) << "\"[]\" is the section with the empty name";
  EXPECT_EQ("9", ini.GetKeyValue("", "z")) << "an unclosed header is ignored; keys stay in the current section";
}

TEST(IniLoad, IgnoredLinesAndCommentKeys) {
  CIniFileA ini;
  Loaded("[S]\n=x\njust text\n#k=v\n; note\nk2==v\nk3=\n  \t\n\r\n", &ini);
  CIniFileA::CIniSectionA* section = ini.GetSection("S");
  ASSERT_NE(nullptr, section);
  EXPECT_EQ(3u, section->GetKeys().size());
  EXPECT_EQ("v", ini.GetKeyValue("S", "#k")) << "a comment with '=' is a key";
  EXPECT_EQ("=v", ini.GetKeyValue("S", "k2")) << "split at the first '='";
  EXPECT_EQ("", ini.GetKeyValue("S", "k3"));
  EXPECT_EQ("dflt", ini.GetKeyValue("S", "missing", "dflt"));
  EXPECT_EQ("dflt", ini.GetKeyValue("Missing", "k3", "dflt"));
}

TEST(IniLoad, DuplicateKeysKeepTheLastValueAndMergeKeepsOthers) {
  CIniFileA ini;
  Loaded("[A]\nk=1\nk=2\nonly=a\n", &ini);
  EXPECT_EQ("2", ini.GetKeyValue("A", "k"));
  std::istringstream more("[a]\nK=3\nnew=n\n[B]\nb=1\n");
  more >> CIniFileA::CIniMergeA(ini);
  EXPECT_EQ("3", ini.GetKeyValue("A", "k"));
  EXPECT_EQ("a", ini.GetKeyValue("A", "only"));
  EXPECT_EQ("n", ini.GetKeyValue("A", "new"));
  EXPECT_EQ("1", ini.GetKeyValue("B", "b"));
  std::istringstream replace("[C]\nc=1\n");
  replace >> ini;
  EXPECT_EQ(1u, ini.GetSections().size()) << "a plain load starts afresh";
}

TEST(IniSave, SortedHeadersAndKeysWithLfOnly) {
  CIniFileA ini;
  ini.SetKeyValue("b", "z", "1");
  ini.SetKeyValue("A", "y", " 2 ");
  ini.SetKeyValue("A", "X", "3");
  ini.AddSection("empty");
  EXPECT_EQ("[A]\nX=3\ny= 2 \n[b]\nz=1\n[empty]\n", Saved(ini));
  EXPECT_STREQ("\n", CIniFileA::LF);
}

TEST(IniEdit, RenamingRefusesCollisions) {
  CIniFileA ini;
  ini.SetKeyValue("A", "k", "1");
  ini.SetKeyValue("B", "k", "2");
  EXPECT_FALSE(ini.RenameSection("A", "b"));
  EXPECT_FALSE(ini.RenameSection("missing", "Z"));
  EXPECT_TRUE(ini.RenameSection("A", " C\t"));
  EXPECT_EQ("1", ini.GetKeyValue("C", "k"));
  EXPECT_EQ(nullptr, ini.GetSection("A"));
  ini.SetKeyValue("C", "other", "o");
  EXPECT_FALSE(ini.RenameKey("C", "k", "OTHER"));
  EXPECT_TRUE(ini.RenameKey("C", "k", "k2"));
  EXPECT_FALSE(ini.RenameKey("C", "k", "k3"));
  EXPECT_FALSE(ini.RenameKey("missing", "k", "k3"));
  EXPECT_EQ("[B]\nk=2\n[C]\nk2=1\nother=o\n", Saved(ini));
  ini.GetSection("C")->RemoveKey("K2");
  ini.RemoveSection("b");
  EXPECT_EQ("[C]\nother=o\n", Saved(ini));
}

TEST(IniFile, FileFormsReportOnlyOpening) {
  qs_test::TempDir dir;
  CIniFileA ini;
  EXPECT_FALSE(ini.Load(dir / "missing.ini"));
  ini.SetKeyValue("S", "k", "v");
  EXPECT_TRUE(ini.Save(dir / "out.ini"));
  EXPECT_EQ("[S]\nk=v\n", qs_test::ReadWholeFile(dir / "out.ini"));
  EXPECT_FALSE(ini.Save(dir / "no/such/folder.ini"));
  CIniFileA again;
  EXPECT_TRUE(again.Load(dir / "out.ini"));
  EXPECT_EQ("v", again.GetKeyValue("s", "K"));
}

TEST(IniWide, PrefixMatchingAndCaseSensitivity) {
  CIniFileW wide;
  std::wistringstream in(L"[Server]\nName=x\n[port]\np=1\n");
  in >> wide;
  EXPECT_NE(nullptr, wide.GetSection(L"Serv")) << "a prefix counts as equal";
  EXPECT_EQ(nullptr, wide.GetSection(L"server")) << "case matters";
  EXPECT_EQ(nullptr, wide.GetSection(L"Port"));
  EXPECT_EQ(L"x", wide.GetKeyValue(L"Serv", L"Na"));
  CIniFileW::CIniSectionW* added = wide.AddSection(L"Se");
  EXPECT_EQ(L"Server", added->GetSectionName()) << "adding a prefix finds the existing section";
  std::wostringstream out;
  out << wide;
  EXPECT_EQ(L"[Server]\nName=x\n[port]\np=1\n", out.str());

  CIniFileA narrow;
  std::istringstream nin("[Server]\nName=x\n");
  nin >> narrow;
  EXPECT_EQ(nullptr, narrow.GetSection("Serv"));
}

TEST(IniWide, FilesAreUtf8) {
  qs_test::TempDir dir;
  qs_test::WriteFile(dir / "w.ini", "[S\xC3\xA9]\nk=\xF0\x9F\x98\x80\n");
  CIniFileW wide;
  ASSERT_TRUE(wide.Load(dir / "w.ini"));
  EXPECT_EQ(std::wstring(1, static_cast<wchar_t>(0x1F600)), wide.GetKeyValue(L"S\u00e9", L"k"));
  ASSERT_TRUE(wide.Save(dir / "w2.ini"));
  EXPECT_EQ("[S\xC3\xA9]\nk=\xF0\x9F\x98\x80\n", qs_test::ReadWholeFile(dir / "w2.ini"));
  EXPECT_EQ("a\xC3\xA9", wstr_to_str(L"a\u00e9"));
  EXPECT_EQ(L"a\u00e9", str_to_wstr("a\xC3\xA9"));
}

TEST(IniTrim, Helpers) {
  std::string s = " \tx y\t ";
  std::string r = s, l = s, both = s;
  RTrim(r, " \t");
  LTrim(l, " \t");
  Trim(both, " \t");
  EXPECT_EQ(" \tx y", r);
  EXPECT_EQ("x y\t ", l);
  EXPECT_EQ("x y", both);
  std::string blanks = " \t";
  RTrim(blanks, " \t");
  EXPECT_EQ("", blanks);
}

}  // namespace
