// INI documents: what a text loads as, written back in the document's own
// format, and the edits. (That a saved document loads back the same is the
// INI fuzz target's property.)
#include "ini/ini_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/common/temp_dir.h"

namespace {

std::string Saved(const CIniFileA& ini) { return (std::ostringstream() << ini).str(); }

std::string Resaved(const std::string& text) {
  CIniFileA ini;
  std::istringstream(text) >> ini;
  return Saved(ini);
}

TEST(IniText, LoadRulesShownByTheSavedText) {
  const struct { const char* text; const char* saved; } rows[] = {
      // Values stay untrimmed; keys before any section are dropped.
      {"a=1\n[S]\nk = v \n", "[S]\nk= v \n"},
      // Names are case-blind, keep their first spelling; a key given twice keeps its last value.
      {"[s]\nX=1\n[S]\nx=2\n", "[s]\nX=2\n"},
      // CR LF ends; only "\r\n" is trimmed from the end, so "[Port]  " names "Port]".
      {"[Sec]\r\nk=v\r\n  [Port]  \np=1\n\t[ Padded ]\nq=2\n", "[Padded]\nq=2\n[Port]]\np=1\n[Sec]\nk=v\n"},
      // "[]" is the empty name; an unclosed header is ignored.
      {"[]\ne=3\n[open\nz=9\n", "[]\ne=3\nz=9\n"},
      // "=x" and text without "=" are ignored; a comment with "=" is a key; split at the first "=".
      {"[S]\n=x\njust text\n#k=v\n; note\nk2==v\nk3=\n  \t\n", "[S]\n#k=v\nk2==v\nk3=\n"},
      // Sections and keys in case-blind order, LF only, an empty section alone.
      {"[b]\nz=1\n[A]\ny=2\nX=3\n[empty]\n", "[A]\nX=3\ny=2\n[b]\nz=1\n[empty]\n"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.saved, Resaved(row.text)) << row.text;
}

TEST(IniText, MergingAndEditing) {
  CIniFileA ini;
  std::istringstream("[A]\nk=1\nonly=a\n") >> ini;
  std::istringstream("[a]\nK=3\nnew=n\n[B]\nb=1\n") >> CIniFileA::CIniMergeA(ini);
  EXPECT_EQ("[A]\nk=3\nnew=n\nonly=a\n[B]\nb=1\n", Saved(ini));
  EXPECT_EQ("dflt", ini.GetKeyValue("A", "missing", "dflt"));
  EXPECT_FALSE(ini.RenameSection("A", "b")) << "a name that exists, case-blind";
  EXPECT_TRUE(ini.RenameSection("A", " C\t"));
  EXPECT_FALSE(ini.RenameKey("C", "k", "ONLY"));
  EXPECT_TRUE(ini.RenameKey("C", "k", "k2"));
  ini.RemoveSection("b");
  ini.GetSection("C")->RemoveKey("NEW");
  EXPECT_EQ("[C]\nk2=3\nonly=a\n", Saved(ini));
  std::istringstream("[D]\nd=1\n") >> ini;
  EXPECT_EQ("[D]\nd=1\n", Saved(ini)) << "a plain load starts afresh";
}

// The wide family matches names with wcsncmp over the shorter length: case
// matters and a prefix counts as equal.
TEST(IniWide, PrefixMatching) {
  CIniFileW wide;
  std::wistringstream(L"[Server]\nName=x\n") >> wide;
  EXPECT_EQ(nullptr, wide.GetSection(L"server"));
  EXPECT_EQ(L"x", wide.GetKeyValue(L"Serv", L"Na"));
  EXPECT_EQ(L"Server", wide.AddSection(L"Se")->GetSectionName());
  // A file holds UTF-8; loading a missing one is refused.
  wide.GetSection(L"Server")->AddKey(L"u")->SetValue(L"\u00FC");
  qs_test::TempDir dir;
  ASSERT_TRUE(wide.Save(dir / "w.ini"));
  EXPECT_EQ("[Server]\nName=x\nu=\xC3\xBC\n", qs_test::ReadWholeFile(dir / "w.ini"));
  CIniFileW back;
  std::wistringstream(L"[A]\na=1\n") >> CIniFileW::CIniMergeW(back);
  EXPECT_EQ("1 0", std::to_string(back.Load(dir / "w.ini", true)) + " " + std::to_string(back.Load(dir / "no.ini")));
  EXPECT_EQ(L"[A]\na=1\n[Server]\nName=x\nu=\u00FC\n", (std::wostringstream() << back).str());
}

}  // namespace
