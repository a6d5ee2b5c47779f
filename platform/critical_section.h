// Critical sections: recursive POSIX mutexes owned by the caller.
//
// The owning thread may enter a critical section again and must leave it as
// often as it entered. Failures are never returned: each call prints one line
// to standard output carrying errno (not the pthread call's own error number).
#pragma once

#include <pthread.h>

void InitializeCriticalSection(pthread_mutex_t* cs);
void DeleteCriticalSection(pthread_mutex_t* cs);
void EnterCriticalSection(pthread_mutex_t* cs);
void LeaveCriticalSection(pthread_mutex_t* cs);
