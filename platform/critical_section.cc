#include "platform/critical_section.h"

#include <cerrno>
#include <cstdio>

void InitializeCriticalSection(pthread_mutex_t* cs) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) {
    printf("pthread_mutexattr_init failed %d\n", errno);
    printf("pthread_mutex_init failed %d\n", errno);
    return;
  }
  if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) != 0) {
    printf("pthread_mutexattr_settype failed %d\n", errno);
    printf("pthread_mutex_init failed %d\n", errno);
    pthread_mutexattr_destroy(&attr);
    return;
  }
  if (pthread_mutex_init(cs, &attr) != 0) {
    printf("pthread_mutex_init failed %d\n", errno);
  }
  pthread_mutexattr_destroy(&attr);
}

void DeleteCriticalSection(pthread_mutex_t* cs) {
  if (pthread_mutex_destroy(cs) != 0) printf("pthread_mutex_destroy failed %d\n", errno);
}

void EnterCriticalSection(pthread_mutex_t* cs) {
  if (pthread_mutex_lock(cs) != 0) printf("pthread_mutex_lock failed %d\n", errno);
}

void LeaveCriticalSection(pthread_mutex_t* cs) {
  if (pthread_mutex_unlock(cs) != 0) printf("pthread_mutex_unlock failed %d\n", errno);
}
