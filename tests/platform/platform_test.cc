// The Win32-named system layer on POSIX, API by API: events and semaphores,
// critical sections, threads, time, process helpers, tracked global
// memory, files and folders, and the reader-writer locks.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
// Results of a sequence of calls, made in order (a braced list is evaluated left to right).
using Results = std::vector<long long>;

bool SemaphoreExists(const std::string& name) { return access(("/dev/shm/sem." + name).c_str(), F_OK) == 0; }

// What f prints to standard output.
std::string Printed(const std::function<void()>& f) {
  fflush(stdout), testing::internal::CaptureStdout(), f();
  return testing::internal::GetCapturedStdout();
}

template <class F>
auto Async(F f) { return std::async(std::launch::async, f); }

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
  const struct { signed char manual, initial; const char *script, *results; } rows[] = {
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
      const unsigned int result = *op == 's' ? SetEvent(event.get()) : *op == 'r' ? ResetEvent(event.get())
                                  : WaitForEvent(event.get(), *op == 'z' ? 0 : 10);
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
  const unsigned int start = GetTickCount();
  std::thread setter;
  // The last row: resetting no event succeeds.
  EXPECT_EQ((Results{258, 258, 1, 0, 1}),
            (Results{WaitForEvent(set.get(), 67108864u), WaitForEvent(idle.get(), 5000),
                     GetTickCount() - start >= 690 && GetTickCount() - start < 3000,
                     (setter = std::thread([&] { Sleep(30), SetEvent(idle.get()); }), WaitForEvent(idle.get(), INFINITE)),
                     ResetEvent(nullptr)}));
  setter.join();
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
  Event first = (SetGlobalSeed(77), MakeEvent(0, 0)), second = MakeEvent(0, 0);
  SetGlobalSeed(0);
  const std::string n1 = GetEventName(first.get()), n2 = GetEventName(second.get()),
                    prefix = "ce0" + std::to_string(getpid()) + "_";
  const unsigned long counter = std::stoul(n1.substr(prefix.size()));
  EXPECT_EQ(prefix + std::to_string(counter) + "_77 " + prefix + std::to_string(counter + 1) + "_77", n1 + " " + n2)
      << "a process-wide counter";
  const size_t mapped = SemaphoresMapped();
  // Closing unlinks the name and unmaps the semaphore.
  EXPECT_EQ((Results{1, 0, 1}), (Results{SemaphoreExists(n1), (first.reset(), SemaphoreExists(n1)),
                                         mapped - 1 == SemaphoresMapped()}));
}

// A given name keeps 31 characters; OpenEvent reaches the same semaphore by it
// until CloseEvent unlinks it. Semaphores: one post per release, a finite wait
// gives up with 0xFFFFFFFF after its time, closing keeps the name. Failures
// print a line with errno.
TEST(Event, NamedEventsAndSemaphores) {
  const std::string name = ("qsEvent" + std::to_string(getpid()) + std::string(31, 'n')).substr(0, 31);
  std::string semaphoreName = "qsSem" + std::to_string(getpid());
  Event created(CreateEvent(nullptr, 0, 0, (name + "tail").c_str()), CloseEvent);
  void *full = CreateSemaphore(nullptr, 2147483647, 1, &semaphoreName[0]),
       *counted = CreateSemaphore(nullptr, 1, 1, nullptr);
  const size_t mapped = SemaphoresMapped();
  unsigned int start = 0;
  EXPECT_EQ("CreateEvent sem_open failed 17 name " + name + "\nOpenEvent sem_open failed 22\nSetEvent sem_post failed 75\n"
            "sem_post failed 75\nsem_open failed 17\nOpenEvent sem_open failed 2\n", Printed([&] {
    Event opened(OpenEvent(0, 0, name.c_str()), CloseEvent),
        atMaximum(OpenEvent(0, 0, semaphoreName.c_str()), CloseEvent);
    EXPECT_EQ((Results{1, 1, 1, 1, 1, 0, 0, 1, 0, 0xFFFFFFFF, 1, 0, 1, 1, 1, 1}),
              (Results{name == GetEventName(created.get()), name == GetEventName(opened.get()),
               CreateEvent(nullptr, 0, 0, name.c_str()) == nullptr, OpenEvent(0, 0, nullptr) == nullptr,
               SetEvent(opened.get()), WaitForEvent(created.get(), 10),  // the same semaphore
               WaitForSemaphone(counted, 20), ReleaseSemaphore(counted, 5, nullptr), WaitForSemaphone(counted, INFINITE),
               (start = GetTickCount(), WaitForSemaphone(counted, 20)), GetTickCount() - start >= 18,
               SetEvent(atMaximum.get()), ReleaseSemaphore(full, 1, nullptr),  // the count is at its maximum
               CreateSemaphore(nullptr, 0, 1, &semaphoreName[0]) == nullptr,  // the name is taken
               (CloseSemaphore(full), SemaphoreExists(semaphoreName)),
               (opened.reset(), OpenEvent(0, 0, name.c_str()) == nullptr)}));
  }));
  CloseSemaphore(counted);
  EXPECT_EQ(mapped - 2, SemaphoresMapped());
  EXPECT_EQ(0, unlink(("/dev/shm/sem.Sem" + std::to_string(getpid()) + "_1_0").c_str())) << "a generated name, kept";
}

// ---- Threads and time ------------------------------------------

void* Spin(void*) { for (;;) usleep(1000); }
void* Count(void* counter) { return InterlockedIncrement(static_cast<int*>(counter)), nullptr; }

// A finite WaitForThread cancels the thread before joining it; the infinite one only joins.
TEST(Thread, CreateWaitAndCancel) {
  int counter = 5;
  pthread_t slot;
  void *counting = CreateThread(nullptr, 0, Count, &counter, 0, nullptr, nullptr),
       *terminated = CreateThread(nullptr, 0, Spin, nullptr, 0, nullptr, nullptr);
  EXPECT_EQ((Results{0, 5, 5, 1, 0, 0, -1}),
            (Results{WaitForThread(counting, INFINITE), InterlockedDecrement(&counter), counter,
                     CreateThread(nullptr, 0, Spin, nullptr, 0, nullptr, &slot) == &slot, WaitForThread(&slot, 0),
                     (TerminateThread(terminated, 0), WaitForThread(terminated, INFINITE)), WaitForThread(nullptr, 0)}));
  CloseThread(counting), CloseThread(terminated);
}

TEST(Time, TicksWrapIn32BitsAndSystemTimeIsLocal) {
  // 4,294,967,296 ms is exactly 2^32; nanoseconds are truncated to whole ms.
  // Sleep multiplies in 32 bits: 4,294,968 ms wraps to 704 us.
  const unsigned int before = GetTickCount();
  EXPECT_EQ((Results{0, 4294967295, 1}), (Results{TickCountFromClock(4294967, 296000000), TickCountFromClock(4294967, 295999999),
                                                  (Sleep(4294968), GetTickCount() - before < 1000)}));
  setenv("TZ", "UTC-2", 1), tzset();  // two hours east of UTC
  _SYSTEMTIME st{};
  st.wDayOfWeek = 6, st.wMilliseconds = 5;
  ConvertTimeToSystemTime(st, 86400L * 365 + 3600 + 61);  // 1971-01-01 01:01:01 UTC
  EXPECT_EQ((Results{1971, 1, 1, 3, 1, 1, 0, 5}),
            (Results{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wDayOfWeek, st.wMilliseconds}));
  unsetenv("TZ"), tzset();
}

// ---- Processes ---------------------------------------------------------------------

TEST(Process, ResidentSizeFromTheStatusFile) {
  TempDir dir;
  WriteFile(dir / "status", "Name:\tx\nVmSize:\t  9999 kB\nVmRSS:\t    2048 kB\nThreads:\t1\n");
  WriteFile(dir / "none", "Name:\tx\nVmSize:\t 9 kB\n");
  EXPECT_EQ((Results{2097152, 0}), (Results{GetVmRssFromStatusFile((dir / "status").c_str()),
                                            GetVmRssFromStatusFile((dir / "none").c_str())}));
}

// ---- Files and folders ---------------------------------------------------------------

TEST(File, OpensReadsCopiesAndAttributes) {
  TempDir dir;
  const std::string path = dir / "f";
  EXPECT_EQ(nullptr, CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  FILE *file = CreateFile(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr), *appendOnly = nullptr;
  // The high part of the size is not written; a short read at the end
  // succeeds; a stream that cannot be read fails.
  unsigned int count = 0, high = 77, got[3] = {9, 9, 9};
  char bytes[9] = {};
  EXPECT_EQ((Results{1, 10, 77, 0, 1, 1, 0, 0, 8, 2, 0}),
            (Results{WriteFile(file, "0123456789", 10, &count, nullptr), GetFileSize(file, &high), high,
                     SetFilePointer(file, 0, nullptr, 0), ReadFile(file, bytes, 8, &got[0], nullptr),
                     ReadFile(file, bytes, 8, &got[1], nullptr),
                     ReadFile(appendOnly = fopen(path.c_str(), "a"), bytes, 8, &got[2], nullptr),
                     ReadFile(nullptr, bytes, 8, nullptr, nullptr), got[0], got[1], got[2]}));
  EXPECT_EQ("89234567 1", std::string(bytes) + " " + std::to_string(QSCloseFile(file) && fclose(appendOnly) == 0));
  // Disposition 2 without the write bit truncates, then opens read-only.
  file = CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  EXPECT_EQ((Results{0, 0, 1}),
            (Results{GetFileSize(file, nullptr), WriteFile(file, "x", 1, &count, nullptr), CloseFile(file)}));

  // Whole files are read in 1 MiB pieces and terminated; 0 means success.
  const std::string content = std::string(1024 * 1024, 'a') + 'b' + std::string(2 * 1024 * 1024 + 4, 'a');
  WriteFile(dir / "big", content);
  unsigned char* data = nullptr;
  int size = -1;
  ASSERT_EQ((Results{0, static_cast<long long>(content.size())}),
            (Results{ReadFileByName((dir / "big").c_str(), &data, &size), size}));
  EXPECT_EQ((Results{0, 0}), (Results{memcmp(data, content.data(), content.size()), data[size]}));
  free(data);

  // Read-only is never reported; the last write time is in seconds (0 for a
  // missing file); ImgChmodForLinux opens the file to all.
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  chmod(path.c_str(), 0444), utimensat(AT_FDCWD, path.c_str(), times, 0);
  _FILETIME written{7, 7}, missing{7, 7};
  std::string names[2] = {path, dir / "missing"};
  struct stat st {};
  EXPECT_EQ((Results{0, 16, 0xFFFFFFFF, 1, 1, 1000000000, 7, 0, 7, 0, 0777}),
            (Results{GetFileAttributes(path.c_str()), GetFileAttributes(dir.path().c_str()),
                     GetFileAttributes(names[1].c_str()), GetFileTime(&names[0][0], nullptr, nullptr, &written),
                     GetFileTime(&names[1][0], nullptr, nullptr, &missing), written.dwLowDateTime,
                     written.dwHighDateTime, missing.dwLowDateTime, missing.dwHighDateTime,
                     ImgChmodForLinux(path.c_str()) + stat(path.c_str(), &st), st.st_mode & 07777}));
  EXPECT_EQ((Results{1, 0}), (Results{DeleteFile(path.c_str()), DeleteFile(path.c_str())}));
  // DeleteFileOrDir ignores what is not there and removes a file or a folder.
  for (const char* ignored : {static_cast<const char*>(nullptr), "", path.c_str()}) DeleteFileOrDir(ignored);
  mkdir((dir / "sub").c_str(), 0777), WriteFile(dir / "sub/x", "1"), WriteFile(path, "1");
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
  WriteFile(root + "/d1/x", "1"), WriteFile(root + "/d2/y", "2");
  // One of the two is left by the first call; the third removes the emptied folder.
  EXPECT_EQ((Results{1, 1, 1, 1, 0, 0}),
            (Results{RemoveDir(root.c_str()), PathExists(root + "/d1") != PathExists(root + "/d2"),
                     RemoveDir(root.c_str()), RemoveDir(root.c_str()), PathExists(root), RemoveDir(root.c_str())}));
  EXPECT_EQ(descriptors, qs_test::OpenDescriptors()) << "every folder read is closed";
  // The siblings of a path older than two days go, newer ones stay.
  for (const char* sub : {"u", "u/old", "u/new"}) mkdir((dir / sub).c_str(), 0777);
  const timespec threeDaysAgo[2] = {{time(nullptr) - 3 * 86400, 0}, {time(nullptr) - 3 * 86400, 0}};
  utimensat(AT_FDCWD, (dir / "u/old").c_str(), threeDaysAgo, 0);
  // Old gone, new kept.
  EXPECT_EQ((Results{1, 0, 1}), (Results{RemoveUndeletedDir((dir / "u/new/").c_str()), PathExists(dir / "u/old"),
                                         PathExists(dir / "u/new")}));
}

// ---- Reader-writer locks ---------------------------------------------------------------

// "status readers writers" of the calling thread and the lock.
std::string State(CReaderWriterLock& lock) {
  return std::to_string(lock.GetCurrentThreadStatus()) + " " + std::to_string(lock.ReaderCount()) + " " +
         std::to_string(lock.WriterCount());
}

// Another thread that holds a reader lock from construction until Release().
struct OtherReader {
  explicit OtherReader(CReaderWriterLock& lock) : thread_([this, &lock] {
    lock.AcquireReaderLock(INFINITE), holds_ = true;
    while (!release_) usleep(1000);
    lock.ReleaseReaderLock();
  }) { WaitUntil([this] { return holds_.load(); }); }
  ~OtherReader() { Release(); }
  void Release() { release_ = true, thread_.joinable() ? thread_.join() : void(); }
  std::atomic<bool> holds_{false}, release_{false};
  std::thread thread_;
};

// The base lock step by step, with a second thread where a step waits. Every
// step leaves the guard as it found it: a guard left held or left unentered
// prints a failure line.
TEST(ReaderWriterLock, BaseLockStepsAndWaits) {
  EXPECT_EQ("", Printed([] {
    CReaderWriterLockNonReentrance lock;
    auto counts = [&] { return lock.ReaderCount() * 10 + lock.WriterCount(); };
    // A sole reader's upgrade with time to wait runs out and finds the lock free.
    EXPECT_EQ((Results{1, 0, 0, 0, 1, 1, 0, 10}),
              (Results{lock.AcquireReaderLock(0), lock.AcquireWriterLock(0), lock.UpgradeToWriterLock(0),
                       lock.AcquireWriterLock(20), lock.UpgradeToWriterLock(20), counts(), lock.AcquireReaderLock(0),
                       (lock.DowngradeFromWriterLock(), counts())}));
    auto writer = Async([&] { return lock.AcquireWriterLock(INFINITE); });
    WaitUntil([&] { return lock.WriterCount() == 1; });
    EXPECT_TRUE((lock.ReleaseReaderLock(), writer.get()));
    // A reader woken while a writer holds the lock again waits on, and gives
    // up when its time has run out; the next writer to leave lets one in.
    for (const unsigned int timeout : {30u, 2000u}) {
      auto reader = Async([&] { return lock.AcquireReaderLock(timeout); });
      WaitUntil([&] { return lock.WaitingReaderCount() == 1; });
      lock.EnterCS(), lock.ReleaseWriterLock(), timeout == 30 && lock.AcquireWriterLock(0);
      Sleep(60), lock.LeaveCS();
      EXPECT_EQ(timeout != 30, reader.get());
    }
    EXPECT_EQ((Results{10, 1, 1, 0}), (Results{counts(), (lock.ReleaseReaderLock(), lock.AcquireWriterLock(0)),
                                                  counts(), (lock.ReleaseWriterLock(), counts())}));
  }));
}

TEST(ReaderWriterLock, ReentranceUpgradesAndThreadRecords) {
  CReaderWriterLock lock;
  ASSERT_TRUE(lock.AcquireReaderLock(0) && lock.AcquireWriterLock(0)) << "a sole reader upgrades at once";
  EXPECT_EQ("65537 0 1 1", State(lock) + " " + std::to_string(lock.ThreadListCapacity())) << "in one slot";
  lock.ReleaseAllLocks();
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE) && lock.AcquireReaderLock(INFINITE));
  unsigned int reads = 0, writes = 0;
  // Reads low, writes high; with counts asked for, the writes are returned;
  // the base lock sees the thread once.
  EXPECT_EQ((Results{0x10001, 1, 1, 1, 1}),
            (Results{lock.GetCurrentThreadStatus(), lock.GetCurrentThreadStatus(&reads, &writes), reads, writes,
                     (lock.ReleaseReaderLock(), lock.AcquireWriterLock(INFINITE), lock.WriterCount())}));
  EXPECT_EQ("1 1 0", (lock.ReleaseWriterLock(), lock.AcquireReaderLock(INFINITE), lock.ReleaseWriterLock(), State(lock)))
      << "a reader inside a writer stays a reader";
  EXPECT_EQ(0, (lock.ReleaseReaderLock(), lock.ThreadRecordCount()));

  // An upgrade from a shared read waits for the other reader and keeps the reads.
  OtherReader other(lock);
  std::atomic<unsigned int> status{0};
  auto upgrader = Async([&] {
    lock.AcquireReaderLock(INFINITE), lock.AcquireReaderLock(INFINITE), lock.AcquireWriterLock(INFINITE);
    status = lock.GetCurrentThreadStatus(), lock.ReleaseAllLocks();
  });
  EXPECT_NE(std::future_status::ready, upgrader.wait_for(std::chrono::milliseconds(100)));
  other.Release(), upgrader.wait();
  EXPECT_EQ(std::to_string(0x10002) + " 0 0 0", std::to_string(status.load()) + " " + State(lock));

  // Beside another reader, a writer that may not wait, or whose wait runs
  // out, takes nothing, and releasing what the thread does not hold changes
  // nothing; an upgrade that may not wait, or whose wait runs out, leaves the
  // thread reading as before.
  OtherReader holder(lock);
  EXPECT_FALSE(lock.AcquireWriterLock(0) || lock.AcquireWriterLock(30));
  EXPECT_EQ("0 1 0", (lock.ReleaseReaderLock(), lock.ReleaseWriterLock(), lock.ReleaseAllLocks(), State(lock)));
  ASSERT_TRUE(lock.AcquireReaderLock(INFINITE));
  EXPECT_FALSE(lock.AcquireWriterLock(0) || lock.AcquireWriterLock(30));
  EXPECT_EQ("1 2 0", State(lock));
  // With a writer queued, an upgrade whose wait runs out waits on as a reader
  // and takes the lock after that writer has been and gone.
  std::atomic<bool> writerDone{false};
  auto writer = Async([&] { lock.AcquireWriterLock(INFINITE), writerDone = true, lock.ReleaseWriterLock(); });
  WaitUntil([&] { return lock.WriterCount() == 1; });
  auto release = Async([&] { WaitUntil([&] { return lock.WaitingReaderCount() == 1; }), holder.Release(); });
  // The queued writer went first; three nested reads go in one step.
  const BOOL upgraded = lock.AcquireWriterLock(30);
  EXPECT_EQ("1 1 65537 0 1", std::to_string(upgraded) + " " + std::to_string(writerDone) + " " + State(lock));
  EXPECT_EQ("0 0 0", (lock.ReleaseAllLocks(), State(lock)));
  for (int i = 0; i < 3; ++i) lock.AcquireReaderLock(INFINITE);
  EXPECT_EQ("0 0 0", (lock.ReleaseAllLocks(), State(lock)));
}

TEST(ReaderWriterLock, WritersGoFirstAndEveryBlockedReaderProceeds) {
  CReaderWriterLock lock;
  OtherReader reader(lock);
  std::atomic<bool> writerHeld{false}, lateSawWriter{false};
  auto writer = Async([&] { lock.AcquireWriterLock(INFINITE), writerHeld = true, Sleep(20), lock.ReleaseWriterLock(); });
  WaitUntil([&] { return lock.WriterCount() == 1; });
  // A waiting writer shuts out new readers; a timed-out reader leaves the counts as they were.
  EXPECT_EQ((Results{0, 0, 0}),
            (Results{lock.AcquireReaderLock(0), lock.AcquireReaderLock(50), lock.WaitingReaderCount()}));
  auto late = Async([&] { lock.AcquireReaderLock(INFINITE), lateSawWriter = writerHeld.load(), lock.ReleaseReaderLock(); });
  EXPECT_TRUE((reader.Release(), writer.wait(), late.wait(), lateSawWriter.load())) << "the writer went first";

  // Liveness: every reader blocked behind a writer proceeds once it leaves,
  // with no later writer to signal them.
  ASSERT_TRUE(lock.AcquireWriterLock(INFINITE));
  std::atomic<int> acquired{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) readers.emplace_back([&] {
    lock.AcquireReaderLock(INFINITE), ++acquired;
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
  auto set = Async([] { SetExitFlag(true); });
  auto get = Async([] { return GetExitFlag(); });
  EXPECT_EQ((Results{0, 0}),
            (Results{get.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready, bExitFlag}));
  reader.Release(), set.get(), get.get();
  EXPECT_EQ((Results{1, 0}), (Results{GetExitFlag(), (SetExitFlag(false), GetExitFlag())}));
}

// The growth rule: size/8 clamped to 4..1024; a first allocation takes exactly
// index + 1 zeroed slots; removal moves the rest down in order.
TEST(CArray, GrowthRule) {
  CArray<int, int> list, sparse, big;
  for (int i = 0; i < 40; ++i) list.Add(i);
  EXPECT_EQ(41, list.GetCapacity()) << "1, 5, ... 37, then 37 + 4";
  EXPECT_EQ(46, (list.Add(40), list.Add(41), list.GetCapacity())) << "41 + 41/8";
  for (const int index : {0, -1, 41}) list.RemoveAt(index);
  // An index outside the list removes nothing.
  EXPECT_EQ((Results{41, 1, 41, 10, 0}), (Results{list.GetSize(), list.GetAt(0), list.GetAt(40),
                                                  (sparse.SetAtGrow(9, 5), sparse.GetCapacity()), sparse.GetAt(3)}));
  for (int i = 0; i < 9000 || big.GetSize() < big.GetCapacity(); ++i) big.Add(0);
  const int full = big.GetCapacity();
  EXPECT_EQ(full + 1024, (big.Add(0), big.GetCapacity())) << "at most 1024 slots at a time";
}

}  // namespace
