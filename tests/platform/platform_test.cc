// The Win32-named system layer on POSIX, API by API: events and semaphores,
// critical sections, threads, time, process helpers, tracked global
// memory, files and folders, and the reader-writer locks.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/critical_section.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/process.h"
#include "platform/process_flags.h"
#include "platform/rwlock.h"
#include "platform/system_time.h"
#include "platform/thread.h"
#include "tests/common/temp_dir.h"

namespace {

using qs_test::PathExists;
using qs_test::TempDir;
using qs_test::WriteFile;

bool SemaphoreExists(const std::string& name) { return access(("/dev/shm/sem." + name).c_str(), F_OK) == 0; }

// What f prints to standard output.
std::string Printed(const std::function<void()>& f) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

void WaitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) usleep(1000);
  ASSERT_TRUE(condition());
}

// ---- Events and semaphores ----------------------------------------------------

using Event = std::unique_ptr<void, void (*)(void*)>;
Event MakeEvent(signed char manualReset, signed char initialState) {
  return Event(CreateEvent(nullptr, manualReset, initialState, nullptr), CloseEvent);
}

// Each row drives one event with a script: s SetEvent, r ResetEvent, z a
// zero-timeout wait, w a 10 ms wait; the results, in order.
TEST(Event, ScriptedSignalsResetsAndWaits) {
  const struct {
    signed char manual, initial;
    const char* script;
    const char* results;
  } rows[] = {
      // A zero timeout never succeeds, not even with a signal pending; sets count.
      {0, 1, "zsswwww", "258 1 1 0 0 0 258"},
      // A manual-reset event lets one waiter through and swallows one more signal.
      {1, 0, "ssww", "1 1 0 258"},
      // A reset takes away at most one signal, and succeeds with none pending.
      {0, 0, "rssrww", "1 1 1 1 0 258"},
  };
  for (const auto& row : rows) {
    Event event = MakeEvent(row.manual, row.initial);
    std::string results;
    for (const char* op = row.script; *op != '\0'; ++op) {
      unsigned int result = 0;
      switch (*op) {
        case 's': result = SetEvent(event.get()); break;
        case 'r': result = ResetEvent(event.get()); break;
        case 'z': result = WaitForEvent(event.get(), 0); break;
        default: result = WaitForEvent(event.get(), 10); break;
      }
      results += (results.empty() ? "" : " ") + std::to_string(result);
    }
    EXPECT_EQ(row.results, results) << row.script;
  }
}

// The wait budget is timeout x 1,000,000 in 32 bits: 67,108,864 ms wraps to 0
// (a zero timeout), 5,000 ms gives up after about 705 ms. An infinite wait
// wakes on another thread's signal.
TEST(Event, BudgetWrapsIn32BitsAndInfiniteWaitsWake) {
  Event set = MakeEvent(0, 1), idle = MakeEvent(0, 0);
  EXPECT_EQ(258u, WaitForEvent(set.get(), 67108864u));
  const unsigned int start = GetTickCount();
  EXPECT_EQ(258u, WaitForEvent(idle.get(), 5000));
  EXPECT_GE(GetTickCount() - start, 690u);
  EXPECT_LT(GetTickCount() - start, 3000u);
  std::thread setter([&] {
    Sleep(30);
    SetEvent(idle.get());
  });
  EXPECT_EQ(0u, WaitForEvent(idle.get(), INFINITE));
  setter.join();
  EXPECT_EQ(1, ResetEvent(nullptr)) << "resetting no event succeeds";
}

// The named semaphores this process has mapped.
size_t SemaphoresMapped() {
  const std::string maps = qs_test::ReadWholeFile("/proc/self/maps");
  size_t count = 0;
  for (size_t at = maps.find("/dev/shm/sem."); at != std::string::npos; at = maps.find("/dev/shm/sem.", at + 1)) ++count;
  return count;
}

// Unnamed events get a name from the process id, a process-wide counter and
// the global seed.
TEST(Event, GeneratedNames) {
  SetGlobalSeed(77);
  Event first = MakeEvent(0, 0), second = MakeEvent(0, 0);
  SetGlobalSeed(0);
  const std::string n1 = GetEventName(first.get()), n2 = GetEventName(second.get());
  const std::string prefix = "ce0" + std::to_string(getpid()) + "_";
  const unsigned long counter = std::stoul(n1.substr(prefix.size()));
  EXPECT_EQ(prefix + std::to_string(counter) + "_77", n1);
  EXPECT_EQ(prefix + std::to_string(counter + 1) + "_77", n2) << "a process-wide counter";
  EXPECT_TRUE(SemaphoreExists(n1));
  const size_t mapped = SemaphoresMapped();
  first.reset();
  EXPECT_FALSE(SemaphoreExists(n1)) << "closing unlinks the name";
  EXPECT_EQ(mapped - 1, SemaphoresMapped()) << "and unmaps the semaphore";
}

// A given name keeps 31 characters, and OpenEvent reaches the same semaphore by
// it until CloseEvent unlinks it. Semaphores: one post per release, a finite
// wait gives up with 0xFFFFFFFF, and closing keeps the name.
TEST(Event, NamedEventsAndSemaphores) {
  const std::string name = ("qsEvent" + std::to_string(getpid()) + std::string(40, 'n')).substr(0, 31);
  Event created(CreateEvent(nullptr, 0, 0, (name + "tail").c_str()), CloseEvent);
  EXPECT_EQ(name, GetEventName(created.get()));
  std::string semaphoreName = "qsSem" + std::to_string(getpid());
  void* full = CreateSemaphore(nullptr, INT_MAX, 1, &semaphoreName[0]);
  void* counted = CreateSemaphore(nullptr, 1, 1, nullptr);
  const size_t mapped = SemaphoresMapped();
  unsigned int giveUp = 0;
  const std::string printed = Printed([&] {
    EXPECT_EQ(nullptr, CreateEvent(nullptr, 0, 0, name.c_str())) << "the name is taken";
    EXPECT_EQ(nullptr, OpenEvent(0, 0, nullptr));
    Event opened(OpenEvent(0, 0, name.c_str()), CloseEvent), atMaximum(OpenEvent(0, 0, semaphoreName.c_str()), CloseEvent);
    EXPECT_EQ(name, GetEventName(opened.get()));
    EXPECT_EQ(1, SetEvent(opened.get()));
    EXPECT_EQ(0u, WaitForEvent(created.get(), 10));
    EXPECT_EQ(0, SetEvent(atMaximum.get()) + ReleaseSemaphore(full, 1, nullptr) - 1) << "a count at its maximum";
    EXPECT_EQ(0u, WaitForSemaphone(counted, 20) + ReleaseSemaphore(counted, 5, nullptr) - 1);
    EXPECT_EQ(0u, WaitForSemaphone(counted, INFINITE));
    giveUp = GetTickCount();
    EXPECT_EQ(0xFFFFFFFFu, WaitForSemaphone(counted, 20));
    giveUp = GetTickCount() - giveUp;
    CloseSemaphore(full);
    EXPECT_TRUE(SemaphoreExists(semaphoreName)) << "closing a semaphore keeps its name";
    opened.reset();
    EXPECT_EQ(nullptr, OpenEvent(0, 0, name.c_str())) << "closing an opened event unlinks the name";
  });
  EXPECT_EQ("CreateEvent sem_open failed 17 name " + name + "\nOpenEvent sem_open failed 22\nSetEvent sem_post failed 75\nsem_post failed 75\nOpenEvent sem_open failed 2\n",
            printed);
  EXPECT_GE(giveUp, 18u);
  CloseSemaphore(counted);
  EXPECT_EQ(mapped - 2, SemaphoresMapped());
  EXPECT_EQ(0, sem_unlink(("Sem" + std::to_string(getpid()) + "_1_0").c_str())) << "a generated name, kept";
}

void* Spin(void*) {
  for (;;) usleep(1000);
}
void* Count(void* counter) {
  InterlockedIncrement(static_cast<int*>(counter));
  return nullptr;
}

// ---- Threads and time ------------------------------------------

// A finite WaitForThread cancels the thread before joining it.
TEST(Thread, CreateWaitAndCancel) {
  int counter = 5;
  void* counting = CreateThread(nullptr, 0, Count, &counter, 0, nullptr, nullptr);
  EXPECT_EQ(0, WaitForThread(counting, INFINITE));
  CloseThread(counting);
  EXPECT_EQ(5, InterlockedDecrement(&counter)) << "after one increment";
  EXPECT_EQ(5, counter);
  pthread_t slot;
  void* spinning = CreateThread(nullptr, 0, Spin, nullptr, 0, nullptr, &slot);
  EXPECT_EQ(&slot, spinning);
  EXPECT_EQ(0, WaitForThread(spinning, 0));
  void* terminated = CreateThread(nullptr, 0, Spin, nullptr, 0, nullptr, nullptr);
  TerminateThread(terminated, 0);
  EXPECT_EQ(0, WaitForThread(terminated, INFINITE));
  CloseThread(terminated);
  EXPECT_EQ(-1, WaitForThread(nullptr, 0));
}


TEST(Time, TicksWrapIn32BitsAndSystemTimeIsLocal) {
  // 4,294,967,296 ms is exactly 2^32; nanoseconds are truncated to whole ms.
  EXPECT_EQ(0u, TickCountFromClock(4294967, 296000000));
  EXPECT_EQ(4294967295u, TickCountFromClock(4294967, 295999999));
  // Sleep multiplies in 32 bits: 4,294,968 ms wraps to 704 us.
  const unsigned int before = GetTickCount();
  Sleep(4294968);
  EXPECT_LT(GetTickCount() - before, 1000u);
  setenv("TZ", "UTC-2", 1);  // two hours east of UTC
  tzset();
  _SYSTEMTIME st{};
  st.wDayOfWeek = 6;
  st.wMilliseconds = 5;
  ConvertTimeToSystemTime(st, 86400L * 365 + 3600 + 61);  // 1971-01-01 01:01:01 UTC
  EXPECT_EQ((std::vector<int>{1971, 1, 1, 3, 1, 1, 0, 5}),
            (std::vector<int>{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wDayOfWeek,
                              st.wMilliseconds}));
  unsetenv("TZ");
  tzset();
}

// ---- Processes ---------------------------------------------------------------------

TEST(Process, ResidentSizeFromTheStatusFile) {
  TempDir dir;
  WriteFile(dir / "status", "Name:\tx\nVmSize:\t  9999 kB\nVmRSS:\t    2048 kB\nThreads:\t1\n");
  WriteFile(dir / "none", "Name:\tx\nVmSize:\t 9 kB\n");
  EXPECT_EQ(2097152u, GetVmRssFromStatusFile((dir / "status").c_str()));
  EXPECT_EQ(0u, GetVmRssFromStatusFile((dir / "none").c_str()));
}

// ---- Files and folders ---------------------------------------------------------------

TEST(File, OpensReadsCopiesAndAttributes) {
  TempDir dir;
  const std::string path = dir / "f";
  EXPECT_EQ(nullptr, CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  FILE* file = CreateFile(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  unsigned int count = 0, high = 77;
  EXPECT_TRUE(WriteFile(file, "0123456789", 10, &count, nullptr));
  EXPECT_EQ(10u, GetFileSize(file, &high));
  EXPECT_EQ(77u, high) << "the high part is not written";
  // A short read at the end succeeds; a stream that cannot be read fails.
  char bytes[9] = {};
  unsigned int got[3] = {9, 9, 9};
  SetFilePointer(file, 0, nullptr, 0);
  FILE* appendOnly = fopen(path.c_str(), "a");
  const long long results[4] = {ReadFile(file, bytes, 8, &got[0], nullptr), ReadFile(file, bytes, 8, &got[1], nullptr),
                               ReadFile(appendOnly, bytes, 8, &got[2], nullptr), ReadFile(nullptr, bytes, 8, nullptr, nullptr)};
  EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 8, 2, 0}),
            (std::vector<long long>{results[0], results[1], results[2], results[3], got[0], got[1], got[2]}));
  EXPECT_STREQ("89234567", bytes);
  fclose(appendOnly);
  EXPECT_TRUE(QSCloseFile(file));
  // Disposition 2 without the write bit truncates, then opens read-only.
  file = CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  EXPECT_EQ(0u, GetFileSize(file, nullptr));
  EXPECT_FALSE(WriteFile(file, "x", 1, &count, nullptr));
  CloseFile(file);

  // Whole files are read in 1 MiB pieces and terminated; 0 means success.
  std::string content(3 * 1024 * 1024 + 5, 'a');
  content[1024 * 1024] = 'b';
  WriteFile(dir / "big", content);
  unsigned char* data = nullptr;
  int size = -1;
  EXPECT_EQ(0, ReadFileByName((dir / "big").c_str(), &data, &size));
  ASSERT_EQ(static_cast<int>(content.size()), size);
  EXPECT_EQ(0, memcmp(data, content.data(), content.size()));
  EXPECT_EQ(0, data[size]);
  free(data);

  chmod(path.c_str(), 0444);
  EXPECT_EQ(0u, GetFileAttributes(path.c_str())) << "read-only is never reported";
  EXPECT_EQ(16u, GetFileAttributes(dir.path().c_str()));
  EXPECT_EQ(0xFFFFFFFFu, GetFileAttributes((dir / "missing").c_str()));
  // The last write time in seconds; ImgChmodForLinux opens the file to all.
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  _FILETIME written{7, 7}, missing{7, 7};
  std::string names[2] = {path, dir / "missing"};
  EXPECT_TRUE(GetFileTime(&names[0][0], nullptr, nullptr, &written) && GetFileTime(&names[1][0], nullptr, nullptr, &missing));
  EXPECT_EQ("1000000000 7 0 7", std::to_string(written.dwLowDateTime) + " " + std::to_string(written.dwHighDateTime) + " " + std::to_string(missing.dwLowDateTime) + " " + std::to_string(missing.dwHighDateTime));
  ImgChmodForLinux(path.c_str());
  struct stat st {};
  stat(path.c_str(), &st);
  EXPECT_EQ(0777u, st.st_mode & 07777);
  EXPECT_TRUE(DeleteFile(path.c_str()));
  EXPECT_FALSE(DeleteFile(path.c_str()));
  // DeleteFileOrDir ignores what is not there and removes a file or a folder.
  for (const char* ignored : {static_cast<const char*>(nullptr), "", path.c_str()}) DeleteFileOrDir(ignored);
  mkdir((dir / "sub").c_str(), 0777);
  WriteFile(dir / "sub/x", "1");
  WriteFile(path, "1");
  for (const std::string& gone : {dir / "sub", path}) DeleteFileOrDir(gone.c_str());
  EXPECT_FALSE(PathExists(dir / "sub") || PathExists(path));
}

// One call clears files up to and including the first sub-directory met, in
// directory-reading order.
TEST(Folder, RemoveDirStopsAfterTheFirstSubDirectoryAndOldSiblingsGo) {
  TempDir dir;
  const std::string root = dir / "root";
  for (const char* sub : {"", "/d1", "/d2"}) mkdir((root + sub).c_str(), 0777);
  const long descriptors = qs_test::OpenDescriptors();
  WriteFile(root + "/d1/x", "1");
  WriteFile(root + "/d2/y", "2");
  EXPECT_TRUE(RemoveDir(root.c_str()));
  EXPECT_NE(PathExists(root + "/d1"), PathExists(root + "/d2")) << "one of the two is left";
  EXPECT_TRUE(RemoveDir(root.c_str()));
  EXPECT_TRUE(RemoveDir(root.c_str())) << "the third call removes the emptied folder";
  EXPECT_FALSE(PathExists(root));
  EXPECT_FALSE(RemoveDir(root.c_str()));
  EXPECT_EQ(descriptors, qs_test::OpenDescriptors()) << "every folder read is closed";
  // The siblings of a path older than two days go, newer ones stay.
  for (const char* sub : {"u", "u/old", "u/new"}) mkdir((dir / sub).c_str(), 0777);
  const timespec threeDaysAgo[2] = {{time(nullptr) - 3 * 86400, 0}, {time(nullptr) - 3 * 86400, 0}};
  utimensat(AT_FDCWD, (dir / "u/old").c_str(), threeDaysAgo, 0);
  EXPECT_EQ(1, RemoveUndeletedDir((dir / "u/new/").c_str()));
  EXPECT_EQ("old gone, new kept", std::string(PathExists(dir / "u/old") ? "old kept" : "old gone") +
                                      (PathExists(dir / "u/new") ? ", new kept" : ", new gone"));
}

// ---- Reader-writer locks ---------------------------------------------------------------

// "status readers writers" of the calling thread and the lock.
std::string State(CReaderWriterLock& lock) {
  return std::to_string(lock.GetCurrentThreadStatus()) + " " + std::to_string(lock.ReaderCount()) + " " +
         std::to_string(lock.WriterCount());
}

// Another thread that holds a reader lock from construction until Release().
class OtherReader {
 public:
  explicit OtherReader(CReaderWriterLock& lock)
      : thread_([this, &lock] {
          lock.AcquireReaderLock(INFINITE);
          holds_ = true;
          while (!release_) usleep(1000);
          lock.ReleaseReaderLock();
        }) {
    WaitUntil([this] { return holds_.load(); });
  }
  ~OtherReader() { Release(); }
  void Release() {
    release_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> holds_{false}, release_{false};
  std::thread thread_;
};

// The base lock step by step, with a second thread where a step waits. Every
// step leaves the guard as it found it: a guard left held or left unentered
// prints a failure line.
TEST(ReaderWriterLock, BaseLockStepsAndWaits) {
  const std::string printed = Printed([] {
    CReaderWriterLockNonReentrance lock;
    auto counts = [&] { return std::to_string(lock.ReaderCount()) + " " + std::to_string(lock.WriterCount()); };
    EXPECT_TRUE(lock.AcquireReaderLock(0));
    EXPECT_FALSE(lock.AcquireWriterLock(0) || lock.UpgradeToWriterLock(0));
    EXPECT_TRUE(lock.UpgradeToWriterLock(20)) << "a sole reader's writer wait runs out and finds the lock free";
    EXPECT_EQ("0 1", counts());
    EXPECT_FALSE(lock.AcquireReaderLock(0));
    lock.DowngradeFromWriterLock();
    EXPECT_EQ("1 0", counts());
    auto writer = std::async(std::launch::async, [&] { return lock.AcquireWriterLock(INFINITE); });
    WaitUntil([&] { return lock.WriterCount() == 1; });
    lock.ReleaseReaderLock();
    EXPECT_TRUE(writer.get());
    // A reader woken while a writer holds the lock again waits on, and gives
    // up when its time has run out; the next writer to leave lets one in.
    for (const unsigned int timeout : {30u, 2000u}) {
      auto reader = std::async(std::launch::async, [&] { return lock.AcquireReaderLock(timeout); });
      WaitUntil([&] { return lock.WaitingReaderCount() == 1; });
      lock.EnterCS();
      lock.ReleaseWriterLock();
      EXPECT_TRUE(timeout != 30 || lock.AcquireWriterLock(0));
      Sleep(60);
      lock.LeaveCS();
      EXPECT_EQ(timeout != 30, reader.get());
    }
    EXPECT_EQ("1 0", counts());
    lock.ReleaseReaderLock();
    EXPECT_TRUE(lock.AcquireWriterLock(0));
    lock.ReleaseWriterLock();
    EXPECT_EQ("0 0", counts());
  });
  EXPECT_EQ("", printed);
}

TEST(ReaderWriterLock, ReentranceUpgradesAndThreadRecords) {
  const std::string printed = Printed([] {
  CReaderWriterLock lock;
  ASSERT_TRUE(lock.AcquireReaderLock(0) && lock.AcquireWriterLock(0)) << "a sole reader upgrades at once";
  EXPECT_EQ("65537 0 1 1", State(lock) + " " + std::to_string(lock.ThreadListCapacity())) << "in one slot";
  lock.ReleaseAllLocks();
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_EQ(0x10001u, lock.GetCurrentThreadStatus()) << "reads low, writes high";
  unsigned int reads = 0, writes = 0;
  const unsigned int returned = lock.GetCurrentThreadStatus(&reads, &writes);
  EXPECT_EQ("1 1 1", std::to_string(returned) + " " + std::to_string(reads) + " " + std::to_string(writes))
      << "with counts asked for, the writes are returned";
  lock.ReleaseReaderLock();
  lock.AcquireWriterLock(INFINITE);
  EXPECT_EQ(1u, lock.WriterCount()) << "the base lock sees the thread once";
  lock.ReleaseWriterLock();
  lock.AcquireReaderLock(INFINITE);
  lock.ReleaseWriterLock();
  EXPECT_EQ("1 1 0", State(lock)) << "a reader inside a writer stays a reader";
  lock.ReleaseReaderLock();
  EXPECT_EQ(0, lock.ThreadRecordCount());

  // An upgrade from a shared read waits for the other reader and keeps the reads.
  OtherReader other(lock);
  std::atomic<unsigned int> status{0};
  auto upgrader = std::async(std::launch::async, [&] {
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireReaderLock(INFINITE);
    lock.AcquireWriterLock(INFINITE);
    status = lock.GetCurrentThreadStatus();
    lock.ReleaseAllLocks();
  });
  EXPECT_NE(std::future_status::ready, upgrader.wait_for(std::chrono::milliseconds(100)));
  other.Release();
  upgrader.wait();
  EXPECT_EQ(0x10002u, status.load());
  EXPECT_EQ("0 0 0", State(lock));

  // Beside another reader, a writer that may not wait, or whose wait runs
  // out, takes nothing; releasing what the thread does not hold changes
  // nothing; an upgrade that may not wait, or whose wait runs out, leaves the
  // thread reading as before.
  OtherReader holder(lock);
  EXPECT_FALSE(lock.AcquireWriterLock(0) || lock.AcquireWriterLock(30));
  lock.ReleaseReaderLock();
  lock.ReleaseWriterLock();
  lock.ReleaseAllLocks();
  EXPECT_EQ("0 1 0", State(lock));
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_FALSE(lock.AcquireWriterLock(0) || lock.AcquireWriterLock(30));
  EXPECT_EQ("1 2 0", State(lock));
  // With a writer queued, an upgrade whose wait runs out waits on as a reader
  // and takes the lock after that writer has been and gone.
  std::atomic<bool> writerDone{false};
  auto writer = std::async(std::launch::async, [&] {
    lock.AcquireWriterLock(INFINITE);
    writerDone = true;
    lock.ReleaseWriterLock();
  });
  WaitUntil([&] { return lock.WriterCount() == 1; });
  auto release = std::async(std::launch::async, [&] {
    WaitUntil([&] { return lock.WaitingReaderCount() == 1; });
    holder.Release();
  });
  EXPECT_TRUE(lock.AcquireWriterLock(30));
  EXPECT_TRUE(writerDone.load()) << "the queued writer went first";
  EXPECT_EQ("65537 0 1", State(lock));
  lock.ReleaseAllLocks();
  EXPECT_EQ("0 0 0", State(lock));
  for (int i = 0; i < 3; ++i) lock.AcquireReaderLock(INFINITE);
  lock.ReleaseAllLocks();
  EXPECT_EQ("0 0 0", State(lock)) << "three nested reads go in one step";
  });
  EXPECT_EQ("", printed);
}

TEST(ReaderWriterLock, WritersGoFirstAndEveryBlockedReaderProceeds) {
  CReaderWriterLock lock;
  OtherReader reader(lock);
  std::atomic<bool> writerHeld{false}, lateSawWriter{false};
  auto writer = std::async(std::launch::async, [&] {
    lock.AcquireWriterLock(INFINITE);
    writerHeld = true;
    Sleep(20);
    lock.ReleaseWriterLock();
  });
  WaitUntil([&] { return lock.WriterCount() == 1; });
  EXPECT_FALSE(lock.AcquireReaderLock(0)) << "a waiting writer shuts out new readers";
  EXPECT_FALSE(lock.AcquireReaderLock(50));
  EXPECT_EQ(0u, lock.WaitingReaderCount()) << "a timed-out reader leaves the counts as they were";
  auto late = std::async(std::launch::async, [&] {
    lock.AcquireReaderLock(INFINITE);
    lateSawWriter = writerHeld.load();
    lock.ReleaseReaderLock();
  });
  reader.Release();
  writer.wait();
  late.wait();
  EXPECT_TRUE(lateSawWriter.load()) << "the writer went first";

  // Liveness: every reader blocked behind a writer proceeds once it leaves,
  // with no later writer to signal them.
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  std::atomic<int> acquired{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) readers.emplace_back([&] {
    lock.AcquireReaderLock(INFINITE);
    ++acquired;
    while (acquired < 3) usleep(1000);  // all three inside together
    lock.ReleaseReaderLock();
  });
  WaitUntil([&] { return lock.WaitingReaderCount() == 3; });
  lock.ReleaseWriterLock();
  for (auto& t : readers) t.join();
  EXPECT_EQ(3, acquired.load());
}

// The exit flag is written and read under glock's writer lock: both wait for
// a reader on another thread.
TEST(ReaderWriterLock, ExitFlagWaitsForGlock) {
  OtherReader reader(glock);
  auto set = std::async(std::launch::async, [] { SetExitFlag(true); });
  auto get = std::async(std::launch::async, [] { return GetExitFlag(); });
  EXPECT_NE(std::future_status::ready, get.wait_for(std::chrono::milliseconds(50)));
  EXPECT_FALSE(bExitFlag);
  reader.Release();
  set.get();
  get.get();
  EXPECT_TRUE(GetExitFlag());
  SetExitFlag(false);
}

// The growth rule: size/8 clamped to 4..1024; a first allocation takes exactly
// index + 1 zeroed slots; removal moves the rest down in order.
TEST(CArray, GrowthRule) {
  CArray<int, int> list;
  for (int i = 0; i < 40; ++i) list.Add(i);
  EXPECT_EQ(41, list.GetCapacity()) << "1, 5, ... 37, then 37 + 4";
  list.Add(40);
  list.Add(41);
  EXPECT_EQ(46, list.GetCapacity()) << "41 + 41/8";
  list.RemoveAt(0);
  for (const int outside : {-1, 41}) list.RemoveAt(outside);
  EXPECT_EQ(41, list.GetSize()) << "an index outside the list removes nothing";
  EXPECT_EQ(1, list.GetAt(0));
  EXPECT_EQ(41, list.GetAt(40));
  CArray<int, int> sparse;
  sparse.SetAtGrow(9, 5);
  EXPECT_EQ(10, sparse.GetCapacity());
  EXPECT_EQ(0, sparse.GetAt(3));
  CArray<int, int> big;
  for (int i = 0; i < 9000 || big.GetSize() < big.GetCapacity(); ++i) big.Add(0);
  const int full = big.GetCapacity();
  big.Add(0);
  EXPECT_EQ(full + 1024, big.GetCapacity()) << "at most 1024 slots at a time";
}

}  // namespace
