// What a log call costs when its level filters it out, against the floor it
// cannot go below: every call must look at the configuration file (a stat),
// because an edit to "LogLevel" takes effect at the next call. The third
// figure is what each call would cost without the document cache: a parse.
//
//   BM_StatConfigurationFile      the baseline: one bare stat of the file
//   BM_FilteredLogDebug           LogDebug at level 6 (filtered)
//   BM_ParseConfigurationFile     loading and parsing the file, uncached
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "environment/log.h"
#include "environment/program_info.h"
#include "ini/ini_file.h"
#include "util/win_string.h"

namespace {

// A configuration file of realistic size, with an old modification time so
// that the cache treats it as settled.
class ConfigurationFolder {
 public:
  ConfigurationFolder() {
    char pattern[] = "/tmp/qs_bench_XXXXXX";
    folder_ = mkdtemp(pattern);
    file_ = folder_ + "/QSConfiguration.ini";
    std::ofstream out(file_);
    out << "[QS]\nLogLevel=6\nServer=\nEnableScannerAccessAuth=FALSE\nEnableFileAccessAuth=FALSE\n"
           "EnableWebcamAccessAuth=FALSE\nEnableCORSAll=TRUE\nEnableEnhancedMode=FALSE\nListenType=\n"
           "ServiceName=Quintaris Service\nQSVersion=14,3,3,1212\nIfUpdate=0\nPort=3\nSSLPort=3\n";
    for (int i = 0; i < 3; ++i) {
      out << "Port_mn_" << i << "=module" << i << "\nPort_mp_" << i << "=" << 18625 + i << "\n";
      out << "SSLPort_mn_" << i << "=module" << i << "\nSSLPort_mp_" << i << "=" << 18626 + i << "\n";
    }
    out.close();
    timespec past[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
    utimensat(AT_FDCWD, file_.c_str(), past, 0);
    g_init_file = file_;
    lstrcpyn(g_szIniFile, file_.c_str(), sizeof(g_szIniFile));
    g_log_file = folder_ + "/qss.log";
  }
  ~ConfigurationFolder() {
    unlink(file_.c_str());
    unlink((folder_ + "/qss.log").c_str());
    rmdir(folder_.c_str());
  }
  const std::string& file() const { return file_; }

 private:
  std::string folder_;
  std::string file_;
};

ConfigurationFolder& Folder() {
  static ConfigurationFolder folder;
  return folder;
}

void BM_StatConfigurationFile(benchmark::State& state) {
  const std::string& file = Folder().file();
  struct stat st;
  for (auto _ : state) benchmark::DoNotOptimize(stat(file.c_str(), &st));
}
BENCHMARK(BM_StatConfigurationFile);

void BM_FilteredLogDebug(benchmark::State& state) {
  Folder();
  for (auto _ : state) benchmark::DoNotOptimize(LogDebug("filtered %d", 42));
}
BENCHMARK(BM_FilteredLogDebug);

void BM_ParseConfigurationFile(benchmark::State& state) {
  const std::string& file = Folder().file();
  for (auto _ : state) {
    CIniFileA document;
    benchmark::DoNotOptimize(document.Load(file));
  }
}
BENCHMARK(BM_ParseConfigurationFile);

}  // namespace

BENCHMARK_MAIN();
