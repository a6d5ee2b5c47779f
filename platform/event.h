// Win32-style events and semaphores on POSIX named semaphores.
//
// The mapping is approximate, and its exact semantics are relied on by the
// reader-writer lock:
//  - every SetEvent adds one pending signal (signals accumulate), so an
//    auto-reset event is a counting signal: each SetEvent lets one wait through;
//  - a manual-reset event lets one waiter through per SetEvent and then swallows
//    one further pending signal; waking all waiters is never one step;
//  - WaitForEvent polls, and computes its budget as timeout x 1,000,000 ns in
//    unsigned 32-bit arithmetic (a 5000 ms wait gives up after about 705 ms);
//    a zero timeout never succeeds.
// Results: 0 signalled, 258 timed out, 0xFFFFFFFF failed. Failures print one
// line with errno to standard output.
#pragma once

// Names are "ce0<pid>_<counter>_<seed>" unless one is given (at most 31
// characters are kept). The semaphore is created O_CREAT|O_EXCL, mode 0666,
// with the initial state as its count. Attributes are ignored.
void* CreateEvent(void* securityAttributes, signed char manualReset, signed char initialState,
                  const char* name);
// Opens an existing named semaphore as an auto-reset event.
void* OpenEvent(unsigned int desiredAccess, signed char inheritHandle, const char* name);
// One sem_post. Null -> 0; 1 on success.
int SetEvent(void* event);
// Takes away at most one pending signal. Always 1.
int ResetEvent(void* event);
unsigned int WaitForEvent(void* event, unsigned int timeoutMs);
// Does nothing; no caller may use it.
unsigned int WaitForEvents(int count, void* const* events, bool waitAll, unsigned int timeoutMs);
// Closes the semaphore and unlinks its name, so a later OpenEvent fails.
void CloseEvent(void* event);

// Names are "Sem<pid>_<counter>_<seed>" unless one is given. The maximum count
// is ignored. The handle is the sem_t* itself.
void* CreateSemaphore(void* securityAttributes, int initialCount, int maximumCount, char* name);
// One sem_post whatever the release count; the previous count is not written.
// Returns 1 even when the post failed.
int ReleaseSemaphore(void* semaphore, int releaseCount, int* previousCount);
// Closes without unlinking the name (unlike CloseEvent).
void CloseSemaphore(void* semaphore);
// The infinite wait blocks and returns 0; a finite one polls in steps of
// timeout/8 (1 ms below 8) and returns 0xFFFFFFFF (not 258) on time-out.
unsigned int WaitForSemaphone(void* semaphore, unsigned int timeoutMs);

// The name an event handle carries (for diagnostics and tests); null for null.
const char* GetEventName(void* event);
