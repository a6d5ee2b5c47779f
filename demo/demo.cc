// A short tour of the system layer: ticks and local time, an event handed
// between threads, the re-entrant reader-writer lock and tracked memory.
#include <cstdio>

#include "platform/event.h"
#include "platform/global_memory.h"
#include "platform/rwlock.h"
#include "platform/system_time.h"
#include "platform/thread.h"

namespace {

void* Signaller(void* event) {
  Sleep(20);
  SetEvent(event);
  return nullptr;
}

}  // namespace

int main() {
  _SYSTEMTIME now{};
  GetSystemTime(&now);
  printf("local time  %04u-%02u-%02u %02u:%02u:%02u, tick %u ms\n", now.wYear, now.wMonth, now.wDay,
         now.wHour, now.wMinute, now.wSecond, GetTickCount());

  void* event = CreateEvent(nullptr, 0, 0, nullptr);
  void* thread = CreateThread(nullptr, 0, Signaller, event, 0, nullptr, nullptr);
  unsigned int start = GetTickCount();
  unsigned int result = WaitForEvent(event, INFINITE);
  printf("event %s   signalled after %u ms (result %u)\n", GetEventName(event), GetTickCount() - start,
         result);
  WaitForThread(thread, INFINITE);
  CloseThread(thread);
  CloseEvent(event);

  CReaderWriterLock lock;
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireReaderLock(INFINITE);
  lock.AcquireWriterLock(INFINITE);
  unsigned int readers = 0;
  unsigned int writers = lock.GetCurrentThreadStatus(&readers, nullptr);
  printf("lock state  0x%05X (%u readers, %u writer)\n", lock.GetCurrentThreadStatus(), readers,
         writers >> 16);
  lock.ReleaseAllLocks();

  void* block = GlobalAlloc(GMEM_ZEROINIT, 100);
  printf("global mem  GlobalSize = %u\n", GlobalSize(block));
  GlobalFree(block);
  return 0;
}
