// Start-up runs once per process and takes its folder from the executable, so
// every scenario here runs in a copy of this binary inside a folder of its own.
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

using qs_test::InOwnFolder;
using qs_test::IsFolder;
using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::RunInOwnFolder;
using qs_test::TempDir;
using qs_test::WriteFile;

std::string Folder() { return std::string(getenv("QS_TEST_OWN_FOLDER")) + "/"; }

unsigned int ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 0777u) : 0u;
}

TEST(Startup, PathsFollowTheExecutablesFolder) {
  if (InOwnFolder()) {
    InitProgramInfo(true);
    const std::string w = Folder();
    EXPECT_EQ(w, GetWorkPath());
    EXPECT_EQ(w + "log/", GetLogPath());
    EXPECT_EQ(w + "cache/", GetCachePath());
    EXPECT_EQ(w + "upload/", GetUploadPath());
    EXPECT_EQ(w + "cert/", GetCertPath());
    EXPECT_EQ(w + "dump/", GetDumpPath());
    EXPECT_EQ(w + "QSConfiguration.ini", GetInitFile());
    EXPECT_STREQ((w + "QSConfiguration.ini").c_str(), g_szIniFile);
    EXPECT_EQ(w + "user_config.ini", g_user_config_file);
    EXPECT_EQ(w + "log/qss.log", GetLogFile());
    EXPECT_EQ(w + "log/qsu.log", g_logs_file);
    EXPECT_EQ(w + "log/", g_logs_path);
    EXPECT_EQ(w + "cert/server.pem", GetSSLCertFile());
    EXPECT_EQ(w + "cert/server_key.pem", GetSSLPriKeyFile());
    EXPECT_EQ(w + "cert/cert.e", GetFirefoxCert());
    EXPECT_EQ(w + "qs.exception", GetSecurityExceptionFile());
    EXPECT_EQ(w + "qs_test_host", GetExeFile());
    EXPECT_EQ("127.0.0.1", GetHostName());
    EXPECT_EQ("Quintaris Service", GetServiceName());
    EXPECT_EQ("", GetListenType());
    EXPECT_TRUE(std::regex_match(std::string(gszServiceUUID), std::regex("[0-9a-f]{32}")));
    SetExeFile("/other/exe");
    EXPECT_EQ("/other/exe", GetExeFile());
    SetHostName(nullptr);
    EXPECT_EQ("127.0.0.1", GetHostName());
    return;
  }
  TempDir dir;
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
  EXPECT_TRUE(IsFolder(dir / "cache"));
  EXPECT_TRUE(IsFolder(dir / "log"));
  EXPECT_TRUE(IsFolder(dir / "upload"));
  EXPECT_FALSE(PathExists(dir / "cert")) << "the cert folder is not made";
  EXPECT_TRUE(IsFolder(dir / "dump"));
  EXPECT_EQ(0777u, ModeOf(dir / "log"));
  EXPECT_EQ(0777u, ModeOf(dir / "log/qss.log"));
  EXPECT_EQ(0777u, ModeOf(dir / "dump"));
  EXPECT_TRUE(PathExists(dir / "log/qsu.log"));
}

TEST(Startup, WithoutTheFlagNoPermissionsChangeAndNoDumpFolder) {
  if (InOwnFolder()) {
    umask(022);
    InitProgramInfo(false);
    return;
  }
  TempDir dir;
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
  EXPECT_FALSE(PathExists(dir / "dump"));
  EXPECT_EQ(0755u, ModeOf(dir / "log"));
}

TEST(Startup, SecondCallChangesNothingAndLogsNothing) {
  if (InOwnFolder()) {
    InitProgramInfo(false);
    std::string log = ReadWholeFile(GetLogFile());
    EXPECT_NE(std::string::npos, log.find("Version info:")) << log;
    g_host_name = "changed";
    InitProgramInfo(true);
    EXPECT_EQ("changed", GetHostName());
    EXPECT_EQ(log, ReadWholeFile(GetLogFile()));
    EXPECT_FALSE(PathExists(GetDumpPath()));
    return;
  }
  TempDir dir;
  WriteFile(dir / "QSConfiguration.ini", "[QS]\nLogLevel=14\n");
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
}

TEST(Startup, BannerAndLevelLine) {
  if (InOwnFolder()) {
    SetIfServiceProcess(true);
    InitProgramInfo(false);
    return;
  }
  TempDir dir;
  WriteFile(dir / "QSConfiguration.ini", "; comment\n[QS]\nLogLevel=14\nServer=myhost\n[Other]\nx=1\n");
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
  std::string log = ReadWholeFile(dir / "log/qss.log");
  EXPECT_NE(std::string::npos, log.find("]: Log Level = 14, 0.\n"));
  EXPECT_NE(std::string::npos,
            log.find("]: Version info:Quintaris Service Manager Module, Quintaris Service for Linux x86-64---14, 3, 3, "
                     "1212, \r\n\t\tis64:1, isScanning=0, workMode=0, isFVTActiveX=0\r\n\n"))
      << log;
  // The level is written back, which rewrites the file in the document format:
  // every section and key stays, the comment goes.
  EXPECT_EQ("[Other]\nx=1\n[QS]\nLogLevel=14\nServer=myhost\n", ReadWholeFile(dir / "QSConfiguration.ini"));
}

TEST(Startup, SettingsFromTheConfiguration) {
  if (InOwnFolder()) {
    SetProgramMode(WorkModeUserProcess);
    InitProgramInfo(false);
    EXPECT_EQ("myhost", GetHostName());
    EXPECT_FALSE(GetEnableCORSAll()) << "FaLsE";
    EXPECT_TRUE(GetEnableScannerAccessAuth());
    EXPECT_FALSE(GetEnableFileAccessAuth()) << "yes is not TRUE";
    EXPECT_TRUE(GetEnableWebcamAccessAuth());
    EXPECT_TRUE(GetEnableMultipleUserEnhancedMode());
    EXPECT_EQ("https", GetListenType());
    EXPECT_EQ("My Service", GetServiceName());
    EXPECT_EQ(WorkModeUserProcess, GetProgramMode());
    return;
  }
  TempDir dir;
  WriteFile(dir / "QSConfiguration.ini",
            "[QS]\nServer=myhost\nEnableCORSAll=FaLsE\nEnableScannerAccessAuth=true\nEnableFileAccessAuth=yes\n"
            "EnableWebcamAccessAuth=TRUE\nEnableEnhancedMode=True\nListenType=https\nServiceName=My Service\n");
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
  EXPECT_EQ(std::string::npos, ReadWholeFile(dir / "QSConfiguration.ini").find("LogLevel"))
      << "not the service process: nothing is written";
}

// Broken configurations and an unwritable log folder: start-up completes with
// the defaults and the numbered log-file fallback.
TEST(Startup, SurvivesBrokenConfigurationAndLogFolder) {
  if (InOwnFolder()) {
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
  const char* configurations[] = {"", "\x01\x02garbage\xff\n[[[\n=\n", "[QS]\nLogLevel=\n", nullptr};
  for (const char* configuration : configurations) {
    TempDir dir;
    if (configuration != nullptr) WriteFile(dir / "QSConfiguration.ini", configuration);
    WriteFile(dir / "log", "a file where the log folder should be");
    EXPECT_EQ(0, RunInOwnFolder(dir.path())) << (configuration ? configuration : "(missing)");
  }
  TempDir unreadable;
  WriteFile(unreadable / "QSConfiguration.ini", "[QS]\nServer=secret\n");
  chmod((unreadable / "QSConfiguration.ini").c_str(), 0);
  WriteFile(unreadable / "log", "x");
  EXPECT_EQ(0, RunInOwnFolder(unreadable.path()));
}

TEST(Startup, CleanCacheFolderUsesTheOneSubDirectoryRule) {
  if (InOwnFolder()) {
    InitProgramInfo(false);
    const std::string cache = GetCachePath();
    mkdir((cache + "a").c_str(), 0777);
    mkdir((cache + "b").c_str(), 0777);
    WriteFile(cache + "f", "x");
    EXPECT_TRUE(CleanCacheFolder());
    EXPECT_TRUE(IsFolder(cache)) << "one call stops after the first sub-directory";
    while (IsFolder(cache)) CleanCacheFolder();
    EXPECT_FALSE(CleanCacheFolder()) << "nothing left to remove";
    return;
  }
  TempDir dir;
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
  EXPECT_FALSE(PathExists(dir / "cache"));
}

TEST(Startup, SaveServiceNameTakesEffectAtTheNextStart) {
  if (InOwnFolder()) {
    SetIfServiceProcess(true);
    InitProgramInfo(false);
    SaveServiceName("Renamed");
    EXPECT_EQ("Quintaris Service", GetServiceName());
    EXPECT_EQ("Renamed", GetConfigurationfromInitFile("ServiceName", "", nullptr));
    return;
  }
  TempDir dir;
  ASSERT_EQ(0, RunInOwnFolder(dir.path()));
}

}  // namespace
