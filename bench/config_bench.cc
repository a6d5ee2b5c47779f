// What a log call costs when its level filters it out, against a bare stat of
// the configuration file: every call must see an edit to "LogLevel" made
// before it, so it must either look at the file or know that nothing has
// changed it. The document cache knows that from change notices for the
// file's folder (watched) or from a stat of the file (stamped); both are
// measured. The last figure is what each call would cost without the cache.
//
//   BM_StatConfigurationFile      the baseline: one bare stat of the file
//   BM_EmptyNoticeRead            the floor of the watched path: one read of
//                                 an inotify descriptor that finds nothing
//   BM_FilteredLogDebug/watched   LogDebug at level 6 (filtered), folder watched
//   BM_FilteredLogDebug/stamped   the same with a stat of the file per call
//   BM_ParseConfigurationFile     loading and parsing the file, uncached
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/service_folder.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "ini/ini_file.h"
#include "ini/profile_cache.h"

namespace {

// A configuration file of realistic size.
std::string Configuration() {
  std::string text =
      "[QS]\nLogLevel=6\nServer=\nEnableScannerAccessAuth=FALSE\nEnableFileAccessAuth=FALSE\n"
      "EnableWebcamAccessAuth=FALSE\nEnableCORSAll=TRUE\nEnableEnhancedMode=FALSE\nListenType=\n"
      "ServiceName=Quintaris Service\nQSVersion=14,3,3,1212\nIfUpdate=0\nPort=3\nSSLPort=3\n";
  for (int i = 0; i < 3; ++i) {
    text += "Port_mn_" + std::to_string(i) + "=module" + std::to_string(i) + "\nPort_mp_" + std::to_string(i) + "=" +
            std::to_string(18625 + i) + "\n";
    text += "SSLPort_mn_" + std::to_string(i) + "=module" + std::to_string(i) + "\nSSLPort_mp_" +
            std::to_string(i) + "=" + std::to_string(18626 + i) + "\n";
  }
  return text;
}

BenchServiceFolder& Folder() {
  static BenchServiceFolder folder(Configuration());
  return folder;
}

void BM_StatConfigurationFile(benchmark::State& state) {
  const std::string& file = Folder().file();
  struct stat st;
  for (auto _ : state) benchmark::DoNotOptimize(stat(file.c_str(), &st));
}
BENCHMARK(BM_StatConfigurationFile);

void BM_EmptyNoticeRead(benchmark::State& state) {
  const std::string& file = Folder().file();
  const int notices = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  inotify_add_watch(notices, file.substr(0, file.rfind('/')).c_str(), IN_MODIFY | IN_ATTRIB | IN_MOVED_TO);
  char buffer[4096];
  for (auto _ : state) benchmark::DoNotOptimize(read(notices, buffer, sizeof(buffer)));
  close(notices);
}
BENCHMARK(BM_EmptyNoticeRead);

void BM_FilteredLogDebug(benchmark::State& state) {
  Folder();
  const bool watched = state.range(0) != 0;
  ProfileCache::Instance().SetWatching(watched);
  LogDebug("first read");
  const ProfileCache::Stats before = ProfileCache::Instance().GetStats();
  for (auto _ : state) benchmark::DoNotOptimize(LogDebug("filtered %d", 42));
  const ProfileCache::Stats after = ProfileCache::Instance().GetStats();
  if ((after.watchedHits > before.watchedHits) != watched) state.SkipWithError("the cache took the other path");
  ProfileCache::Instance().SetWatching(true);
}
BENCHMARK(BM_FilteredLogDebug)->ArgName("watched")->Arg(1)->Arg(0);

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
