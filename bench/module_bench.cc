// One VersionInfo round trip through DistributeCommand at the default log
// level, beside the floor it cannot go below, measured in the same run:
//
//   BM_Floor              jsoncpp parsing the same command text; building
//                         the same result document one value at a time and
//                         styling it after each value (five documents, as the
//                         result builders store one per build); and one bare
//                         stat of the configuration file for every log call
//                         the command passes through (each must look at it)
//   BM_VersionInfoRoundTrip   the module's answer, end to end
//
// The floor styles with the dependency's reference writer; the module writes
// the same bytes with its own writer (json_command/styled_text.h). Compare
// the two as a ratio, round trip / floor.
//
// The number of log calls is counted, not assumed: it is the number of
// configuration reads one round trip makes (the "log_calls" counter).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "bench/service_folder.h"
#include "FVASManager/exports.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "ini/profile_cache.h"

namespace {

constexpr char kCommand[] = R"({"id":"7","cmdId":"c1","method":"VersionInfo","version":"fvasm2_14331212"})";

std::string g_answer;

signed char Capture(int, void*, char const* text, void const*, unsigned int, char const*) {
  g_answer = text;
  return 1;
}

BenchServiceFolder& Folder() {
  static BenchServiceFolder folder(
      "[QS]\nLogLevel=6\nServer=\nEnableCORSAll=TRUE\nEnableEnhancedMode=FALSE\n"
      "ServiceName=Quintaris Service\nQSVersion=14,3,3,1212\n");
  return folder;
}

int RoundTrip() {
  return DistributeCommand(1, nullptr, 0, "/kxp/cmd", kCommand, nullptr, 0, 1, Capture, 3, "http://localhost", nullptr,
                           nullptr, nullptr);
}

// Configuration reads (one stat each) that one round trip makes.
int CountLogCalls() {
  Folder();
  RoundTrip();
  ProfileCache::Stats before = ProfileCache::Instance().GetStats();
  RoundTrip();
  ProfileCache::Stats after = ProfileCache::Instance().GetStats();
  return static_cast<int>((after.hits + after.racyRereads + after.parses) -
                          (before.hits + before.racyRereads + before.parses));
}

// The reference reader and writer of the result format (deprecated in the
// dependency in favour of builders with another layout).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void BM_Floor(benchmark::State& state) {
  const int statsPerCommand = CountLogCalls();
  const std::string& file = Folder().file();
  const std::string command = kCommand;
  struct stat st;
  for (auto _ : state) {
    Json::Value parsed;
    Json::Reader reader;
    reader.parse(command, parsed, false);
    // The result is built one value at a time and styled after each, as
    // the command's result builders store a document at every build.
    Json::Value result(Json::objectValue);
    result["id"] = parsed["id"];
    result["method"] = parsed["method"];
    for (const char* value : {"14, 3, 3, 1212", "Quintaris Service Manager Module", "0", "false", "32"}) {
      result["result"].append(value);
      Json::StyledWriter writer;
      benchmark::DoNotOptimize(writer.write(result));
    }
    for (int i = 0; i < statsPerCommand; ++i) benchmark::DoNotOptimize(stat(file.c_str(), &st));
  }
  state.counters["log_calls"] = statsPerCommand;
}
#pragma GCC diagnostic pop
BENCHMARK(BM_Floor);

void BM_VersionInfoRoundTrip(benchmark::State& state) {
  const int statsPerCommand = CountLogCalls();
  for (auto _ : state) benchmark::DoNotOptimize(RoundTrip());
  state.counters["log_calls"] = statsPerCommand;
  if (g_answer.find("\"cmdId\" : \"c1\"") == std::string::npos) state.SkipWithError("unexpected answer");
}
BENCHMARK(BM_VersionInfoRoundTrip);

}  // namespace

BENCHMARK_MAIN();
