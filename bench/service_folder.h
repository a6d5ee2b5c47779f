// A temporary service folder for benchmarks: a configuration file of the given
// text, with an old modification time so the document cache treats it as
// settled, and the module's configuration and log globals pointed at it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <string>

#include "environment/program_info.h"
#include "util/win_string.h"

class BenchServiceFolder {
 public:
  explicit BenchServiceFolder(const std::string& configuration) {
    char pattern[] = "/tmp/qs_bench_XXXXXX";
    folder_ = mkdtemp(pattern);
    file_ = folder_ + "/QSConfiguration.ini";
    std::ofstream(file_) << configuration;
    timespec past[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    utimensat(AT_FDCWD, file_.c_str(), past, 0);
    g_init_file = file_;
    lstrcpyn(g_szIniFile, file_.c_str(), sizeof(g_szIniFile));
    g_log_file = folder_ + "/qss.log";
  }
  ~BenchServiceFolder() {
    unlink(file_.c_str());
    unlink((folder_ + "/qss.log").c_str());
    rmdir(folder_.c_str());
  }
  BenchServiceFolder(const BenchServiceFolder&) = delete;
  BenchServiceFolder& operator=(const BenchServiceFolder&) = delete;

  const std::string& file() const { return file_; }

 private:
  std::string folder_;
  std::string file_;
};
