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

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/common/temp_dir.h"

namespace qs_test {

inline bool InOwnFolder() { return getenv("QS_TEST_OWN_FOLDER") != nullptr; }

inline bool CopyExecutable(const std::string& target) {
  int in = open("/proc/self/exe", O_RDONLY);
  if (in < 0) return false;
  struct stat st;
  fstat(in, &st);
  int out = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
  if (out < 0) {
    close(in);
    return false;
  }
  off_t offset = 0;
  bool ok = true;
  while (offset < st.st_size) {
    ssize_t sent = sendfile(out, in, &offset, static_cast<size_t>(st.st_size - offset));
    if (sent <= 0) {
      ok = false;
      break;
    }
  }
  close(in);
  close(out);
  return ok;
}

// Copies this binary into `folder` as `name` and runs the current test there.
// Returns the child's exit status (0 when its assertions passed), or -1; what
// the child printed goes to `output` and, on failure, into the test log.
inline int RunInOwnFolder(const std::string& folder, std::string* output = nullptr,
                          const std::string& name = "qs_test_host") {
  const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
  const std::string exe = folder + "/" + name;
  if (!CopyExecutable(exe)) return -1;

  int pipeFds[2];
  if (pipe(pipeFds) != 0) return -1;
  pid_t child = fork();
  if (child == 0) {
    dup2(pipeFds[1], 1);
    dup2(pipeFds[1], 2);
    close(pipeFds[0]);
    close(pipeFds[1]);
    setenv("QS_TEST_OWN_FOLDER", folder.c_str(), 1);
    execl(exe.c_str(), exe.c_str(), filter.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipeFds[1]);
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (code != 0) ADD_FAILURE() << "the run in " << folder << " failed:\n" << text;
  if (output != nullptr) *output = text;
  return code;
}

}  // namespace qs_test

// A test whose whole body runs in a copy of this binary inside a fresh folder
// of its own (see RunInOwnFolder); the folder is removed afterwards.
#define TEST_IN_OWN_FOLDER(suite, name)                              \
  void suite##_##name##_InOwnFolder();                               \
  TEST(suite, name) {                                                \
    if (qs_test::InOwnFolder()) {                                    \
      suite##_##name##_InOwnFolder();                                \
      return;                                                        \
    }                                                                \
    qs_test::TempDir ownFolder;                                      \
    ASSERT_EQ(0, qs_test::RunInOwnFolder(ownFolder.path()));         \
  }                                                                  \
  void suite##_##name##_InOwnFolder()
