// Threads, process and thread ids, and interlocked counters.
//
// A thread handle points to a pthread_t slot: either storage the caller passed
// to CreateThread or an 8-byte block CreateThread took from malloc (freed with
// CloseThread, which leaves the thread itself alone).
#pragma once

typedef void* (*ThreadStartRoutine)(void*);

// Starts a joinable thread with default attributes. The attributes, stack size,
// flags and thread-id pointer are ignored. Returns null when pthread_create
// fails.
void* CreateThread(void* securityAttributes, unsigned long stackSize, ThreadStartRoutine start,
                   void* argument, unsigned int creationFlags, unsigned int* threadId,
                   void* storage);
// Frees a handle that CreateThread allocated; null is ignored.
void CloseThread(void* handle);
// -1 for a null handle. Any timeout other than 0x7FFFFFFF first cancels the
// thread; then the thread is joined and the join's result returned. A finite
// timeout therefore means "stop it, then wait for it", never a bounded wait.
int WaitForThread(void* handle, unsigned int timeoutMs);
// pthread_cancel when the handle is non-null; the exit code is ignored.
void TerminateThread(void* handle, int exitCode);
// Ends the calling thread; the code is ignored.
void endthread(unsigned int code);
// Does nothing.
void ThreadExit();

// The kernel thread id (gettid), not the pthread_t.
unsigned int GetCurrentThreadId();
unsigned int GetCurrentProcessId();
// Always a null handle.
void* GetCurrentProcess();

// Atomic add or subtract of 1, then the value read again: under contention the
// result may already include other threads' changes, so it is a counter, never
// a unique ticket.
int InterlockedIncrement(int* value);
int InterlockedDecrement(int* value);
