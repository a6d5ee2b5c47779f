// Named semaphores of this process in /dev/shm, for tests that must leave
// nothing behind.
#pragma once

#include <string>
#include <vector>

namespace qs_test {

// Names (without the "sem." prefix) of semaphores this process created with an
// automatic event or semaphore name.
std::vector<std::string> OwnAutoSemaphores();
// Unlinks the automatically named semaphores ("Sem<pid>_...") that
// CloseSemaphore leaves in place by design.
void UnlinkOwnAutoSemaphores();
bool SemaphoreExists(const std::string& name);
// Runs `fn` with standard output captured and returns what it printed.
std::string CaptureStdout(void (*fn)(void*), void* arg);

}  // namespace qs_test
