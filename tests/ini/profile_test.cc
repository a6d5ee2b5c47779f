// The profile-string functions and the document cache behind them: the
// bounded copy, rewrites, and every way a file can change, each seen by the very next read on both ways of knowing a
// file unchanged (its folder watched, or a stat per use).
#include "ini/profile.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "ini/profile_cache.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;
using namespace std::string_literals;

// The value read; with `length`, followed by "|" and the length returned.
std::string Read(const std::string& file, const char* section, const char* key, const char* def = "",
                 unsigned int size = 64, bool length = false) {
  std::string buffer(size, '#');
  const unsigned int n = GetPrivateProfileStringA(section, key, def, &buffer[0], size, file.c_str());
  return std::string(buffer.c_str()) + (length ? "|" + std::to_string(n) : "");
}

TEST(ProfileStrings, BoundedCopyLengthsDefaultsAndRewrites) {
  TempDir dir;
  const std::string file = dir / "a.ini";
  WriteFile(file, "#comment\n[A]\nB=xyz\nk=\n");
  EXPECT_EQ("xyz|3", Read(file, "a", "b", "", 10, true));
  char buffer[3] = {'#', '#', '#'};
  EXPECT_EQ(3u, GetPrivateProfileStringA("a", "b", "", buffer, 3, file.c_str())) << "the whole value's length";
  EXPECT_EQ(std::string("x\0#", 3), std::string(buffer, 3)) << "size - 2 characters; the last byte not written";
  EXPECT_EQ("0|1", Read(file, "A", "missing", "0", 64, true));
  EXPECT_EQ("other", Read(file, "A", "missing", "other")) << "a repeated lookup takes the default it is given";
  EXPECT_EQ("|0", Read(file, "A", "k", "0", 64, true));
  EXPECT_EQ("dflt", Read(dir / "none.ini", "S", "k", "dflt")) << "a missing file reads as empty";
  // A write rewrites the whole file in the document's format; stored
  // spellings stay; a folder that does not exist gets nothing.
  EXPECT_TRUE(WritePrivateProfileStringA("N", "k", "v", file.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA(" a ", " b\t", " w ", file.c_str()));
  EXPECT_EQ("[A]\nB= w \nk=\n[N]\nk=v\n", ReadWholeFile(file));
  EXPECT_TRUE(WritePrivateProfileStringA("S", "k", "v", (dir / "missing/w.ini").c_str()));
  EXPECT_FALSE(qs_test::PathExists(dir / "missing"));
}

// ---- The document cache -------------------------------------------------------

class ProfileCacheTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ProfileCache::Instance().SetWatching(Watched()); }
  void TearDown() override { ProfileCache::Instance().SetWatching(true); }
  static bool Watched() { return GetParam(); }
  static std::string Value(const std::string& file) { return Read(file, "S", "k"); }
};
INSTANTIATE_TEST_SUITE_P(Both, ProfileCacheTest, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "Watched" : "Stamped"; });

void InChild(const std::function<void()>& change) {
  const pid_t child = fork();
  if (child == 0) change(), _exit(0);
  waitpid(child, nullptr, 0);
}

// Each scenario reads the file ("before"), changes what the path names, and
// the very next read must see the change.
TEST_P(ProfileCacheTest, EveryChangeIsSeenByTheNextRead) {
  TempDir dir;
  const std::string a = dir / "a", file = dir / "a/c.ini", moved = dir / "moved";
  const std::pair<const char*, std::function<std::string()>> scenarios[] = {
      // Same size, by another process, within the clock tick of the last read.
      {"same-size edit by another process", [&] {
         InChild([&] { std::fstream(file, std::ios::in | std::ios::out) << "[S]\nk=after!\n"; });  // in place
         return "after!"s;
       }},
      // By hand, with the old modification time put back.
      {"edit with the old stamp", [&] {
         struct stat st;
         stat(file.c_str(), &st);
         WriteFile(file, "[S]\nk=after!\n");
         timespec times[2] = {st.st_atim, st.st_mtim};
         utimensat(AT_FDCWD, file.c_str(), times, 0);
         return std::string("after!");
       }},
      {"renamed over", [&] {
         WriteFile(dir / "next.ini", "[S]\nk=next\n");
         return rename((dir / "next.ini").c_str(), file.c_str()), std::string("next");
       }},
      // Vanished, or unreadable, between two lookups: the next one reads as
      // empty, and what it found is not kept once a file is back.
      {"deleted", [&] { unlink(file.c_str()); return std::string(); }},
      {"a folder in its place", [&] { unlink(file.c_str()); mkdir(file.c_str(), 0755); return std::string(); }},
      {"a FIFO in its place", [&] { unlink(file.c_str()); mkfifo(file.c_str(), 0644); return std::string(); }},
      {"a dangling link in its place", [&] { unlink(file.c_str()); symlink("nowhere", file.c_str()); return ""s; }},
      {"moved away", [&] { rename(file.c_str(), (dir / "elsewhere.ini").c_str()); return std::string(); }},
      // The child's own reads start afresh and see its change.
      {"changed by a child forked after the read", [&] {
         InChild([&] {
           WriteFile(file, Value(file) == "before" && (WriteFile(file, "[S]\nk=child\n"), Value(file) == "child")
                               ? "[S]\nk=child\n" : "[S]\nk=the child missed its change\n");
         });
         return std::string("child");
       }},
      {"written by this process", [&] { WritePrivateProfileStringA("S", "k", "own", file.c_str()); return "own"s; }},
      {"folder removed and made again", [&] {
         unlink(file.c_str()), rmdir(a.c_str()), mkdir(a.c_str(), 0755);
         WriteFile(file, "[S]\nk=again\n");
         return "again"s;
       }},
      {"folder moved away, another in its place",
       [&] { rename(a.c_str(), moved.c_str()); mkdir(a.c_str(), 0755); return ""s; }},
  };
  for (const auto& scenario : scenarios) {
    mkdir(a.c_str(), 0755);
    WriteFile(file, "[S]\nk=before\n");
    EXPECT_EQ("before", Value(file)) << scenario.first;
    const std::string expected = scenario.second();
    const unsigned long long hits = ProfileCache::Instance().GetStats().hits;
    EXPECT_EQ(expected, Value(file)) << scenario.first;
    EXPECT_EQ(expected, Value(file)) << scenario.first;
    // Nothing at the path is kept where its folder is watched (what appears
    // there leaves a notice); something there that cannot be read never is.
    struct stat st;
    const bool somethingThere = lstat(file.c_str(), &st) == 0;
    EXPECT_TRUE(!expected.empty() || (!somethingThere && Watched()) == (ProfileCache::Instance().GetStats().hits > hits))
        << "kept or not: " << scenario.first;
    if (somethingThere && !S_ISREG(st.st_mode)) std::filesystem::remove(file);
    WriteFile(file, "[S]\nk=later\n");
    EXPECT_EQ("later", Value(file)) << scenario.first;
    std::system(("rm -rf " + a + " " + moved).c_str());
  }
  // A folder reached through a symbolic link that is re-pointed.
  for (const char* name : {"one", "two"}) {
    mkdir((dir / name).c_str(), 0755);
    WriteFile(dir / name + "/c.ini", std::string("[S]\nk=") + name + "\n");
  }
  symlink((dir / "one").c_str(), (dir / "link").c_str());
  EXPECT_EQ("one", Value(dir / "link/c.ini"));
  symlink((dir / "two").c_str(), (dir / "next").c_str());
  rename((dir / "next").c_str(), (dir / "link").c_str());
  EXPECT_EQ("two", Value(dir / "link/c.ini"));
}

}  // namespace
