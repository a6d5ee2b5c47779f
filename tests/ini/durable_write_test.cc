// Rewrites of settings files under kills, concurrent writers, a full disk and
// odd files at the path: a file goes from its old text to its new text in one
// step or not at all, and no writer loses another's keys.
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ini/ini_file.h"
#include "ini/profile.h"
#include "ini/profile_cache.h"
#include "tests/common/temp_dir.h"

// Flushes to the disk, counted in front of the C library's fsync.
static std::atomic<int> g_flushes{0};
extern "C" int fsync(int fd) {
  static const auto next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  ++g_flushes;
  return next(fd);
}

namespace {

using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;

std::string Key(const char* prefix, int i) { return prefix + std::to_string(i); }

// How many of the keys prefix0, prefix1... in section "S" of the file hold
// neither value `a` nor `b` (missing ones included).
int Wrong(const std::string& file, const char* prefix, int keys, const char* a, const char* b = "") {
  CIniFileA document;
  std::istringstream(ReadWholeFile(file)) >> document;
  int wrong = 0;
  for (int i = 0; i < keys; ++i) {
    const std::string value = document.GetKeyValue("S", Key(prefix, i), "?");
    wrong += value != a && value != b;
  }
  return wrong;
}

// The names in a folder; with `hidden`, only the temporaries (".name.tmp").
std::vector<std::string> Entries(const std::string& folder, bool hidden = false) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (const std::string name = entry.path().filename(); !hidden || name[0] == '.') names.push_back(name);
  }
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
      if (write(started[1], "x", 1) != 1) return 1;
      for (int i = 0;; ++i) {
        WritePrivateProfileStringA("S", Key("k", i % kKeys).c_str(), i / kKeys % 2 ? "old" : "new", file.c_str());
      }
    });
    char byte;
    ASSERT_EQ(1, read(started[0], &byte, 1));
    usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    kill(child, SIGKILL);
    ExitCode(child);
    close(started[0]);
    close(started[1]);
    damaged += Wrong(file, "k", kKeys, "old", "new") > 0;
    emptied += ReadWholeFile(file).empty();
    crowded += Entries(dir.path()).size() > 2;
  }
  EXPECT_EQ(0, damaged) << emptied << " of " << kKills << " kills left the file empty";
  EXPECT_EQ(0, crowded) << "more than one temporary left";
  WritePrivateProfileStringA("S", "k0", "last", file.c_str());
  EXPECT_EQ(std::vector<std::string>{"c.ini"}, Entries(dir.path()));
}

// Reads keys b0..b19 until `stop`, and once more after it, counting reads
// that missed one.
int MissedReads(const std::string& file, const std::function<bool()>& stop) {
  int missed = 0;
  char value[16];
  for (int i = 0, last = 0; !last; ++i) {
    last = stop();
    GetPrivateProfileStringA("S", Key("b", i % 20).c_str(), "?", value, sizeof(value), file.c_str());
    missed += strcmp(value, "base") != 0;
    usleep(100);  // leaves the writers the processor
  }
  return std::min(missed, 100);
}

// Two processes write keys of their own, each from two threads, into a file
// that holds 20 more, while a thread of each (its folder watched) and a third
// process (stamping the file) read those 20. No key is lost, no read gets the
// default for a key present in every version of the file, and this process,
// whose cache held the file before the children were forked, sees the change
// (the writers' last reads come after every write: had they taken the change
// notices from the queue they inherited, none would be left for this one).
TEST(DurableWrites, ConcurrentWritersLoseNoKeys) {
  TempDir dir;
  const std::string file = dir / "c.ini";
  constexpr int kEach = 10;
  std::string text = "[S]\n";
  for (int i = 0; i < 20; ++i) text += Key("b", i) + "=base\n";
  WriteFile(file, text);
  char value[8];
  GetPrivateProfileStringA("S", "w0_0", "?", value, sizeof(value), file.c_str());  // kept by this process's cache
  int done[2];
  ASSERT_EQ(0, pipe(done));
  const pid_t reader = Child([&] {
    ProfileCache::Instance().SetWatching(false);
    fcntl(done[0], F_SETFL, O_NONBLOCK);
    char byte;
    return MissedReads(file, [&] { return read(done[0], &byte, 1) == 1; });
  });
  pid_t writers[2];
  for (int p = 0; p < 2; ++p) writers[p] = Child([&, p] {
    std::atomic<bool> written{false};
    int missed = 0;
    std::thread watcher([&] { missed = MissedReads(file, [&] { return written.load(); }); });
    struct sigaction interrupt {};  // without SA_RESTART, as a host's signal handlers may be: waits are cut short
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    std::vector<std::thread> threads;
    std::atomic<int> finished{0};
    for (int t = 0; t < 2; ++t) threads.emplace_back([&, t] {
      const std::string prefix = "w" + std::to_string(p * 2 + t) + "_";
      for (int i = 0; i < kEach; ++i) WritePrivateProfileStringA("S", Key(prefix.c_str(), i).c_str(), "x", file.c_str());
      ++finished;
    });
    for (; finished < 2; usleep(50)) {
      for (auto& thread : threads) pthread_kill(thread.native_handle(), SIGUSR1);
    }
    for (auto& thread : threads) thread.join();
    written = true;
    watcher.join();
    return missed;
  });
  for (pid_t writer : writers) EXPECT_EQ(0, ExitCode(writer)) << "reads that missed a key, in a writer";
  ASSERT_EQ(1, write(done[1], "x", 1));
  EXPECT_EQ(0, ExitCode(reader)) << "reads that missed a key, in another process";
  GetPrivateProfileStringA("S", "w0_0", "?", value, sizeof(value), file.c_str());
  EXPECT_STREQ("x", value) << "the children's reads took this process's change notices";
  int lost = Wrong(file, "b", 20, "base");
  for (const char* prefix : {"w0_", "w1_", "w2_", "w3_"}) lost += Wrong(file, prefix, kEach, "x");
  EXPECT_EQ(0, lost) << "of " << 20 + 4 * kEach << " keys";
  close(done[0]);
  close(done[1]);
}

// A write that cannot complete changes nothing, leaves no temporary and says
// why. In a child: a full tmpfs in a mount namespace of its own where one can
// be had, and a file size limit.
TEST(DurableWrites, WritesThatCannotCompleteChangeNothing) {
  for (const bool fullDisk : {true, false}) {
    TempDir dir;
    const std::string folder = dir / "d", file = dir / "d/c.ini", text = "[S]\nk=old\n";
    mkdir(folder.c_str(), 0755);
    const int code = ExitCode(Child([&] {
      if (fullDisk && (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                       mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k") != 0)) {
        return 77;
      }
      WriteFile(file, text);
      WriteFile(folder + "/filler", std::string(fullDisk ? 1 << 20 : 0, 'x'));  // cut where the disk is full
      signal(SIGXFSZ, SIG_IGN);
      rlimit limit{};
      getrlimit(RLIMIT_FSIZE, &limit);
      limit.rlim_cur = fullDisk ? limit.rlim_cur : 1000;
      setrlimit(RLIMIT_FSIZE, &limit);
      const int error = WritePrivateProfileStringChecked("S", "long", std::string(8000, 'v').c_str(), file.c_str());
      if (error != (fullDisk ? ENOSPC : EFBIG)) return 1;
      return ReadWholeFile(file) != text ? 2 : Entries(folder, true).empty() ? 0 : 3;
    }));
    if (code == 77) std::printf("no tmpfs could be mounted: the file size limit stands in for a full disk\n");
    EXPECT_TRUE(code == 0 || code == 77) << code << (fullDisk ? " with a full tmpfs" : " with a file size limit");
  }
}

// A rewrite keeps the file's permission bits and owner, writes through a
// symbolic link without replacing it, and makes a new file as open(2) would.
TEST(DurableWrites, ModeOwnerAndLinksKept) {
  TempDir dir;
  WriteFile(dir / "c.ini", "[S]\nk=old\n");
  WriteFile(dir / "t.ini", "[S]\nk=old\n");
  chmod((dir / "c.ini").c_str(), 0640);
  chmod((dir / "t.ini").c_str(), 0604);
  symlink("t.ini", (dir / "l.ini").c_str());
  const bool root = geteuid() == 0;
  ASSERT_TRUE(!root || chown((dir / "c.ini").c_str(), 4321, 4322) == 0);
  const mode_t mask = umask(027);
  const struct { const char* written; const char* changed; mode_t mode; uid_t owner; } rows[] = {
      {"c.ini", "c.ini", 0640, 4321}, {"l.ini", "t.ini", 0604, 0}, {"n.ini", "n.ini", 0640, 0}};
  for (const auto& row : rows) {
    const int flushes = g_flushes;
    EXPECT_EQ(0, WritePrivateProfileStringChecked("S", "k", "new", (dir / row.written).c_str())) << row.written;
    EXPECT_EQ(2, g_flushes - flushes) << "the file, then its folder, reach the disk: " << row.written;
    EXPECT_EQ("[S]\nk=new\n", ReadWholeFile(dir / row.written)) << row.written;
    struct stat st;
    ASSERT_EQ(0, lstat((dir / row.changed).c_str(), &st));
    EXPECT_EQ(row.mode, st.st_mode & 07777) << row.written;
    EXPECT_TRUE(!root || row.owner == st.st_uid) << row.written;
  }
  umask(mask);
  struct stat st;
  EXPECT_TRUE(lstat((dir / "l.ini").c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << "the link stays a link";
}

}  // namespace
