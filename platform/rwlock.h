// Reader-writer locks with timeouts, built on a critical section and events.
//
// Timeouts are milliseconds; 0x7FFFFFFF waits without limit and 0 does not
// wait. Acquire calls return nonzero when the lock was taken.
#pragma once

#include <pthread.h>

#include "platform/carray.h"
#include "platform/win_types.h"

// Many readers or one writer, writers preferred: the writer count includes
// waiting writers, and new readers wait while it is nonzero. Not re-entrant: a
// thread that takes it twice deadlocks or miscounts. The writer event (auto
// reset) exists while a writer waits; the reader event (manual reset) exists
// while a reader waits. A writer that times out but then finds the lock free
// takes it after all and reports success.
class CReaderWriterLockNonReentrance {
 public:
  CReaderWriterLockNonReentrance();
  // Destroys the guard only; events still open are not closed.
  ~CReaderWriterLockNonReentrance();
  CReaderWriterLockNonReentrance(const CReaderWriterLockNonReentrance&) = delete;
  CReaderWriterLockNonReentrance& operator=(const CReaderWriterLockNonReentrance&) = delete;

  void EnterCS();
  void LeaveCS();

  BOOL AcquireReaderLock(unsigned int timeoutMs);
  void ReleaseReaderLock();
  BOOL AcquireWriterLock(unsigned int timeoutMs);
  void ReleaseWriterLock();
  // Caller holds a reader lock; on return it holds the writer lock (nonzero) or
  // still its reader lock (0).
  BOOL UpgradeToWriterLock(unsigned int timeoutMs);
  // Caller holds the writer lock; afterwards it holds a reader lock.
  void DowngradeFromWriterLock();

  // Counts as the lock sees them (read under the guard).
  unsigned int WriterCount();
  unsigned int ReaderCount();
  unsigned int WaitingReaderCount();

 protected:
  // Each is entered with the guard held.
  BOOL _ReaderWait(unsigned int timeoutMs);
  // Leaves the guard only when it succeeds.
  BOOL _WriterWaitAndLeaveCSIfSuccess(unsigned int timeoutMs);
  BOOL _UpgradeToWriterLockAndLeaveCS(unsigned int timeoutMs);
  void _ReaderRelease();
  void _WriterRelease(bool downgrade);

  pthread_mutex_t m_cs;
  void* m_hSafeToWriteEvent;
  void* m_hSafeToReadEvent;
  unsigned int m_iNumOfWriter;
  unsigned int m_iNumOfReaderEntered;
  unsigned int m_iNumOfReaderWaiting;
};

// Adds re-entrance: per thread, how often it holds the lock for reading (low 16
// bits of its state) and writing (high 16 bits; each acquisition adds
// 0x10000). A thread may re-take either lock, read while it writes, and ask
// for the writer lock while it reads (an upgrade). The base lock sees each
// thread at most once. Releasing a lock the thread does not hold is ignored.
class CReaderWriterLock : public CReaderWriterLockNonReentrance {
 public:
  struct SThreadStateInfo {
    unsigned int threadId;  // kernel thread id
    unsigned int state;     // readers in the low, writers in the high 16 bits
    void* next;             // the free list, while the record is not in use
  };

  CReaderWriterLock();
  ~CReaderWriterLock();

  BOOL AcquireReaderLock(unsigned int timeoutMs);
  void ReleaseReaderLock();
  BOOL AcquireWriterLock(unsigned int timeoutMs);
  void ReleaseWriterLock();
  // Drops everything the calling thread holds in one step.
  void ReleaseAllLocks();
  // The calling thread's packed state, 0 when it holds nothing.
  unsigned int GetCurrentThreadStatus();
  // Unpacks it (either pointer may be null) and returns the writer count, or
  // the packed value when `writers` is null.
  unsigned int GetCurrentThreadStatus(unsigned int* readers, unsigned int* writers);

  // Threads that hold the lock, and the list's storage (for diagnostics).
  int ThreadRecordCount();
  int ThreadListCapacity();

 private:
  int FindThread(unsigned int threadId) const;
  void AppendThread(unsigned int threadId, unsigned int state);
  void RemoveThreadAt(int index);

  CArray<SThreadStateInfo*, SThreadStateInfo*> m_threads;
  SThreadStateInfo* m_freeRecords = nullptr;
};

// Holds a CReaderWriterLock for one scope without limit.
class ScopedReaderLock {
 public:
  explicit ScopedReaderLock(CReaderWriterLock& lock) : m_lock(lock) { m_lock.AcquireReaderLock(INFINITE); }
  ~ScopedReaderLock() { m_lock.ReleaseReaderLock(); }
  ScopedReaderLock(const ScopedReaderLock&) = delete;
  ScopedReaderLock& operator=(const ScopedReaderLock&) = delete;

 private:
  CReaderWriterLock& m_lock;
};

class ScopedWriterLock {
 public:
  explicit ScopedWriterLock(CReaderWriterLock& lock) : m_lock(lock) { m_lock.AcquireWriterLock(INFINITE); }
  ~ScopedWriterLock() { m_lock.ReleaseWriterLock(); }
  ScopedWriterLock(const ScopedWriterLock&) = delete;
  ScopedWriterLock& operator=(const ScopedWriterLock&) = delete;

 private:
  CReaderWriterLock& m_lock;
};
