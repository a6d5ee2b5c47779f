#include <dirent.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/platform/shm_util.h"

namespace qs_test {

std::vector<std::string> OwnAutoSemaphores() {
  std::vector<std::string> names;
  const std::string pid = std::to_string(getpid());
  const std::string eventPrefix = "sem.ce0" + pid + "_";
  const std::string semPrefix = "sem.Sem" + pid + "_";
  DIR* dir = opendir("/dev/shm");
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name.rfind(eventPrefix, 0) == 0 || name.rfind(semPrefix, 0) == 0) names.push_back(name.substr(4));
  }
  closedir(dir);
  return names;
}

void UnlinkOwnAutoSemaphores() {
  const std::string prefix = "Sem" + std::to_string(getpid()) + "_";
  for (const std::string& name : OwnAutoSemaphores()) {
    if (name.rfind(prefix, 0) == 0) sem_unlink(name.c_str());
  }
}

bool SemaphoreExists(const std::string& name) { return access(("/dev/shm/sem." + name).c_str(), F_OK) == 0; }

std::string CaptureStdout(void (*fn)(void*), void* arg) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  fn(arg);
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

namespace {

// Every test process must leave /dev/shm as it found it.
class NoSemaphoresLeftBehind : public testing::Environment {
 public:
  void TearDown() override {
    std::vector<std::string> left = OwnAutoSemaphores();
    EXPECT_TRUE(left.empty()) << "semaphores left in /dev/shm, first: " << (left.empty() ? "" : left[0]);
    for (const std::string& name : left) sem_unlink(name.c_str());
  }
};

const testing::Environment* const kShmCheck = testing::AddGlobalTestEnvironment(new NoSemaphoresLeftBehind);

}  // namespace
}  // namespace qs_test
