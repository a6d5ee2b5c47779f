#include "platform/rwlock.h"

#include <cstring>

#include "platform/critical_section.h"
#include "platform/event.h"
#include "platform/system_time.h"
#include "platform/thread.h"

namespace {

// A reader that waits without limit wakes at least this often to look at the
// writer count again. One signal of the reader event lets only one blocked
// reader through, so without this the readers behind the first could stay
// blocked after the last writer left, until some later writer came.
constexpr unsigned int kReaderWaitSliceMs = 10;

constexpr unsigned int kWriterUnit = 0x10000;

}  // namespace

// ---------------------------------------------------------------------------
// CReaderWriterLockNonReentrance

CReaderWriterLockNonReentrance::CReaderWriterLockNonReentrance()
    : m_hSafeToWriteEvent(nullptr),
      m_hSafeToReadEvent(nullptr),
      m_iNumOfWriter(0),
      m_iNumOfReaderEntered(0),
      m_iNumOfReaderWaiting(0) {
  memset(&m_cs, 0, sizeof(m_cs));
  InitializeCriticalSection(&m_cs);
}

CReaderWriterLockNonReentrance::~CReaderWriterLockNonReentrance() { DeleteCriticalSection(&m_cs); }

void CReaderWriterLockNonReentrance::EnterCS() { EnterCriticalSection(&m_cs); }

void CReaderWriterLockNonReentrance::LeaveCS() { LeaveCriticalSection(&m_cs); }

unsigned int CReaderWriterLockNonReentrance::WriterCount() {
  EnterCS();
  unsigned int n = m_iNumOfWriter;
  LeaveCS();
  return n;
}

unsigned int CReaderWriterLockNonReentrance::ReaderCount() {
  EnterCS();
  unsigned int n = m_iNumOfReaderEntered;
  LeaveCS();
  return n;
}

unsigned int CReaderWriterLockNonReentrance::WaitingReaderCount() {
  EnterCS();
  unsigned int n = m_iNumOfReaderWaiting;
  LeaveCS();
  return n;
}

BOOL CReaderWriterLockNonReentrance::_ReaderWait(unsigned int timeoutMs) {
  BOOL acquired = FALSE;
  ++m_iNumOfReaderWaiting;
  if (m_hSafeToReadEvent == nullptr) m_hSafeToReadEvent = CreateEvent(nullptr, 1, 0, nullptr);
  void* readEvent = m_hSafeToReadEvent;

  if (timeoutMs == INFINITE) {
    do {
      LeaveCS();
      WaitForEvent(readEvent, kReaderWaitSliceMs);
      EnterCS();
    } while (m_iNumOfWriter != 0);
    acquired = TRUE;
  } else {
    LeaveCS();
    const unsigned int start = GetTickCount();
    unsigned int elapsed = 0;
    for (;;) {
      unsigned int result = WaitForEvent(readEvent, timeoutMs - elapsed);
      EnterCS();
      if (m_iNumOfWriter == 0) {
        acquired = TRUE;
        break;
      }
      if (result != WAIT_OBJECT_0) break;
      LeaveCS();
      elapsed = GetTickCount() - start;
      if (timeoutMs < elapsed) {
        EnterCS();
        break;
      }
    }
  }

  if (acquired) ++m_iNumOfReaderEntered;
  if (--m_iNumOfReaderWaiting == 0) {
    CloseEvent(m_hSafeToReadEvent);
    m_hSafeToReadEvent = nullptr;
  }
  return acquired;
}

BOOL CReaderWriterLockNonReentrance::_WriterWaitAndLeaveCSIfSuccess(unsigned int timeoutMs) {
  ++m_iNumOfWriter;
  if (m_iNumOfWriter == 1 && m_hSafeToReadEvent != nullptr) ResetEvent(m_hSafeToReadEvent);
  if (m_hSafeToWriteEvent == nullptr) m_hSafeToWriteEvent = CreateEvent(nullptr, 0, 0, nullptr);
  void* writeEvent = m_hSafeToWriteEvent;
  LeaveCS();

  if (WaitForEvent(writeEvent, timeoutMs) == WAIT_OBJECT_0) return TRUE;

  EnterCS();
  --m_iNumOfWriter;
  if (m_iNumOfWriter != 0) return FALSE;
  CloseEvent(m_hSafeToWriteEvent);
  m_hSafeToWriteEvent = nullptr;
  if (m_iNumOfReaderEntered == 0) {
    // The lock became free while this writer gave up: take it after all.
    ++m_iNumOfWriter;
    LeaveCS();
    return TRUE;
  }
  if (m_hSafeToReadEvent != nullptr) SetEvent(m_hSafeToReadEvent);
  return FALSE;
}

BOOL CReaderWriterLockNonReentrance::_UpgradeToWriterLockAndLeaveCS(unsigned int timeoutMs) {
  if (timeoutMs == 0) {
    LeaveCS();
    return FALSE;
  }
  --m_iNumOfReaderEntered;
  if (_WriterWaitAndLeaveCSIfSuccess(timeoutMs)) return TRUE;

  BOOL upgraded = FALSE;
  if (m_iNumOfWriter != 0) {
    _ReaderWait(INFINITE);
    if (m_iNumOfReaderEntered == 1) {
      m_iNumOfReaderEntered = 0;
      m_iNumOfWriter = 1;
      upgraded = TRUE;
    }
  } else {
    ++m_iNumOfReaderEntered;
  }
  LeaveCS();
  return upgraded;
}

void CReaderWriterLockNonReentrance::_ReaderRelease() {
  if (--m_iNumOfReaderEntered == 0 && m_hSafeToWriteEvent != nullptr) SetEvent(m_hSafeToWriteEvent);
}

void CReaderWriterLockNonReentrance::_WriterRelease(bool downgrade) {
  if (downgrade) ++m_iNumOfReaderEntered;
  --m_iNumOfWriter;
  if (m_iNumOfWriter != 0) {
    // Hand over to the next writer. After a downgrade the waiting writer is
    // woken by the last reader release instead.
    if (!downgrade) SetEvent(m_hSafeToWriteEvent);
    return;
  }
  if (m_hSafeToWriteEvent != nullptr) {
    CloseEvent(m_hSafeToWriteEvent);
    m_hSafeToWriteEvent = nullptr;
  }
  if (m_hSafeToReadEvent != nullptr) SetEvent(m_hSafeToReadEvent);
}

BOOL CReaderWriterLockNonReentrance::AcquireReaderLock(unsigned int timeoutMs) {
  EnterCS();
  BOOL acquired;
  if (m_iNumOfWriter == 0) {
    ++m_iNumOfReaderEntered;
    acquired = TRUE;
  } else if (timeoutMs == 0) {
    acquired = FALSE;
  } else {
    acquired = _ReaderWait(timeoutMs);
  }
  LeaveCS();
  return acquired;
}

void CReaderWriterLockNonReentrance::ReleaseReaderLock() {
  EnterCS();
  _ReaderRelease();
  LeaveCS();
}

BOOL CReaderWriterLockNonReentrance::AcquireWriterLock(unsigned int timeoutMs) {
  EnterCS();
  if (m_iNumOfReaderEntered == 0 && m_iNumOfWriter == 0) {
    ++m_iNumOfWriter;
    LeaveCS();
    return TRUE;
  }
  if (timeoutMs == 0) {
    LeaveCS();
    return FALSE;
  }
  if (_WriterWaitAndLeaveCSIfSuccess(timeoutMs)) return TRUE;
  LeaveCS();
  return FALSE;
}

void CReaderWriterLockNonReentrance::ReleaseWriterLock() {
  EnterCS();
  _WriterRelease(false);
  LeaveCS();
}

BOOL CReaderWriterLockNonReentrance::UpgradeToWriterLock(unsigned int timeoutMs) {
  EnterCS();
  return _UpgradeToWriterLockAndLeaveCS(timeoutMs);
}

void CReaderWriterLockNonReentrance::DowngradeFromWriterLock() {
  EnterCS();
  _WriterRelease(true);
  LeaveCS();
}

// ---------------------------------------------------------------------------
// CReaderWriterLock

CReaderWriterLock::CReaderWriterLock() = default;

CReaderWriterLock::~CReaderWriterLock() {
  for (int i = 0; i < m_threads.GetSize(); ++i) delete m_threads.GetAt(i);
  m_threads.RemoveAll();
  while (m_freeRecords != nullptr) {
    SThreadStateInfo* next = reinterpret_cast<SThreadStateInfo*>(m_freeRecords->next);
    delete m_freeRecords;
    m_freeRecords = next;
  }
}

int CReaderWriterLock::FindThread(unsigned int threadId) const {
  for (int i = 0; i < m_threads.GetSize(); ++i) {
    if (m_threads.GetAt(i)->threadId == threadId) return i;
  }
  return -1;
}

// Records are recycled through a free list kept under the guard: a lock taken
// and released on every log call would otherwise allocate and free a record
// each time.
void CReaderWriterLock::AppendThread(unsigned int threadId, unsigned int state) {
  SThreadStateInfo* record = m_freeRecords;
  if (record != nullptr) {
    m_freeRecords = reinterpret_cast<SThreadStateInfo*>(record->next);
  } else {
    record = new SThreadStateInfo;
  }
  record->threadId = threadId;
  record->state = state;
  record->next = nullptr;
  m_threads.SetAtGrow(m_threads.GetSize(), record);
}

void CReaderWriterLock::RemoveThreadAt(int index) {
  SThreadStateInfo* record = m_threads.GetAt(index);
  m_threads.RemoveAt(index);
  record->next = m_freeRecords;
  m_freeRecords = record;
}

BOOL CReaderWriterLock::AcquireReaderLock(unsigned int timeoutMs) {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  if (index >= 0) {
    SThreadStateInfo* record = m_threads.GetAt(index);
    LeaveCS();
    record->state += 1;
    return TRUE;
  }
  BOOL acquired;
  if (m_iNumOfWriter == 0) {
    ++m_iNumOfReaderEntered;
    acquired = TRUE;
  } else if (timeoutMs == 0) {
    acquired = FALSE;
  } else {
    acquired = _ReaderWait(timeoutMs);
  }
  if (acquired) AppendThread(threadId, 1);
  LeaveCS();
  return acquired;
}

BOOL CReaderWriterLock::AcquireWriterLock(unsigned int timeoutMs) {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  if (index >= 0) {
    SThreadStateInfo* record = m_threads.GetAt(index);
    if ((record->state & 0xFFFF0000u) == 0) {
      // A reader upgrading.
      if (m_iNumOfReaderEntered == 1) {
        m_iNumOfReaderEntered = 0;
        ++m_iNumOfWriter;
        LeaveCS();
      } else if (!_UpgradeToWriterLockAndLeaveCS(timeoutMs)) {
        return FALSE;
      }
      record->state += kWriterUnit;
      return TRUE;
    }
    record->state += kWriterUnit;
    LeaveCS();
    return TRUE;
  }
  if (m_iNumOfReaderEntered == 0 && m_iNumOfWriter == 0) {
    ++m_iNumOfWriter;
    AppendThread(threadId, kWriterUnit);
    LeaveCS();
    return TRUE;
  }
  if (timeoutMs == 0) {
    LeaveCS();
    return FALSE;
  }
  if (!_WriterWaitAndLeaveCSIfSuccess(timeoutMs)) {
    LeaveCS();
    return FALSE;
  }
  EnterCS();
  AppendThread(threadId, kWriterUnit);
  LeaveCS();
  return TRUE;
}

void CReaderWriterLock::ReleaseReaderLock() {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  // No record, or a record without a reader part: this thread does not read.
  if (index < 0 || (m_threads.GetAt(index)->state & 0xFFFFu) == 0) {
    LeaveCS();
    return;
  }
  SThreadStateInfo* record = m_threads.GetAt(index);
  record->state -= 1;
  if (record->state == 0) {
    RemoveThreadAt(index);
    _ReaderRelease();
  }
  LeaveCS();
}

void CReaderWriterLock::ReleaseWriterLock() {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  // No record, or a record without a writer part: this thread does not write.
  if (index < 0 || (m_threads.GetAt(index)->state & 0xFFFF0000u) == 0) {
    LeaveCS();
    return;
  }
  SThreadStateInfo* record = m_threads.GetAt(index);
  record->state -= kWriterUnit;
  if (record->state == 0) {
    RemoveThreadAt(index);
    _WriterRelease(false);
  } else if (record->state < kWriterUnit) {
    // The thread still reads: keep it in the base lock as a reader.
    _WriterRelease(true);
  }
  LeaveCS();
}

void CReaderWriterLock::ReleaseAllLocks() {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  if (index < 0) {
    LeaveCS();
    return;
  }
  unsigned int state = m_threads.GetAt(index)->state;
  RemoveThreadAt(index);
  if (state > 0xFFFF) {
    _WriterRelease(false);
  } else {
    _ReaderRelease();
  }
  LeaveCS();
}

unsigned int CReaderWriterLock::GetCurrentThreadStatus() {
  const unsigned int threadId = GetCurrentThreadId();
  EnterCS();
  int index = FindThread(threadId);
  unsigned int state = index >= 0 ? m_threads.GetAt(index)->state : 0;
  LeaveCS();
  return state;
}

unsigned int CReaderWriterLock::GetCurrentThreadStatus(unsigned int* readers, unsigned int* writers) {
  unsigned int state = GetCurrentThreadStatus();
  if (readers != nullptr) *readers = state & 0xFFFF;
  if (writers == nullptr) return state;
  *writers = state >> 16;
  return *writers;
}

int CReaderWriterLock::ThreadRecordCount() {
  EnterCS();
  int n = m_threads.GetSize();
  LeaveCS();
  return n;
}

int CReaderWriterLock::ThreadListCapacity() {
  EnterCS();
  int n = m_threads.GetCapacity();
  LeaveCS();
  return n;
}
