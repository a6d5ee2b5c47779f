#include "platform/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

void* CreateThread(void*, unsigned long, ThreadStartRoutine start, void* argument, unsigned int,
                   unsigned int*, void* storage) {
  pthread_t* slot = static_cast<pthread_t*>(storage);
  bool allocated = false;
  if (slot == nullptr) {
    slot = static_cast<pthread_t*>(malloc(sizeof(pthread_t)));
    if (slot == nullptr) return nullptr;
    allocated = true;
  }
  if (pthread_create(slot, nullptr, start, argument) != 0) {
    // The block is ours and nobody else can hold it: release it rather than leak.
    if (allocated) free(slot);
    return nullptr;
  }
  return slot;
}

void CloseThread(void* handle) { free(handle); }

int WaitForThread(void* handle, unsigned int timeoutMs) {
  if (handle == nullptr) return -1;
  pthread_t thread = *static_cast<pthread_t*>(handle);
  if (timeoutMs != 0x7FFFFFFF) pthread_cancel(thread);
  return pthread_join(thread, nullptr);
}

void TerminateThread(void* handle, int) {
  if (handle != nullptr) pthread_cancel(*static_cast<pthread_t*>(handle));
}

void endthread(unsigned int) { pthread_exit(nullptr); }

void ThreadExit() {}

namespace {

// The kernel id never changes for a thread, so it is asked for once per
// thread. A forked child's thread has a new id: the fork handler forgets the
// copied value in the child.
thread_local unsigned int t_threadId = 0;

void ForgetThreadIdInChild() { t_threadId = 0; }

bool RegisterForkHandler() {
  pthread_atfork(nullptr, nullptr, ForgetThreadIdInChild);
  return true;
}

}  // namespace

unsigned int GetCurrentThreadId() {
  static const bool registered = RegisterForkHandler();
  (void)registered;
  if (t_threadId == 0) t_threadId = static_cast<unsigned int>(syscall(SYS_gettid));
  return t_threadId;
}

unsigned int GetCurrentProcessId() { return static_cast<unsigned int>(getpid()); }

void* GetCurrentProcess() { return nullptr; }

int InterlockedIncrement(int* value) {
  __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST);
  return __atomic_load_n(value, __ATOMIC_RELAXED);
}

int InterlockedDecrement(int* value) {
  __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST);
  return __atomic_load_n(value, __ATOMIC_RELAXED);
}
