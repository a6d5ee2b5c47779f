// Start-up runs once per process and takes its folder from the executable, so
// every scenario runs in a copy of this binary inside a folder of its own,
// which it prepares before starting up.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "environment/configuration.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "tests/common/own_folder.h"

namespace {

using qs_test::IsFolder, qs_test::OwnFolder, qs_test::PathExists, qs_test::ReadWholeFile, qs_test::WriteFile;

unsigned int ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 0777u) : 0u;
}

TEST_IN_OWN_FOLDER(Startup, PathsBannerAndASecondCallThatDoesNothing) {
  WriteFile(OwnFolder() + "QSConfiguration.ini", "; comment\n[QS]\nLogLevel=14\nServer=myhost\n[Other]\nx=1\n");
  SetIfServiceProcess(true), InitProgramInfo(true);
  const std::string w = OwnFolder();
  EXPECT_EQ(w + "QSConfiguration.ini|" + w + "log/qss.log|" + w + "qs_test_host",
            g_szIniFile + std::string("|") + GetLogFile() + "|" + GetExeFile());
  EXPECT_EQ("myhost", GetHostName());
  EXPECT_TRUE(std::regex_match(std::string(gszServiceUUID), std::regex("[0-9a-f]{32}")));
  EXPECT_TRUE(IsFolder(w + "upload") && IsFolder(w + "dump") && !PathExists(w + "cert")) << "the cert folder is not made";
  EXPECT_TRUE(ModeOf(w + "log/qss.log") == 0777u && ModeOf(w + "dump") == 0777u) << "open to every user";
  const std::string log = ReadWholeFile(GetLogFile());
  EXPECT_NE(std::string::npos, log.find("]: Log Level = 14, 0.\n"));
  EXPECT_NE(std::string::npos,
            log.find("]: Version info:Quintaris Service Manager Module, Quintaris Service for Linux x86-64---14, 3, 3, "
                     "1212, \r\n\t\tis64:1, isScanning=0, workMode=0, isFVTActiveX=0\r\n\n"))
      << log;
  // The level is written back: every section and key stays, the comment goes.
  EXPECT_EQ("[Other]\nx=1\n[QS]\nLogLevel=14\nServer=myhost\n", ReadWholeFile(GetInitFile()));
  SetHostName("changed"), SetHostName(nullptr), InitProgramInfo(true);
  EXPECT_EQ("changed" + log, GetHostName() + ReadWholeFile(GetLogFile()));
}

TEST_IN_OWN_FOLDER(Startup, SettingsWithoutPermissionsOrWrites) {
  WriteFile(OwnFolder() + "QSConfiguration.ini",
            "[QS]\nEnableCORSAll=FaLsE\nEnableScannerAccessAuth=true\nEnableFileAccessAuth=yes\n"
            "EnableWebcamAccessAuth=TRUE\nEnableEnhancedMode=True\nListenType=https\nServiceName=My Service\n");
  umask(022), SetProgramMode(WorkModeUserProcess), InitProgramInfo(false);
  std::string flags;
  for (const bool flag : {GetEnableCORSAll(), GetEnableScannerAccessAuth(), GetEnableFileAccessAuth(),
                          GetEnableWebcamAccessAuth(), GetEnableMultipleUserEnhancedMode()}) flags += flag ? '1' : '0';
  EXPECT_EQ("01011", flags) << "only a case-blind TRUE counts";
  EXPECT_EQ("https|My Service", GetListenType() + "|" + GetServiceName());
  EXPECT_TRUE(!PathExists(GetDumpPath()) && ModeOf(GetLogPath()) == 0755u) << "no dump folder or chmod without the flag";
  EXPECT_EQ(std::string::npos, ReadWholeFile(GetInitFile()).find("LogLevel")) << "not the service: nothing written";
}

// Broken configurations (with a file where the log folder should be), and a
// folder, a FIFO or a dangling link where the configuration file should be:
// start-up completes with the defaults, without waiting on the FIFO, and what
// stands at the path stays (nothing is written through the link either).
TEST(Startup, SurvivesBrokenConfigurations) {
  if (qs_test::InOwnFolder()) {
    SetIfServiceProcess(true), InitProgramInfo(true);
    EXPECT_TRUE(GetEnableCORSAll() && GetServiceName() == "Quintaris Service");
    if (IsFolder(OwnFolder() + "log")) {
      EXPECT_EQ(6, GetLogLevel());
      EXPECT_EQ("127.0.0.1", GetHostName());
      EXPECT_TRUE(LogErr("still logging"));
      EXPECT_NE(std::string::npos, ReadWholeFile(GetLogFile()).find("]: still logging GetLastError = "));
    } else {
      EXPECT_TRUE(std::regex_match(GetLogFile(), std::regex(".*/log/qss\\(-?[0-9]+\\)\\.log"))) << GetLogFile();
    }
    return;
  }
  for (const char* kind : {"", "\x01\x02garbage\xff\n[[[\n=\n", "[QS]\nLogLevel=\n", "folder", "fifo", "link"}) {
    qs_test::TempDir dir;
    const std::string path = dir / "QSConfiguration.ini", what = kind;
    const int made = what == "folder" ? mkdir(path.c_str(), 0755)
                     : what == "fifo" ? mkfifo(path.c_str(), 0666)
                     : what == "link" ? symlink((dir / "nowhere.ini").c_str(), path.c_str())
                                      : (WriteFile(path, kind), WriteFile(dir / "log", "not a folder"), 0);
    ASSERT_EQ(0, made) << kind;
    struct stat before, after;
    lstat(path.c_str(), &before);
    EXPECT_EQ(0, qs_test::RunInOwnFolder(dir.path())) << kind;
    EXPECT_EQ(0, lstat(path.c_str(), &after));
    EXPECT_EQ(before.st_mode, after.st_mode) << kind;
    EXPECT_FALSE(PathExists(dir / "nowhere.ini"));
  }
}

}  // namespace
