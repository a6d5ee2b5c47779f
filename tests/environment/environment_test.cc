// The service environment with its files in a folder of the test's own: the
// configuration store, logging, the port registry, user sessions and desktop
// commands.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "environment/configuration.h"
#include "environment/log.h"
#include "environment/port_registry.h"
#include "environment/program_info.h"
#include "environment/user_session.h"
#include "platform/log.h"
#include "platform/process_flags.h"
#include "tests/environment/service_folder.h"

namespace {

using qs_test::PathExists, qs_test::ReadWholeFile, qs_test::ServiceFolder, qs_test::WriteFile;

// ---- Configuration --------------------------------------------------------------

TEST(Configuration, FlagsReadsAndWhoWrites) {
  ServiceFolder folder;
  // Case-blind everything, values not trimmed (the default and other values: the start-up tests).
  auto flag = [&](const char* text) { return folder.SetConfiguration(text), GetConfigurationfromInitFile("EnableCORSAll", "TRUE"); };
  EXPECT_EQ(std::vector<bool>({true, false, false}), std::vector<bool>({flag("[qs]\nenablecorsall=tRuE\n"),
                                                                       flag("[QS]\nEnableCORSAll= TRUE\n"), flag("[QS]\nEnableCORSAll=1\n")}));
  folder.SetConfiguration("[QS]\nServer=\nLong=" + std::string(3000, 'v') + "\n[Other]\nk=v\n");
  // A key present but empty wins over the default; texts are cut to 2,046 bytes.
  EXPECT_EQ(std::vector<std::string>({"", "", "v", std::string(2046, 'v'), std::string(2046, 'd')}),
            std::vector<std::string>({GetConfigurationfromInitFile("Server", "127.0.0.1", nullptr),
                                      GetConfigurationfromInitFile("Missing", nullptr, nullptr), GetConfigurationfromInitFile("k", "dflt", "Other"),
                                      GetConfigurationfromInitFile("Long", nullptr, nullptr),
                                      GetConfigurationfromInitFile("None", std::string(3000, 'd').c_str(), nullptr)}));

  folder.SetConfiguration("#note\n[QS]\nLogLevel=6\n");
  SetIfServiceProcess(false), SetConfigurationToInitFile("LogLevel", 14, nullptr);
  EXPECT_EQ("#note\n[QS]\nLogLevel=6\n", folder.Configuration()) << "only the service process writes";
  EXPECT_TRUE(SetUserProcessExitFlag("S-1", true) && GetUserProcessExitFlag("S-1") && !GetUserProcessExitFlag(""));
  SetIfServiceProcess(true), SetConfigurationToInitFile("LogLevel", 14, nullptr);
  SetConfigurationToInitFile("Name", std::string("x y"), "Extra"), SaveServiceName("My Service");
  EXPECT_EQ("[Extra]\nName=x y\n[QS]\nLogLevel=14\nServiceName=My Service\n", folder.Configuration());
  // A write that cannot be made is logged with its error number.
  chmod(g_init_file.c_str(), 0444), SetConfigurationToInitFile("Server", std::string("h"), nullptr);
  EXPECT_EQ("[Extra]\nName=x y\n[QS]\nLogLevel=14\nServiceName=My Service\n", folder.Configuration());
  EXPECT_NE(std::string::npos,
            folder.ServiceLog().find("]: Set configuration to init file failed. Key = Server, Value = h. (13)\n"));
}

// ---- Logging ------------------------------------------------------------------------

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// "[Process:%6d Thread:%6d] [MM/DD/YYYY hh:mm:ss.mmm] [Type-mode]: "
std::string Prefix(const std::string& type, int mode = 0) {
  char pid[16];
  snprintf(pid, sizeof(pid), "%6d", getpid());
  return std::string(R"(\[Process:)") + pid + R"( Thread: *[0-9]+\] \[[01][0-9]/[0-3][0-9]/20[0-9]{2} )" +
         R"([0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{3}\] \[)" + type + "-" + std::to_string(mode) + R"(\]: )";
}

TEST(Logging, LinesLevelsAndFiles) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  EXPECT_TRUE(LogDebug("hidden %d", 1)) << "filtered counts as written";
  errno = 2;
  EXPECT_TRUE(LogErr("Something failed") && errno == 2) << "the caller's errno is kept";
  LogInfo("note %s", "here");
  // The level is read on every call, unvalidated while filtering.
  folder.SetConfiguration("[QS]\nLogLevel=255\n"), SetProgramMode(WorkModeUserProcess);
  const unsigned char data[] = {'a', 0, 'z'};
  LogDebug("with data", data, 3), LogDebug("empty data", data, 0);
  SetProgramMode(WorkModeService), errno = 0, Log(3, "type %d", 3), Log(1, "type %d", 1);
  const std::vector<std::string> lines = Lines(folder.ServiceLog());
  const std::string expected[] = {Prefix("Error") + "Something failed GetLastError = 2\\.", Prefix("Info") + "note here",
                                  Prefix("Debug", 3) + "with data", std::string("a\\x00z"),
                                  Prefix("Debug", 3) + "empty data", "", Prefix("Error") + "type 3 GetLastError = 0\\.",
                                  Prefix("Debug") + "type 1"};
  ASSERT_EQ(8u, lines.size()) << folder.ServiceLog();
  for (size_t i = 0; i < 8; ++i) EXPECT_TRUE(std::regex_match(lines[i], std::regex(expected[i]))) << lines[i];
  EXPECT_EQ(std::string::npos, folder.ServiceLog().find('\r'));
  SetIfScanningProcess(true), LogInfo("from the scanner"), SetIfScanningProcess(false);
  EXPECT_NE(std::string::npos, folder.ScanningLog().find("from the scanner"));
  g_log_file = folder.dir() / "missing/folder/qss.log";
  EXPECT_FALSE(LogErr("lost"));
}

TEST(Logging, LevelValidationAndTheRunTimeMask) {
  ServiceFolder folder;
  // A missing key is 6, a leading blank is skipped, not a number lets nothing through.
  auto level = [&](const char* text) { return folder.SetConfiguration(text), GetLogLevel(); };
  EXPECT_EQ(std::vector<int>({6, 12, 0}), std::vector<int>({level(""), level("[QS]\nLogLevel = 12\n"), level("[QS]\nLogLevel=abc\n")}));
  // Any bit of the run-time mask lets everything through, 65535 means all; above 14 the default is used.
  const struct { const char* level; int mask, effective; } rows[] = {{"6", 8, 14}, {"6", 0, 6}, {"6", 65535, 14}, {"15", 0, 6}};
  for (const auto& r : rows) {
    folder.SetConfiguration(std::string("[QS]\nLogLevel=") + r.level + "\nOther=x\n");
    EXPECT_EQ(r.effective == 14, ChangeLogLevel(r.mask)) << r.level << " " << r.mask;
    EXPECT_EQ(r.effective, g_log_level);
  }
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("]: Invalid Service Log Level value. Default log level value loaded."));
  SetIfServiceProcess(true), SetLogLevel(14);
  EXPECT_EQ("[QS]\nLogLevel=14\nOther=x\n", folder.Configuration());
  EXPECT_TRUE(g_enumLogLevel && IsDebugMode());
  EXPECT_NE(std::string::npos, folder.ServiceLog().find("[Debug-0]: Log Level = 14, 0."));
}

TEST(Logging, ConcurrentLinesNeverInterleave) {
  ServiceFolder folder("[QS]\nLogLevel=6\n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([t] {
    for (int i = 0; i < 100; ++i) LogInfo("thread %d %s", t, std::string(200, 'a' + t).c_str());
  });
  for (auto& thread : threads) thread.join();
  const std::vector<std::string> lines = Lines(folder.ServiceLog());
  ASSERT_EQ(400u, lines.size());
  const std::regex whole(Prefix("Info") + "thread [0-3] ([a-d])\\1{199}");
  for (const std::string& line : lines) ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

// ---- Port registry ----------------------------------------------------------------

TEST(PortRegistry, UserPortsListsAndTextSearch) {
  ServiceFolder folder;
  WriteFile(g_user_config_file, "[S-1]\nkxp=18625\nkxp_def=18993\nfvt=12abc\n[]\nkxs_ssl=18628\n");
  SavePort("S-1", "kxp", true, true, 18626), SavePort("", "kxp", false, true, 18994), SetProgramMode(WorkModeUserProcess);
  auto port = [](const char* name, bool def, bool ssl) { return std::to_string(GetPort("S-1", name, def, ssl)) + " "; };
  EXPECT_EQ("18625 18993 18626 18626 12 0 ", port("kxp", false, false) + port("kxp", true, false) +
                                                 port("kxp", false, true) + port("kxp", true, true) +
                                                 port("fvt", false, false) + port("kxs", false, true));
  EXPECT_EQ(std::vector<int>({18994, 18628}), ReadUserSSLPort()) << "the ports of the section \"\"";
  // Named lists: written in name order from what this process set, read back by name.
  SetProgramMode(WorkModeService), SetIfServiceProcess(true);
  SetSSLPort(18994, "b"), SetSSLPort(18626, "a"), SetNoSSLPort(1, "n");
  EXPECT_EQ("[QS]\nPort=1\nPort_mn_0=n\nPort_mp_0=1\nSSLPort=2\nSSLPort_mn_0=a\nSSLPort_mn_1=b\nSSLPort_mp_0=18626\nSSLPort_mp_1=18994\n",
            folder.Configuration());
  EXPECT_EQ(std::vector<int>({18994, 0}), std::vector<int>({GetSSLPort("b", true), GetSSLPort("x", true)}));
  // A plain substring test up to the first 0 byte; a file that cannot be read holds nothing.
  WriteFile(folder.dir() / "ports", std::string("x18625\0 19000", 13));
  EXPECT_EQ(std::vector<bool>({true, false, false, false}),
            std::vector<bool>({PortIsUsed(folder.dir() / "ports", 8625), PortIsUsed(folder.dir() / "ports", 19000),
                               PortIsUsed(folder.dir() / "none", 1), PortIsUsed(18625)}));
}

// ---- User sessions and desktop commands -----------------------------------------------

// The desktop tools are stand-ins in the test's folder. Outside text reaches
// them as data, never through a shell.
TEST(UserSession, UsersOriginsAndDesktopTools) {
  ServiceFolder folder("[QS]\nLogLevel=14\n");
  EXPECT_FALSE(GetClientConnectionSessionID(3) != 0 || GetCurrentUserToken(nullptr, 0));
  unsigned int uid = 7, gid = 7;
  EXPECT_EQ(std::vector<int>({0, -1, -1, -1, -1, 0, 0}),
            std::vector<int>({name_to_uid("root", &uid, &gid), name_to_uid(nullptr, &uid, &gid), name_to_uid("root", nullptr, &gid),
                              name_to_uid("root", &uid, nullptr), name_to_uid("no-such-user-qs", &uid, &gid), int(uid), int(gid)}));
  // The origin of a URL, up to the first "/" after "://".
  const char* const domains[][2] = {
      {"NULL", "NULL"}, {"ftp://a/b", ""}, {"HTTPS://Host:8080/path?x", "HTTPS://Host:8080"}, {"http:///a/b", "http://"}};
  for (const auto& d : domains) EXPECT_EQ(d[1], GetFullDomain(d[0])) << d[0];
  const std::string dir = folder.dir().path(), path = getenv("PATH");
  auto tool = [](const std::string& file, const std::string& body) { WriteFile(file, "#!/bin/sh\n" + body + "\n"), chmod(file.c_str(), 0755); };
  tool(dir + "/certutil", "yes quintaris_folivant | head -n 10"), setenv("PATH", (dir + ":" + path).c_str(), 1);
  // A value with shell characters is written verbatim and runs nothing.
  const std::string value = "$(touch " + dir + "/X);`touch " + dir + "/Y`";
  mkdir((dir + "/9").c_str(), 0755), WriteFile(dir + "/9/environ", std::string("HOME=/\0DISPLAY=", 15) + value + '\0');
  WriteFile(dir + "/9/status", "Name:\tb\nUid:\t1000\t1001\t1002\t1003\n");
  EXPECT_EQ(value, user_session_internal::WriteDisplayOfProcess(9, dir, dir + "/D.log"));
  EXPECT_EQ(10, GetChromeCertCount());
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "every tool was waited for";
  EXPECT_EQ(value + "\n", ReadWholeFile(dir + "/D.log"));
  EXPECT_EQ("1000|", user_session_internal::UidOfProcess(9, dir) + "|" + user_session_internal::UidOfProcess(8, dir));
  // The converter's output goes to the bitmap file; a null name runs nothing.
  tool(dir + "/pnm2bmp", "echo \"bmp of $1\"");
  TransformPnm2Bmp("in.pnm", (dir + "/out.bmp").c_str()), TransformPnm2Bmp(nullptr, (dir + "/none.bmp").c_str());
  EXPECT_EQ("bmp of in.pnm\n", ReadWholeFile(dir + "/out.bmp"));
  EXPECT_FALSE(PathExists(dir + "/X") || PathExists(dir + "/Y") || PathExists(dir + "/none.bmp"));
  // A helper gets its arguments; a child whose exec failed returns false to its caller, which ends it.
  tool(dir + "/helper", "echo \"$0 $*\" > " + dir + "/args"), SetModulePath("/m"), g_enumLogLevel = true;
  const pid_t self = getpid();
  std::string results;
  for (const std::string& app : {dir + "/helper", dir + "/missing"}) {
    const bool started = CreateProcessAsCurrentLogonUser(const_cast<char*>(app.c_str()), const_cast<char*>("a b"));
    if (getpid() != self) _exit(started ? 3 : 4);
    int status = -1;
    results += std::to_string(started) + std::to_string(waitpid(-1, &status, 0) > 0 ? WEXITSTATUS(status) : -1);
  }
  EXPECT_EQ("1014", results);
  EXPECT_EQ(dir + "/helper scan a b 1 1 1 /m\n", ReadWholeFile(dir + "/args"));
  auto logged = [&](const char* text) { return folder.ServiceLog().find(text) != std::string::npos; };
  EXPECT_TRUE(logged("]: name_to_uid failed. GetLastError") && logged("]: CreateProcessAsCurrentLogonUser fork child process end\n\n") &&
              logged("]: execve failed: Something wrong with child ! GetLastError = 2."));
}

}  // namespace
