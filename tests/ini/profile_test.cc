#include "ini/profile.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "ini/ini_file.h"
#include "ini/profile_cache.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

std::string Read(const std::string& file, const char* section, const char* key, const char* def = "",
                 unsigned int size = 64, unsigned int* length = nullptr) {
  std::string buffer(size, '#');
  unsigned int n = GetPrivateProfileStringA(section, key, def, &buffer[0], size, file.c_str());
  if (length != nullptr) *length = n;
  return std::string(buffer.c_str());
}

TEST(GetPrivateProfileString, BoundedCopyDeliversSizeMinusTwo) {
  TempDir dir;
  std::string file = dir / "a.ini";
  WriteFile(file, "[A]\nB=xyz\n");
  unsigned int length = 0;
  EXPECT_EQ("xyz", Read(file, "a", "b", "", 10, &length));
  EXPECT_EQ(3u, length);

  char buffer[3] = {'#', '#', '#'};
  EXPECT_EQ(3u, GetPrivateProfileStringA("a", "b", "", buffer, 3, file.c_str()));
  EXPECT_EQ('x', buffer[0]);
  EXPECT_EQ('\0', buffer[1]);
  EXPECT_EQ('#', buffer[2]) << "the last byte is not written";
}

TEST(GetPrivateProfileString, DefaultsAndEmptyValues) {
  TempDir dir;
  std::string file = dir / "a.ini";
  WriteFile(file, "[S]\nk=\n");
  unsigned int length = 99;
  EXPECT_EQ("0", Read(file, "S", "missing", "0", 64, &length));
  EXPECT_EQ(1u, length);
  EXPECT_EQ("", Read(file, "S", "k", "0", 64, &length));
  EXPECT_EQ(0u, length);
  EXPECT_EQ("other", Read(file, "S", "missing", "other")) << "a repeated lookup takes the default it is given";
  // More keys than a file remembers lookups for, asked in turn, each spelt
  // two ways.
  WriteFile(file, "[S]\na=1\nb=2\nc=3\nd=4\ne=5\nf=6\n");
  for (int round = 0; round < 3; ++round) {
    for (const char* key : {"a", "B", "c", "D", "e", "F", "g"}) {
      const std::string expected = key[0] == 'g' ? "none" : std::to_string(tolower(key[0]) - 'a' + 1);
      EXPECT_EQ(expected, Read(file, round == 1 ? "s" : "S", key, "none")) << key;
    }
  }
  EXPECT_EQ("dflt", Read(dir / "none.ini", "S", "k", "dflt", 64, &length)) << "a missing file reads as empty";
  EXPECT_EQ(4u, length);
  EXPECT_EQ(5u, GetPrivateProfileStringA("S", "k", "hello", nullptr, 0, (dir / "none.ini").c_str()));
  EXPECT_EQ(0u, GetPrivateProfileStringA(nullptr, nullptr, nullptr, nullptr, 0, nullptr));
}

TEST(WritePrivateProfileString, RewritesTheFileInTheDocumentFormat) {
  TempDir dir;
  std::string file = dir / "w.ini";
  WriteFile(file, "#comment\n[z]\ny=1\n");
  EXPECT_TRUE(WritePrivateProfileStringA("N", "k", "v", file.c_str()));
  EXPECT_EQ("[N]\nk=v\n[z]\ny=1\n", ReadWholeFile(file));
  EXPECT_TRUE(WritePrivateProfileStringA("Z", "Y", "2", file.c_str()));
  EXPECT_EQ("[N]\nk=v\n[z]\ny=2\n", ReadWholeFile(file)) << "stored spellings are kept";
  EXPECT_TRUE(WritePrivateProfileStringA(" T ", " key\t", " value ", file.c_str()));
  EXPECT_EQ("[N]\nk=v\n[T]\nkey= value \n[z]\ny=2\n", ReadWholeFile(file));

  std::string nowhere = dir / "missing/folder/w.ini";
  EXPECT_TRUE(WritePrivateProfileStringA("S", "k", "v", nowhere.c_str()));
  EXPECT_FALSE(qs_test::PathExists(dir / "missing"));
}

// ---- Paths that do not name a readable file ----------------------------------------

// What can stand where an INI file is expected. Each must behave like a missing
// file for reads and like an unwritable one for writes: no exception, no wait,
// and the thing at the path left exactly as it was.
enum class Obstacle { Folder, Fifo, DanglingLink, WriteOnlyFile };

void Place(Obstacle kind, const std::string& path) {
  switch (kind) {
    case Obstacle::Folder: mkdir(path.c_str(), 0755); break;
    case Obstacle::Fifo: mkfifo(path.c_str(), 0666); break;
    case Obstacle::DanglingLink: symlink((path + ".target").c_str(), path.c_str()); break;
    case Obstacle::WriteOnlyFile:
      WriteFile(path, "[S]\nk=kept\n");
      chmod(path.c_str(), 0200);
      break;
  }
}

// The misbehaviours seen, or "" when the path behaved as required.
std::string Misbehaviour(const std::string& path) {
  struct stat before;
  lstat(path.c_str(), &before);
  std::string seen;
  char buffer[16];
  memset(buffer, '#', sizeof(buffer));
  if (GetPrivateProfileStringA("S", "k", "dflt", buffer, sizeof(buffer), path.c_str()) != 4 ||
      std::string(buffer) != "dflt") {
    seen += "read did not give the default; ";
  }
  if (!WritePrivateProfileStringA("S", "k", "new", path.c_str())) seen += "write gave false; ";
  CIniFileA narrow;
  CIniFileW wide;
  if (narrow.Load(path) || wide.Load(path)) seen += "loading reported success; ";
  struct stat after;
  if (lstat(path.c_str(), &after) != 0 || after.st_mode != before.st_mode || after.st_size != before.st_size ||
      after.st_mtim.tv_nsec != before.st_mtim.tv_nsec || after.st_mtim.tv_sec != before.st_mtim.tv_sec) {
    seen += "the path was changed; ";
  }
  if (qs_test::PathExists(path + ".target")) seen += "the link's target was created; ";
  return seen;
}

TEST(ProfileOnUnreadablePaths, ReadAsMissingAndAreNeverWritten) {
  for (Obstacle kind : {Obstacle::Folder, Obstacle::Fifo, Obstacle::DanglingLink, Obstacle::WriteOnlyFile}) {
    TempDir dir;
    const std::string path = dir / "QSConfiguration.ini";
    Place(kind, path);
    if (kind != Obstacle::WriteOnlyFile || geteuid() != 0) {
      EXPECT_EQ("", Misbehaviour(path)) << "obstacle " << static_cast<int>(kind);
      continue;
    }
    // Permissions do not stop root: the write-only file is tried by an
    // unprivileged child that owns it.
    chmod(dir.path().c_str(), 0711);
    ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
    pid_t child = fork();
    if (child == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
      const std::string seen = Misbehaviour(path);
      fprintf(stderr, "%s\n", seen.c_str());
      _exit(seen.empty() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "write-only file, status " << status;
    chmod(path.c_str(), 0600);
    EXPECT_EQ("[S]\nk=kept\n", qs_test::ReadWholeFile(path));
  }
  TempDir dir;
  CIniFileA document;
  document.SetKeyValue("S", "k", "v");
  mkfifo((dir / "fifo").c_str(), 0666);
  EXPECT_FALSE(document.Save(dir / "fifo")) << "a FIFO is not written, and not waited on";
  EXPECT_FALSE(document.Save(dir.path())) << "nor a folder";
}

// ---- The document cache -------------------------------------------------------

// Every case runs on both ways of knowing a file unchanged: with its folder
// watched, and with a stat of the file on every use.
class ProfileCacheTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ProfileCache::Instance().SetWatching(Watched()); }
  void TearDown() override { ProfileCache::Instance().SetWatching(true); }
  static bool Watched() { return GetParam(); }
  std::string Value(const std::string& file) { return Read(file, "S", "k"); }
};
INSTANTIATE_TEST_SUITE_P(Both, ProfileCacheTest, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "Watched" : "Stamped"; });

// Rewrites the file in place with the same size from another process, within
// the same clock tick as the previous read: the stamp does not change, and the
// next read must still see the new text.
TEST_P(ProfileCacheTest, SameSizeEditByAnotherProcessIsSeenAtOnce) {
  TempDir dir;
  std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=aaaa\n");
  EXPECT_EQ("aaaa", Value(file));
  struct stat before;
  stat(file.c_str(), &before);
  pid_t child = fork();
  if (child == 0) {
    FILE* f = fopen(file.c_str(), "r+");
    fwrite("[S]\nk=bbbb\n", 1, 11, f);
    fclose(f);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ("bbbb", Value(file));
  struct stat after;
  stat(file.c_str(), &after);
  RecordProperty("same_mtime", before.st_mtim.tv_nsec == after.st_mtim.tv_nsec ? 1 : 0);
}

TEST_P(ProfileCacheTest, EditWithTheSameStampIsCaughtByTheRacyReread) {
  TempDir dir;
  std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=1111\n");
  struct stat st;
  stat(file.c_str(), &st);
  EXPECT_EQ("1111", Value(file));
  // Rewrite by hand and put the exact old modification time back: only the
  // change time moves, which a coarse clock may not show either.
  WriteFile(file, "[S]\nk=2222\n");
  timespec times[2] = {st.st_atim, st.st_mtim};
  utimensat(AT_FDCWD, file.c_str(), times, 0);
  EXPECT_EQ("2222", Value(file));
}

TEST_P(ProfileCacheTest, ReplacedFileIsSeen) {
  TempDir dir;
  std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=old\n");
  EXPECT_EQ("old", Value(file));
  WriteFile(dir / "next.ini", "[S]\nk=new\n");
  ASSERT_EQ(0, rename((dir / "next.ini").c_str(), file.c_str()));
  EXPECT_EQ("new", Value(file));
  unlink(file.c_str());
  EXPECT_EQ("", Value(file)) << "a removed file reads as empty";
  WriteFile(file, "[S]\nk=back\n");
  EXPECT_EQ("back", Value(file));
}

// Changes to the folder rather than the file: each scenario changes what the
// path names, and the very next read must see it.
TEST_P(ProfileCacheTest, FolderChangesAreSeen) {
  TempDir dir;
  const std::string a = dir / "a", moved = dir / "moved", file = dir / "a/c.ini";
  const std::pair<const char*, std::function<void()>> scenarios[] = {
      {"file moved away", [&] { rename(file.c_str(), (dir / "elsewhere.ini").c_str()); }},
      {"folder removed and made again",
       [&] {
         unlink(file.c_str());
         rmdir(a.c_str());
         mkdir(a.c_str(), 0755);
       }},
      {"folder moved away and another put in its place",
       [&] {
         rename(a.c_str(), moved.c_str());
         mkdir(a.c_str(), 0755);
       }},
  };
  for (const auto& scenario : scenarios) {
    mkdir(a.c_str(), 0755);
    WriteFile(file, "[S]\nk=before\n");
    EXPECT_EQ("before", Value(file));
    scenario.second();
    EXPECT_EQ("", Value(file)) << scenario.first;
    WriteFile(file, "[S]\nk=after\n");
    EXPECT_EQ("after", Value(file)) << scenario.first;
    std::system(("rm -rf " + a + " " + moved).c_str());
  }

  // A folder reached through a symbolic link that is re-pointed.
  mkdir((dir / "one").c_str(), 0755);
  mkdir((dir / "two").c_str(), 0755);
  WriteFile(dir / "one/c.ini", "[S]\nk=one\n");
  WriteFile(dir / "two/c.ini", "[S]\nk=two\n");
  symlink((dir / "one").c_str(), (dir / "link").c_str());
  EXPECT_EQ("one", Value(dir / "link/c.ini"));
  symlink((dir / "two").c_str(), (dir / "next").c_str());
  rename((dir / "next").c_str(), (dir / "link").c_str());
  EXPECT_EQ("two", Value(dir / "link/c.ini"));
}

// A forked child reads the cache too; the parent must still see every change.
TEST_P(ProfileCacheTest, ChildReadsDoNotHideChangesFromTheParent) {
  TempDir dir;
  const std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=old\n");
  EXPECT_EQ("old", Value(file));
  int go[2];
  ASSERT_EQ(0, pipe(go));
  pid_t child = fork();
  if (child == 0) {
    char byte;
    if (read(go[0], &byte, 1) != 1) _exit(2);
    _exit(Value(file) == "new" ? 0 : 1);
  }
  WriteFile(file, "[S]\nk=new\n");
  ASSERT_EQ(1, write(go[1], "x", 1));
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ("new", Value(file));
  close(go[0]);
  close(go[1]);
}

TEST_P(ProfileCacheTest, OldUnchangedFileIsReusedWithoutReading) {
  TempDir dir;
  std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=v\n");
  timespec past[2] = {{time(nullptr) - 100, 0}, {time(nullptr) - 100, 0}};
  utimensat(AT_FDCWD, file.c_str(), past, 0);
  ProfileCache::Stats start = ProfileCache::Instance().GetStats();
  for (int i = 0; i < 5; ++i) EXPECT_EQ("v", Value(file));
  ProfileCache::Stats end = ProfileCache::Instance().GetStats();
  EXPECT_EQ(1u, end.parses - start.parses);
  EXPECT_EQ(4u, end.hits - start.hits);
  EXPECT_EQ(Watched() ? 4u : 0u, end.watchedHits - start.watchedHits);
  EXPECT_EQ(0u, end.racyRereads - start.racyRereads);

  // A fresh file: a watched one is re-used at once, a stamped one is racily
  // clean and read again (not parsed) on each use.
  WriteFile(file, "[S]\nk=w\n");
  start = ProfileCache::Instance().GetStats();
  for (int i = 0; i < 3; ++i) EXPECT_EQ("w", Value(file));
  end = ProfileCache::Instance().GetStats();
  EXPECT_EQ(1u, end.parses - start.parses);
  EXPECT_EQ(Watched() ? 0u : 2u, end.racyRereads - start.racyRereads);
  EXPECT_EQ(Watched() ? 2u : 0u, end.hits - start.hits);
}

TEST_P(ProfileCacheTest, OwnWritesAreSeenByTheNextRead) {
  TempDir dir;
  std::string file = dir / "c.ini";
  for (int i = 0; i < 20; ++i) {
    std::string value = std::to_string(i);
    WritePrivateProfileStringA("S", "k", value.c_str(), file.c_str());
    ASSERT_EQ(value, Value(file));
  }
}

TEST_P(ProfileCacheTest, ConcurrentReadersAndAWriter) {
  TempDir dir;
  std::string file = dir / "c.ini";
  WriteFile(file, "[S]\nk=0\n");
  // Callers serialise writers against readers (the service does so with its
  // configuration lock); the cache itself must stay consistent under that.
  std::shared_mutex callers;
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        std::shared_lock<std::shared_mutex> hold(callers);
        std::string v = Read(file, "S", "k");
        if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos) ++bad;
        hold.unlock();
        std::this_thread::yield();
      }
    });
  }
  for (int i = 1; i <= 200; ++i) {
    std::string value = std::to_string(i);
    std::unique_lock<std::shared_mutex> hold(callers);
    WritePrivateProfileStringA("S", "k", value.c_str(), file.c_str());
  }
  for (auto& t : readers) t.join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ("200", Value(file));
}

}  // namespace
