#include "environment/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "environment/program_info.h"
#include "platform/log.h"
#include "platform/process_flags.h"
#include "tests/environment/service_folder.h"

namespace {

using qs_test::ServiceFolder;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// "[Process:%6d Thread:%6d] [MM/DD/YYYY hh:mm:ss.mmm] [Type-mode]: "
std::string PrefixPattern(const std::string& type, int mode = 0) {
  return R"(\[Process: *)" + std::to_string(getpid()) + R"( Thread: *[0-9]+\] \[[01][0-9]/[0-3][0-9]/20[0-9]{2} [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{3}\] \[)" +
         type + "-" + std::to_string(mode) + R"(\]: )";
}

TEST(Logging, DefaultLevelWritesErrorsAndInfoButNoDebug) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  errno = 0;
  EXPECT_TRUE(LogDebug("hidden %d", 1));
  errno = 2;
  EXPECT_TRUE(LogErr("Something failed"));
  EXPECT_TRUE(LogInfo("note %s", "here"));
  std::vector<std::string> lines = Lines(folder.ServiceLog());
  ASSERT_EQ(2u, lines.size()) << folder.ServiceLog();
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(PrefixPattern("Error") + "Something failed GetLastError = 2\\.")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(PrefixPattern("Info") + "note here"))) << lines[1];
  EXPECT_EQ(std::string::npos, folder.ServiceLog().find("\r")) << "LF line ends";
}

TEST(Logging, PrefixFieldsAreWidthSixAndTheDateIsMonthFirst) {
  ServiceFolder folder("[QS]\nLogLevel=14\n");
  SetProgramMode(WorkModeUserProcess);
  LogDebug("x");
  SetProgramMode(WorkModeService);
  std::string line = Lines(folder.ServiceLog()).at(0);
  char pid[16];
  snprintf(pid, sizeof(pid), "%6d", getpid());
  EXPECT_EQ(std::string("[Process:") + pid + " Thread:", line.substr(0, 23));
  EXPECT_TRUE(std::regex_match(line, std::regex(PrefixPattern("Debug", 3) + "x"))) << line;
  time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char date[64];
  snprintf(date, sizeof(date), "%02d/%02d/%04d", local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
  EXPECT_NE(std::string::npos, line.find(date)) << line;
}

TEST(Logging, MillisecondsAreRealMilliseconds) {
  ServiceFolder folder("[QS]\nLogLevel=14\n");
  for (int i = 0; i < 12; ++i) {
    LogDebug("tick");
    usleep(7000);
  }
  std::set<std::string> milliseconds;
  for (const std::string& line : Lines(folder.ServiceLog())) milliseconds.insert(line.substr(line.find('.') + 1, 3));
  EXPECT_GT(milliseconds.size(), 3u);
}

TEST(Logging, RawDataFollowsTheLineWithItsOwnLineFeed) {
  ServiceFolder folder("[QS]\nLogLevel=8\n");
  const unsigned char data[] = {'a', 0, 'z'};
  EXPECT_TRUE(LogDebug("with data", data, 3));
  EXPECT_TRUE(LogDebug("empty data", data, 0));
  EXPECT_TRUE(LogDebug("no data", nullptr, 3));
  std::string log = folder.ServiceLog();
  std::vector<std::string> tails;
  for (const char* text : {"with data", "empty data", "no data"}) tails.push_back(log.substr(log.find(text)));
  EXPECT_EQ(std::string("with data\na\0z\n", 14), tails[0].substr(0, 14));
  EXPECT_EQ("empty data\n\n", tails[1].substr(0, 12)) << "an empty line for empty data";
  EXPECT_EQ("no data\n", tails[2]);
}

TEST(Logging, ScanningProcessWritesTheOtherFile) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  SetIfScanningProcess(true);
  LogInfo("from the scanner");
  SetIfScanningProcess(false);
  LogInfo("from the service");
  EXPECT_NE(std::string::npos, folder.ScanningLog().find("from the scanner"));
  EXPECT_EQ(std::string::npos, folder.ScanningLog().find("from the service"));
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("from the service"));
}

TEST(Logging, UnopenableFileGivesFalseAndFilteredGivesTrue) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  g_log_file = folder.dir() / "missing/folder/qss.log";
  EXPECT_FALSE(LogErr("lost"));
  EXPECT_TRUE(LogDebug("filtered"));
}

TEST(Logging, LevelIsReadFromTheFileOnEveryCall) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  LogDebug("first");
  folder.SetConfiguration("[QS]\nLogLevel=8\n");
  LogDebug("second");
  folder.SetConfiguration("[QS]\nLogLevel=255\n");
  LogDebug("third");
  EXPECT_EQ(255, GetLogLevel()) << "no validation while filtering";
  std::string log = folder.ServiceLog();
  EXPECT_EQ(std::string::npos, log.find("first"));
  EXPECT_NE(std::string::npos, log.find("second"));
  EXPECT_NE(std::string::npos, log.find("third"));
}

TEST(Logging, CallersErrnoIsReportedAndKept) {
  ServiceFolder folder;  // no configuration file: the level read fails to find it
  errno = 13;
  EXPECT_TRUE(LogErr("denied"));
  EXPECT_EQ(13, errno);
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("denied GetLastError = 13."));
}

TEST(Logging, SystemLayerLogUsesErrorForTypeThreeOnly) {
  ServiceFolder folder("[QS]\nLogLevel=14\n");
  errno = 0;
  Log(3, "type %d", 3);
  Log(1, "type %d", 1);
  std::vector<std::string> lines = Lines(folder.ServiceLog());
  ASSERT_EQ(2u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("[Error-0]: type 3 GetLastError = 0."));
  EXPECT_NE(std::string::npos, lines[1].find("[Debug-0]: type 1"));
}

TEST(LogLevel, ConfiguredValues) {
  ServiceFolder folder;
  EXPECT_EQ(6, GetLogLevelInLocal()) << "missing key";
  folder.SetConfiguration("[QS]\nLogLevel=abc\n");
  EXPECT_EQ(0, GetLogLevel()) << "not a number lets nothing through";
  UpdateLogLevel();
  EXPECT_EQ(6, g_log_level);
  folder.SetConfiguration("[QS]\nLogLevel = 12\n");
  EXPECT_EQ(12, GetLogLevelInLocal()) << "the leading blank of the value is skipped";
}

TEST(LogLevel, InvalidValuesFallBackToSix) {
  ServiceFolder folder("[QS]\nLogLevel=15\n");
  UpdateLogLevel();
  EXPECT_EQ(6, g_log_level);
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("Invalid Service Log Level value. Default log level value loaded."));

  folder.SetConfiguration("[QS]\nLogLevel=20\n");
  std::string before = folder.ServiceLog();
  UpdateLogLevel();
  EXPECT_EQ(6, g_log_level);
  EXPECT_EQ(before, folder.ServiceLog()) << "20 has no error bit: the line itself is filtered";
}

TEST(LogLevel, RunTimeMask) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  EXPECT_TRUE(ChangeLogLevel(65535));
  EXPECT_EQ(14, g_log_level);
  EXPECT_TRUE(ChangeLogLevel(8));
  EXPECT_EQ(14, g_log_level);
  EXPECT_FALSE(ChangeLogLevel(0));
  EXPECT_EQ(6, g_log_level);
  EXPECT_TRUE(ChangeLogLevel(8));
  EXPECT_TRUE(IsDebugMode());
  ChangeLogLevel(0);
  EXPECT_FALSE(IsDebugMode());
}

TEST(LogLevel, SetLogLevelWritesOnlyFromTheServiceProcess) {
  ServiceFolder folder("[QS]\nLogLevel=6\nOther=x\n");
  SetIfServiceProcess(false);
  SetLogLevel(14);
  EXPECT_EQ("[QS]\nLogLevel=6\nOther=x\n", folder.Configuration());
  EXPECT_FALSE(g_enumLogLevel);
  SetIfServiceProcess(true);
  SetLogLevel(14);
  EXPECT_EQ("[QS]\nLogLevel=14\nOther=x\n", folder.Configuration());
  EXPECT_TRUE(g_enumLogLevel);
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("[Debug-0]: Log Level = 14, 0."));
}

TEST(LogLevel, TypeNames) {
  EXPECT_EQ("Error", GetLogTypeStr(6));
  EXPECT_EQ("Info", GetLogTypeStr(12));
  EXPECT_EQ("Debug", GetLogTypeStr(8));
  EXPECT_EQ("NULL", GetLogTypeStr(1));
  EXPECT_EQ("NULL", GetLogTypeStr(15));
  EXPECT_EQ("", GetLogTypeStr(16));
  EXPECT_EQ("", GetLogTypeStr(0));
}

TEST(Logging, ConcurrentLinesNeverInterleave) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 150; ++i) LogInfo("thread %d line %d %s", t, i, std::string(200, 'a' + t).c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<std::string> lines = Lines(folder.ServiceLog());
  ASSERT_EQ(600u, lines.size());
  const std::regex whole(PrefixPattern("Info") + "thread [0-3] line [0-9]+ ([a-d])\\1{199}");
  for (const std::string& line : lines) ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

}  // namespace
