// Rewrites of settings files under kills, concurrent writers, a full disk and
// odd files at the path: a file goes from its old text to its new text in one
// step or not at all, and no writer loses another's keys.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ini/ini_file.h"
#include "ini/profile.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

std::string Key(const char* prefix, int i) { return prefix + std::to_string(i); }

// The values of `keys` keys named prefix0, prefix1... in section "S" of the
// file's text; a missing key reads as "?".
std::vector<std::string> Values(const std::string& file, const char* prefix, int keys) {
  CIniFileA document;
  std::istringstream text(ReadWholeFile(file));
  document.Load(text);
  std::vector<std::string> values;
  for (int i = 0; i < keys; ++i) values.push_back(document.GetKeyValue("S", Key(prefix, i), "?"));
  return values;
}

// The names in a folder; with `hidden`, only those starting with "." (the
// temporaries).
std::vector<std::string> Entries(const std::string& folder, bool hidden = false) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (!hidden || entry->d_name[0] == '.') names.push_back(entry->d_name);
  }
  if (dir != nullptr) closedir(dir);
  return names;
}

pid_t Child(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}

int ExitCode(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A child rewrites a 60-key file in a loop and is killed at a random instant
// of it, over and over: the file always holds every key with its old or new
// value, and at most one temporary is ever left, which a later write clears.
TEST(DurableWrites, KilledWritersLeaveTheOldOrTheNewFile) {
  TempDir dir;
  const std::string file = dir / "c.ini";
  constexpr int kKeys = 60, kKills = 100;
  std::string text = "[S]\n";
  for (int i = 0; i < kKeys; ++i) text += Key("k", i) + "=old\n";
  std::mt19937 random(std::random_device{}());
  int damaged = 0, emptied = 0, crowded = 0;
  for (int kill_ = 0; kill_ < kKills; ++kill_) {
    WriteFile(file, text);
    int started[2];
    ASSERT_EQ(0, pipe(started));
    const pid_t child = Child([&] {
      for (int i = 0;; ++i) {
        WritePrivateProfileStringA("S", Key("k", i % kKeys).c_str(), i / kKeys % 2 ? "old" : "new", file.c_str());
        if (i == 0 && write(started[1], "x", 1) != 1) return 1;
      }
    });
    char byte;
    ASSERT_EQ(1, read(started[0], &byte, 1));
    usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    kill(child, SIGKILL);
    ExitCode(child);
    close(started[0]);
    close(started[1]);
    int bad = 0;
    for (const std::string& value : Values(file, "k", kKeys)) bad += value != "old" && value != "new";
    damaged += bad > 0;
    emptied += ReadWholeFile(file).empty();
    crowded += Entries(dir.path()).size() > 2;
  }
  EXPECT_EQ(0, damaged) << emptied << " of " << kKills << " kills left the file empty";
  EXPECT_EQ(0, crowded) << "more than one temporary left";
  WritePrivateProfileStringA("S", "k0", "last", file.c_str());
  EXPECT_EQ(std::vector<std::string>{"c.ini"}, Entries(dir.path()));
}

// Two processes of two threads each write keys of their own into a file that
// holds 20 more; a third process reads those 20 meanwhile. No key is lost and
// the reader never gets the default for a key present in every version.
TEST(DurableWrites, ConcurrentWritersLoseNoKeys) {
  TempDir dir;
  const std::string file = dir / "c.ini";
  constexpr int kBase = 20, kEach = 15;
  std::string text = "[S]\n";
  for (int i = 0; i < kBase; ++i) text += Key("b", i) + "=base\n";
  WriteFile(file, text);
  int done[2];
  ASSERT_EQ(0, pipe(done));
  const pid_t reader = Child([&] {
    fcntl(done[0], F_SETFL, O_NONBLOCK);
    int defaults = 0;
    char byte, value[16];
    for (int i = 0; read(done[0], &byte, 1) != 1; ++i) {
      GetPrivateProfileStringA("S", Key("b", i % kBase).c_str(), "?", value, sizeof(value), file.c_str());
      defaults += strcmp(value, "base") != 0;
    }
    return defaults > 250 ? 250 : defaults;
  });
  pid_t writers[2];
  for (int p = 0; p < 2; ++p) writers[p] = Child([&, p] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) threads.emplace_back([&, t] {
      const std::string prefix = "w" + std::to_string(p * 2 + t) + "_";
      for (int i = 0; i < kEach; ++i) WritePrivateProfileStringA("S", Key(prefix.c_str(), i).c_str(), "x", file.c_str());
    });
    for (auto& thread : threads) thread.join();
    return 0;
  });
  for (pid_t writer : writers) EXPECT_EQ(0, ExitCode(writer));
  ASSERT_EQ(1, write(done[1], "x", 1));
  EXPECT_EQ(0, ExitCode(reader)) << "reads of a present key that got the default";
  int lost = 0;
  for (const std::string& value : Values(file, "b", kBase)) lost += value != "base";
  for (const char* prefix : {"w0_", "w1_", "w2_", "w3_"}) {
    for (const std::string& value : Values(file, prefix, kEach)) lost += value != "x";
  }
  EXPECT_EQ(0, lost) << "of " << kBase + 4 * kEach << " keys";
  close(done[0]);
  close(done[1]);
}

// A write that cannot complete changes nothing and leaves no temporary, and
// says why; the same write goes through once the obstacle is gone. Each row
// runs in a child (a mount namespace of its own, or a file size limit).
TEST(DurableWrites, WritesThatCannotCompleteChangeNothing) {
  enum Obstacle { kFullDisk, kSizeLimit, kReadOnly };
  const struct { Obstacle obstacle; int error; const char* name; } rows[] = {
      {kFullDisk, ENOSPC, "a full 64 KiB tmpfs"},
      {kSizeLimit, EFBIG, "a file size limit"},
      {kReadOnly, EACCES, "a read-only file"},
  };
  for (const auto& row : rows) {
    TempDir dir;
    const std::string folder = dir / "d", file = dir / "d/c.ini", filler = dir / "d/filler";
    mkdir(folder.c_str(), 0755);
    const int code = ExitCode(Child([&] {
      if (row.obstacle == kFullDisk &&
          (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
           mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k") != 0)) {
        return 77;
      }
      std::string text = "[S]\n";
      for (int i = 0; i < 20; ++i) text += Key("k", i) + "=old\n";
      WriteFile(file, text);
      rlimit limit{};
      getrlimit(RLIMIT_FSIZE, &limit);
      if (row.obstacle == kFullDisk) WriteFile(filler, std::string(1 << 20, 'x'));  // cut where the disk is full
      if (row.obstacle == kSizeLimit) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit small = limit;
        small.rlim_cur = text.size() + 100;
        setrlimit(RLIMIT_FSIZE, &small);
      }
      if (row.obstacle == kReadOnly) chmod(file.c_str(), 0444);
      const std::string value(8000, 'v');
      if (WritePrivateProfileStringChecked("S", "long", value.c_str(), file.c_str()) != row.error) return 1;
      if (ReadWholeFile(file) != text) return 2;
      if (!Entries(folder, true).empty()) return 3;
      unlink(filler.c_str());
      setrlimit(RLIMIT_FSIZE, &limit);
      chmod(file.c_str(), 0644);
      if (WritePrivateProfileStringChecked("S", "long", value.c_str(), file.c_str()) != 0) return 4;
      return Values(file, "k", 20) == std::vector<std::string>(20, "old") ? 0 : 5;
    }));
    if (code == 77) {
      std::printf("no tmpfs could be mounted: the file size limit stands in for a full disk\n");
      continue;
    }
    EXPECT_EQ(0, code) << row.name;
  }
}

// A rewrite keeps the file's permission bits and owner, writes through a
// symbolic link without replacing it, and makes a new file as open(2) would.
TEST(DurableWrites, ModeOwnerAndLinksKept) {
  TempDir dir;
  const std::string file = dir / "c.ini", target = dir / "t.ini", link = dir / "l.ini", fresh = dir / "n.ini";
  WriteFile(file, "[S]\nk=old\n");
  chmod(file.c_str(), 0640);
  const bool root = geteuid() == 0;
  if (root) EXPECT_EQ(0, chown(file.c_str(), 4321, 4322));
  WriteFile(target, "[S]\nk=old\n");
  chmod(target.c_str(), 0604);
  symlink("t.ini", link.c_str());
  const mode_t mask = umask(027);
  for (const std::string& path : {file, link, fresh}) {
    EXPECT_EQ(0, WritePrivateProfileStringChecked("S", "k", "new", path.c_str())) << path;
    EXPECT_EQ("[S]\nk=new\n", ReadWholeFile(path)) << path;
  }
  umask(mask);
  struct stat st;
  ASSERT_EQ(0, lstat(file.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  if (root) EXPECT_TRUE(st.st_uid == 4321 && st.st_gid == 4322);
  ASSERT_EQ(0, lstat(link.c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(0, lstat(target.c_str(), &st));
  EXPECT_EQ(0604u, st.st_mode & 07777);
  ASSERT_EQ(0, lstat(fresh.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  EXPECT_TRUE(Entries(dir.path(), true).empty());
}

}  // namespace
