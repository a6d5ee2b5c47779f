// Runs the current test again in a child process whose executable is a copy of
// this test binary placed in a folder of the test's own. The module takes its
// work folder from the running executable and starts up once per process, so
// a test of start-up or configuration prepares the folder, runs itself there
// and checks the folder afterwards.
//
//   TEST(Startup, Something) {
//     if (qs_test::InOwnFolder()) { ...the part that runs in the copy...; return; }
//     qs_test::TempDir dir;  ...prepare files...
//     EXPECT_EQ(0, qs_test::RunInOwnFolder(dir.path()));
//     ...check files...
//   }
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/common/temp_dir.h"

namespace qs_test {

inline bool InOwnFolder() { return getenv("QS_TEST_OWN_FOLDER") != nullptr; }
// In the run inside the folder: the folder, with a trailing slash.
inline std::string OwnFolder() { return std::string(getenv("QS_TEST_OWN_FOLDER")) + "/"; }

// Copies this binary into `folder` (a path without shell characters, as
// TempDir makes them) and runs the current test there. Returns the child's
// exit status (0 when its assertions passed), or -1; on failure what the child
// printed goes into the test log.
inline int RunInOwnFolder(const std::string& folder) {
  const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string exe = folder + "/qs_test_host";
  std::error_code error;
  std::filesystem::copy_file("/proc/self/exe", exe, std::filesystem::copy_options::overwrite_existing, error);
  if (error) return -1;
  const std::string command = "QS_TEST_OWN_FOLDER=" + folder + " " + exe + " --gtest_filter=" +
                              info->test_suite_name() + "." + info->name() + " 2>&1";
  FILE* child = popen(command.c_str(), "r");
  if (child == nullptr) return -1;
  std::string text;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), child)) > 0;) text.append(buffer, n);
  const int status = pclose(child);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (code != 0) ADD_FAILURE() << "the run in " << folder << " failed:\n" << text;
  return code;
}

}  // namespace qs_test

// A test whose whole body runs in a copy of this binary inside a fresh folder
// of its own (see RunInOwnFolder); the folder is removed afterwards.
#define TEST_IN_OWN_FOLDER(suite, name)                      \
  void suite##_##name##_InOwnFolder();                       \
  TEST(suite, name) {                                        \
    if (qs_test::InOwnFolder()) return suite##_##name##_InOwnFolder(); \
    qs_test::TempDir ownFolder;                              \
    ASSERT_EQ(0, qs_test::RunInOwnFolder(ownFolder.path())); \
  }                                                          \
  void suite##_##name##_InOwnFolder()
