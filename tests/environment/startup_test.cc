// Start-up runs once per process and takes its folder from the executable, so
// every scenario here runs in a copy of this binary inside a folder of its own,
// which it prepares itself before starting up.
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
#include "tests/common/temp_dir.h"

namespace {

using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::WriteFile;

std::string Folder() { return std::string(getenv("QS_TEST_OWN_FOLDER")) + "/"; }

void Configure(const std::string& text) { WriteFile(Folder() + "QSConfiguration.ini", text); }

unsigned int ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 0777u) : 0u;
}

TEST_IN_OWN_FOLDER(Startup, PathsFollowTheExecutablesFolder) {
  InitProgramInfo(true);
  const std::string w = Folder();
  EXPECT_EQ(w, GetWorkPath());
  const std::pair<std::string, std::string> paths[] = {
      {w + "log/", GetLogPath()},
      {w + "cache/", GetCachePath()},
      {w + "upload/", GetUploadPath()},
      {w + "cert/", GetCertPath()},
      {w + "dump/", GetDumpPath()},
      {w + "QSConfiguration.ini", GetInitFile()},
      {w + "QSConfiguration.ini", g_szIniFile},
      {w + "user_config.ini", g_user_config_file},
      {w + "log/qss.log", GetLogFile()},
      {w + "log/qsu.log", g_logs_file},
      {w + "cert/server.pem", GetSSLCertFile()},
      {w + "cert/server_key.pem", GetSSLPriKeyFile()},
      {w + "cert/cert.e", GetFirefoxCert()},
      {w + "qs.exception", GetSecurityExceptionFile()},
      {w + "qs_test_host", GetExeFile()},
  };
  for (const auto& path : paths) EXPECT_EQ(path.first, path.second);
  EXPECT_EQ("127.0.0.1", GetHostName());
  EXPECT_EQ("Quintaris Service", GetServiceName());
  EXPECT_EQ("", GetListenType());
  EXPECT_TRUE(std::regex_match(std::string(gszServiceUUID), std::regex("[0-9a-f]{32}")));

  EXPECT_TRUE(IsFolder(w + "cache") && IsFolder(w + "log") && IsFolder(w + "upload") && IsFolder(w + "dump"));
  EXPECT_FALSE(PathExists(w + "cert")) << "the cert folder is not made";
  EXPECT_EQ(0777u, ModeOf(w + "log"));
  EXPECT_EQ(0777u, ModeOf(w + "log/qss.log"));
  EXPECT_EQ(0777u, ModeOf(w + "dump"));
}

TEST_IN_OWN_FOLDER(Startup, WithoutTheFlagNoPermissionsChangeAndNoDumpFolder) {
  umask(022);
  InitProgramInfo(false);
  EXPECT_FALSE(PathExists(GetDumpPath()));
  EXPECT_EQ(0755u, ModeOf(GetLogPath()));
}

TEST_IN_OWN_FOLDER(Startup, SecondCallChangesNothingAndLogsNothing) {
  Configure("[QS]\nLogLevel=14\n");
  InitProgramInfo(false);
  const std::string log = ReadWholeFile(GetLogFile());
  EXPECT_NE(std::string::npos, log.find("Version info:")) << log;
  g_host_name = "changed";
  InitProgramInfo(true);
  EXPECT_EQ("changed", GetHostName());
  EXPECT_EQ(log, ReadWholeFile(GetLogFile()));
  EXPECT_FALSE(PathExists(GetDumpPath()));
}

TEST_IN_OWN_FOLDER(Startup, BannerLevelLineAndRewrittenConfiguration) {
  Configure("; comment\n[QS]\nLogLevel=14\nServer=myhost\n[Other]\nx=1\n");
  SetIfServiceProcess(true);
  InitProgramInfo(false);
  EXPECT_EQ("myhost", GetHostName());
  const std::string log = ReadWholeFile(GetLogFile());
  EXPECT_NE(std::string::npos, log.find("]: Log Level = 14, 0.\n"));
  EXPECT_NE(std::string::npos,
            log.find("]: Version info:Quintaris Service Manager Module, Quintaris Service for Linux x86-64---14, 3, 3, "
                     "1212, \r\n\t\tis64:1, isScanning=0, workMode=0, isFVTActiveX=0\r\n\n"))
      << log;
  // The level is written back, rewriting the file in the document format:
  // every section and key stays, the comment goes.
  EXPECT_EQ("[Other]\nx=1\n[QS]\nLogLevel=14\nServer=myhost\n", ReadWholeFile(GetInitFile()));
}

TEST_IN_OWN_FOLDER(Startup, SettingsFromTheConfiguration) {
  Configure("[QS]\nEnableCORSAll=FaLsE\nEnableScannerAccessAuth=true\nEnableFileAccessAuth=yes\n"
            "EnableWebcamAccessAuth=TRUE\nEnableEnhancedMode=True\nListenType=https\nServiceName=My Service\n");
  SetProgramMode(WorkModeUserProcess);
  InitProgramInfo(false);
  EXPECT_FALSE(GetEnableCORSAll());
  EXPECT_TRUE(GetEnableScannerAccessAuth());
  EXPECT_FALSE(GetEnableFileAccessAuth()) << "yes is not TRUE";
  EXPECT_TRUE(GetEnableWebcamAccessAuth());
  EXPECT_TRUE(GetEnableMultipleUserEnhancedMode());
  EXPECT_EQ("https", GetListenType());
  EXPECT_EQ("My Service", GetServiceName());
  EXPECT_EQ(std::string::npos, ReadWholeFile(GetInitFile()).find("LogLevel")) << "not the service: nothing written";
}

// Broken configurations and a file where the log folder should be: start-up
// completes with the defaults and the numbered log-file fallback.
TEST(Startup, SurvivesBrokenConfigurationAndLogFolder) {
  if (qs_test::InOwnFolder()) {
    SetIfServiceProcess(true);
    const bool readable = access((Folder() + "QSConfiguration.ini").c_str(), R_OK) == 0;
    InitProgramInfo(true);
    if (!readable || ReadWholeFile(GetInitFile()).find("Server=") == std::string::npos) {
      EXPECT_EQ("127.0.0.1", GetHostName());
    }
    EXPECT_TRUE(GetEnableCORSAll());
    EXPECT_EQ("Quintaris Service", GetServiceName());
    EXPECT_TRUE(std::regex_match(GetLogFile(), std::regex(".*/log/qss\\(-?[0-9]+\\)\\.log"))) << GetLogFile();
    // An empty "LogLevel" lets nothing through (a filtered line counts as
    // written); otherwise the error line cannot reach the missing file.
    EXPECT_EQ(GetLogLevel() == 0, LogErr("goes nowhere"));
    return;
  }
  const char* configurations[] = {"", "\x01\x02garbage\xff\n[[[\n=\n", "[QS]\nLogLevel=\n", "[QS]\nServer=x\n",
                                  nullptr};
  for (const char* configuration : configurations) {
    qs_test::TempDir dir;
    if (configuration != nullptr) WriteFile(dir / "QSConfiguration.ini", configuration);
    if (configuration != nullptr && std::string(configuration).find("Server") != std::string::npos) {
      chmod((dir / "QSConfiguration.ini").c_str(), 0);  // unreadable (unless root)
    }
    WriteFile(dir / "log", "a file where the log folder should be");
    EXPECT_EQ(0, qs_test::RunInOwnFolder(dir.path())) << (configuration ? configuration : "(missing)");
  }
}

// A folder, a FIFO or a dangling link where the configuration file should be:
// start-up completes with the defaults, logging goes on at the default level,
// and what stands at the path is left as it was.
TEST(Startup, ConfigurationPathThatIsNoFileReadsAsMissing) {
  if (qs_test::InOwnFolder()) {
    SetIfServiceProcess(true);
    InitProgramInfo(true);
    EXPECT_EQ(6, GetLogLevel());
    EXPECT_EQ("127.0.0.1", GetHostName());
    EXPECT_TRUE(GetEnableCORSAll());
    EXPECT_TRUE(LogErr("still logging"));
    EXPECT_TRUE(LogDebug("filtered"));
    const std::string log = ReadWholeFile(GetLogFile());
    EXPECT_NE(std::string::npos, log.find("]: still logging GetLastError = ")) << log;
    EXPECT_EQ(std::string::npos, log.find("filtered"));
    return;
  }
  for (const char* kind : {"folder", "fifo", "link"}) {
    qs_test::TempDir dir;
    const std::string path = dir / "QSConfiguration.ini";
    const std::string kindText = kind;
    if (kindText == "folder") mkdir(path.c_str(), 0755);
    if (kindText == "fifo") mkfifo(path.c_str(), 0666);
    if (kindText == "link") symlink((dir / "nowhere.ini").c_str(), path.c_str());
    struct stat before;
    lstat(path.c_str(), &before);
    EXPECT_EQ(0, qs_test::RunInOwnFolder(dir.path())) << kind;
    struct stat after;
    EXPECT_EQ(0, lstat(path.c_str(), &after));
    EXPECT_EQ(before.st_mode, after.st_mode) << kind;
    EXPECT_FALSE(PathExists(dir / "nowhere.ini")) << kind;
  }
}

TEST_IN_OWN_FOLDER(Startup, CleanCacheFolderUsesTheOneSubDirectoryRule) {
  InitProgramInfo(false);
  const std::string cache = GetCachePath();
  mkdir((cache + "a").c_str(), 0777);
  mkdir((cache + "b").c_str(), 0777);
  WriteFile(cache + "f", "x");
  EXPECT_TRUE(CleanCacheFolder());
  EXPECT_TRUE(IsFolder(cache)) << "one call stops after the first sub-directory";
  while (IsFolder(cache)) CleanCacheFolder();
  EXPECT_FALSE(CleanCacheFolder()) << "nothing left to remove";
}

TEST_IN_OWN_FOLDER(Startup, SaveServiceNameTakesEffectAtTheNextStart) {
  SetIfServiceProcess(true);
  InitProgramInfo(false);
  SaveServiceName("Renamed");
  EXPECT_EQ("Quintaris Service", GetServiceName());
  EXPECT_EQ("Renamed", GetConfigurationfromInitFile("ServiceName", "", nullptr));
}

}  // namespace
