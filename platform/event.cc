#include "platform/event.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/process_flags.h"
#include "platform/system_time.h"
#include "platform/thread.h"
#include "platform/win_types.h"

namespace {

// The record an event handle points to.
struct EventRecord {
  sem_t* semaphore;
  signed char manualReset;
  char name[1031];
};

int g_eventNameCounter = 0;
int g_semaphoreNameCounter = 0;

constexpr int kCreateFlags = O_CREAT | O_EXCL;  // 192
constexpr mode_t kMode = 0666;                   // 438

void SleepNanoseconds(long nanoseconds) {
  timespec interval{0, nanoseconds};
  nanosleep(&interval, nullptr);
}

}  // namespace

void* CreateEvent(void*, signed char manualReset, signed char initialState, const char* name) {
  char semName[32];
  memset(semName, 0, sizeof(semName));
  if (name != nullptr) {
    strncpy(semName, name, sizeof(semName) - 1);
  } else {
    snprintf(semName, sizeof(semName), "ce0%u_%u_%d", GetCurrentProcessId(),
             static_cast<unsigned int>(InterlockedIncrement(&g_eventNameCounter)), GetGlobalSeed());
  }
  sem_t* semaphore = sem_open(semName, kCreateFlags, kMode, static_cast<unsigned int>(initialState));
  if (semaphore == nullptr) {
    printf("CreateEvent sem_open failed %d name %s\n", errno, semName);
    return nullptr;
  }
  EventRecord* record = static_cast<EventRecord*>(calloc(1, sizeof(EventRecord)));
  if (record == nullptr) {
    sem_close(semaphore);
    sem_unlink(semName);
    return nullptr;
  }
  record->semaphore = semaphore;
  record->manualReset = manualReset;
  memcpy(record->name, semName, sizeof(semName));
  return record;
}

void* OpenEvent(unsigned int, signed char, const char* name) {
  sem_t* semaphore = nullptr;
  if (name == nullptr) {
    errno = EINVAL;
  } else {
    semaphore = sem_open(name, 0, kMode, 0);
  }
  if (semaphore == nullptr) {
    printf("OpenEvent sem_open failed %d\n", errno);
    return nullptr;
  }
  EventRecord* record = static_cast<EventRecord*>(calloc(1, sizeof(EventRecord)));
  if (record == nullptr) {
    sem_close(semaphore);
    return nullptr;
  }
  record->semaphore = semaphore;
  record->manualReset = 0;
  strncpy(record->name, name, sizeof(record->name) - 1);
  return record;
}

int SetEvent(void* event) {
  if (event == nullptr) return 0;
  if (sem_post(static_cast<EventRecord*>(event)->semaphore) != 0) {
    printf("SetEvent sem_post failed %d\n", errno);
    return 0;
  }
  return 1;
}

int ResetEvent(void* event) {
  if (event == nullptr) return 1;
  sem_t* semaphore = static_cast<EventRecord*>(event)->semaphore;
  while (sem_trywait(semaphore) != 0 && errno != EAGAIN) {
    SleepNanoseconds(50 * 1000 * 1000);
    printf("ResetEvent sem_trywait failed %d\n", errno);
  }
  return 1;
}

unsigned int WaitForEvent(void* event, unsigned int timeoutMs) {
  if (event == nullptr) return WAIT_FAILED;
  EventRecord* record = static_cast<EventRecord*>(event);
  const bool infinite = timeoutMs == INFINITE;
  // The budget wraps in 32 bits on purpose: timeouts above 4,294 ms shrink.
  const unsigned int budget = timeoutMs * 1000000u;
  if (!infinite && budget == 0) return WAIT_TIMEOUT;

  const long interval = infinite ? 2000000L : 1000000L;
  unsigned long long elapsed = static_cast<unsigned long long>(interval);
  for (;;) {
    if (sem_trywait(record->semaphore) == 0) break;
    if (errno != EAGAIN) {
      printf("[%d]WaitForEvent sem_trywait failed %d\n", static_cast<int>(getpid()), errno);
      return WAIT_FAILED;
    }
    SleepNanoseconds(interval);
    if (!infinite && budget <= elapsed) return WAIT_TIMEOUT;
    elapsed += static_cast<unsigned long long>(interval);
  }
  if (record->manualReset) ResetEvent(event);
  return WAIT_OBJECT_0;
}

unsigned int WaitForEvents(int, void* const*, bool, unsigned int) { return 0; }

void CloseEvent(void* event) {
  if (event == nullptr) return;
  EventRecord* record = static_cast<EventRecord*>(event);
  sem_close(record->semaphore);
  sem_unlink(record->name);
  sem_destroy(record->semaphore);
  free(record);
}

const char* GetEventName(void* event) {
  return event == nullptr ? nullptr : static_cast<EventRecord*>(event)->name;
}

void* CreateSemaphore(void*, int initialCount, int, char* name) {
  char generated[1024];
  const char* semName = name;
  if (semName == nullptr) {
    snprintf(generated, sizeof(generated), "Sem%u_%u_%d", GetCurrentProcessId(),
             static_cast<unsigned int>(InterlockedIncrement(&g_semaphoreNameCounter)), GetGlobalSeed());
    semName = generated;
  }
  sem_t* semaphore = sem_open(semName, kCreateFlags, kMode, static_cast<unsigned int>(initialCount));
  if (semaphore == nullptr) {
    printf("sem_open failed %d\n", errno);
    return nullptr;
  }
  return semaphore;
}

int ReleaseSemaphore(void* semaphore, int, int*) {
  int rc = -1;
  if (semaphore == nullptr) {
    errno = EINVAL;
  } else {
    rc = sem_post(static_cast<sem_t*>(semaphore));
  }
  if (rc != 0) printf("sem_post failed %d\n", errno);
  return 1;
}

void CloseSemaphore(void* semaphore) {
  if (semaphore == nullptr) return;
  sem_close(static_cast<sem_t*>(semaphore));
  sem_destroy(static_cast<sem_t*>(semaphore));
}

unsigned int WaitForSemaphone(void* semaphore, unsigned int timeoutMs) {
  if (semaphore == nullptr) return WAIT_FAILED;
  sem_t* sem = static_cast<sem_t*>(semaphore);
  if (timeoutMs == INFINITE) {
    if (sem_wait(sem) != 0) printf("sem_wait failed %d\n", errno);
    return 0;
  }
  unsigned int step = timeoutMs < 8 ? 1 : timeoutMs / 8;
  unsigned int waited = 0;
  do {
    if (sem_trywait(sem) == 0) return 0;
    waited += step;
    if (waited > timeoutMs) step = step + timeoutMs - waited;
    Sleep(step);
  } while (timeoutMs > waited);
  return WAIT_FAILED;
}
