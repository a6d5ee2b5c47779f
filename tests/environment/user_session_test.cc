// User and session queries, helper processes, the browser behind a loopback
// connection, desktop command lines and origins.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "environment/user_session.h"
#include "tests/common/own_folder.h"
#include "tests/environment/service_folder.h"

namespace {

using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::WriteFile;
namespace internal = user_session_internal;

// Environment variables as the kernel lists them: each followed by a 0 byte.
std::string Block(const std::vector<std::string>& variables) {
  std::string block;
  for (const std::string& v : variables) block += v + std::string(1, '\0');
  return block;
}

// Work, log and configuration files in a fresh folder with every log level
// on; the other globals these cases change are put back.
class UserSessionTest : public testing::Test {
 protected:
  UserSessionTest() { g_log_path = g_work_path; }
  ~UserSessionTest() override {
    g_log_path = savedLogPath_;
    g_module_path = savedModule_;
    g_enumLogLevel = savedLogAll_;
  }
  std::string Path(const std::string& name) const { return folder_.dir() / name; }
  static std::string Tag(const char* type) {
    return std::string("[") + type + "-" + std::to_string(GetProgramMode()) + "]: ";
  }
  // Starts `application` and waits for the child named in the debug line.
  // A child whose exec failed comes back here and ends with 40 (false) or 30.
  int RunHelper(const std::string& application, std::string commandLine) {
    std::string app = application;
    const pid_t parent = getpid();
    const bool started = CreateProcessAsCurrentLogonUser(&app[0], &commandLine[0]);
    if (getpid() != parent) _exit(started ? 30 : 40);
    EXPECT_TRUE(started);
    const std::string log = folder_.ServiceLog();
    const std::string marker = Tag("Debug") + "CreateProcessAsCurrentLogonUser return: ";
    const size_t at = log.rfind(marker);
    if (at == std::string::npos) return -1;
    const pid_t child = static_cast<pid_t>(strtol(log.c_str() + at + marker.size(), nullptr, 10));
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string savedLogPath_ = g_log_path, savedModule_ = g_module_path;
  bool savedLogAll_ = g_enumLogLevel;
  qs_test::ServiceFolder folder_{"[QS]\nLogLevel=14\n"};
};

TEST_F(UserSessionTest, SessionAndUserQueries) {
  std::string sid = "S-1-5-21";
  unsigned int session = 77;
  GetUserInfo(5, sid, session);
  EXPECT_EQ("", sid);
  EXPECT_EQ(0u, session);
  void* token = &token;
  EXPECT_FALSE(GetCurrentUserToken(&token, 3));
  EXPECT_EQ(&token, token);

  unsigned int uid = 99, gid = 99;
  EXPECT_EQ(0, name_to_uid("root", &uid, &gid));
  EXPECT_EQ(0u, uid + gid);
  EXPECT_EQ(-1, name_to_uid(nullptr, &uid, &gid));
  EXPECT_EQ(-1, name_to_uid("root", nullptr, &gid));
  EXPECT_EQ("", folder_.ServiceLog()) << "null arguments are not logged";
  EXPECT_EQ(-1, name_to_uid("qs_no_such_user_z9", &uid, &gid));
  EXPECT_NE(std::string::npos, folder_.ServiceLog().find(Tag("Error") + "name_to_uid failed. GetLastError = "));
}

TEST_F(UserSessionTest, HelperGetsTheFixedArgumentListAndAFailedExecReturnsFalseInTheChild) {
  const std::string output = Path("args.txt"), helper = Path("helper.sh");
  WriteFile(helper, "#!/bin/sh\nfor a in \"$0\" \"$@\"; do printf '%s\\n' \"$a\"; done > '" + output + "'\n");
  chmod(helper.c_str(), 0755);
  SetModulePath("/usr/lib/qs/libkxp.so");
  for (bool logAll : {false, true}) {
    g_enumLogLevel = logAll;
    EXPECT_EQ(0, RunHelper(helper, "two words"));
    EXPECT_EQ(helper + "\nscan\ntwo words\n1\n1\n" + (logAll ? "1" : "0") + "\n/usr/lib/qs/libkxp.so\n",
              ReadWholeFile(output));
  }
  EXPECT_EQ(40, RunHelper(Path("no_such_helper"), "x"));
  const std::string log = folder_.ServiceLog();
  EXPECT_NE(std::string::npos, log.find(Tag("Debug") + "CreateProcessAsCurrentLogonUser fork child process end\n\n"));
  EXPECT_NE(std::string::npos, log.find(Tag("Error") + "execve failed: Something wrong with child ! GetLastError = "));
}

TEST_F(UserSessionTest, DisplayIsReadFromTheEnvironmentLineByLine) {
  using internal::DisplayFromEnvironment;
  EXPECT_EQ("a=b", DisplayFromEnvironment(Block({"A=1", "DISPLAY=a=b", "B=2"})));
  EXPECT_EQ("", DisplayFromEnvironment(Block({"XDISPLAY=:1", "DISPLAY", "display=:2", "DISPLAY_X=:3"})));
  EXPECT_EQ(":2", DisplayFromEnvironment(Block({"DISPLAY=:1", "DISPLAY=:2"}))) << "the last one wins";
  EXPECT_EQ(":4", DisplayFromEnvironment(Block({"DISPLAY=:4\nrest"}))) << "a line feed ends the line";
  // A line holds at most 2,559 bytes; the rest of a longer one is a line of its own.
  EXPECT_EQ(std::string(2559 - 8, 'x'), DisplayFromEnvironment(Block({"DISPLAY=" + std::string(3000, 'x')})));
  EXPECT_EQ(":9", DisplayFromEnvironment(Block({"A=" + std::string(2557, 'y') + "DISPLAY=:9"})));
}

TEST_F(UserSessionTest, DisplayFileAndUidComeFromTheProcFolder) {
  mkdir(Path("7").c_str(), 0755);
  WriteFile(Path("7/environ"), Block({"USER=u", "DISPLAY=:1.0"}));
  WriteFile(Path("7/status"), "Name:\tbrowser\nUid:\t1000\t1001\t1002\t1003\nGid:\t50\t50\t50\t50\n");
  const std::string output = Path("DISPLAY.log");
  WriteFile(output, "old content that is replaced\n");
  EXPECT_EQ(":1.0", internal::WriteDisplayOfProcess(7, folder_.dir().path(), output));
  EXPECT_EQ(":1.0\n", ReadWholeFile(output));
  EXPECT_EQ("1000", internal::UidOfProcess(7, folder_.dir().path()));
  // An unknown process leaves an empty line.
  EXPECT_EQ("", internal::WriteDisplayOfProcess(8, folder_.dir().path(), output));
  EXPECT_EQ("\n", ReadWholeFile(output));
  EXPECT_EQ("", internal::UidOfProcess(8, folder_.dir().path()));
  EXPECT_EQ(std::to_string(getuid()), internal::UidOfProcess(getpid(), "/proc"));
}

TEST_F(UserSessionTest, DisplayWithShellCharactersIsWrittenVerbatimAndRunsNothing) {
  const std::string value = "$(touch " + Path("X") + ");`touch " + Path("Y") + "`; touch " + Path("Z") + " &";
  mkdir(Path("9").c_str(), 0755);
  WriteFile(Path("9/environ"), Block({"HOME=/", "DISPLAY=" + value}));
  EXPECT_EQ(value, internal::WriteDisplayOfProcess(9, folder_.dir().path(), Path("DISPLAY.log")));
  EXPECT_EQ(value + "\n", ReadWholeFile(Path("DISPLAY.log")));
  usleep(100 * 1000);
  EXPECT_FALSE(PathExists(Path("X")) || PathExists(Path("Y")) || PathExists(Path("Z")));
}

// Runs in a copy of the test binary named like the service, so that the
// lookup skips this process's own end of the connection. The browser is a
// shell connected to it with its own DISPLAY (and, when this runs as root,
// its own user). Without netstat nothing is found.
TEST_F(UserSessionTest, BrowserBehindALoopbackConnectionIsFound) {
  if (!qs_test::InOwnFolder()) {
    qs_test::TempDir folder;
    EXPECT_EQ(0, qs_test::RunInOwnFolder(folder.path(), nullptr, "QuintarisService"));
    return;
  }
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<struct sockaddr*>(&address), length));
  listen(listener, 4);
  getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
  const std::string port = std::to_string(ntohs(address.sin_port));

  const bool asRoot = getuid() == 0;
  const pid_t browser = fork();
  if (browser == 0) {
    if (asRoot && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
    const std::string script = "exec 3<>/dev/tcp/127.0.0.1/" + port + " && read -t 30 line <&3";
    char* argv[] = {const_cast<char*>("/bin/bash"), const_cast<char*>("-c"), const_cast<char*>(script.c_str()),
                    nullptr};
    char* envp[] = {const_cast<char*>("DISPLAY=:42.0"), const_cast<char*>("LANG=C"), nullptr};
    execve(argv[0], argv, envp);
    _exit(3);
  }
  struct pollfd wait = {listener, POLLIN, 0};
  const int connection = poll(&wait, 1, 10000) == 1 ? accept(listener, nullptr, nullptr) : -1;
  ASSERT_GE(connection, 0) << "the browser did not connect";

  const std::string output = std::string(getenv("QS_TEST_OWN_FOLDER")) + "/DISPLAY.log";
  const std::string display = internal::GetDisplayEnvTo(connection, "/proc", output);
  const std::string uid = GetRemoteProcessUID(connection);
  if (system("command -v netstat >/dev/null 2>&1") == 0) {
    EXPECT_EQ(":42.0", display);
    EXPECT_EQ(std::to_string(asRoot ? 65534 : getuid()), uid);
    EXPECT_EQ(uid, GetCurrentUserName(static_cast<unsigned int>(connection)));
  } else {
    EXPECT_EQ("", display + uid);
  }
  EXPECT_EQ(display + "\n", ReadWholeFile(output));
  close(connection);
  waitpid(browser, nullptr, 0);
  close(listener);
}

TEST_F(UserSessionTest, CommandLinesAreBuiltOnTheWorkPath) {
  g_work_path = "/opt/s/";
  EXPECT_EQ("/opt/s/folivant_dialog 2", GetLinuxOpenFileDialogCmd());
  EXPECT_EQ("/opt/s/folivant_dialog 1 my scan.pdf", GetLinuxSaveFileDialogCmd("my scan.pdf"));
  EXPECT_EQ("/opt/s/folivant_dialog 3 10 20 \"a b\"", GetLinuxSecurityDialogCmd(10, 20, "a b"));
  EXPECT_EQ("/opt/s/DebInstallCertCheck&", GetDebInstallCertCheckCmd());
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ("/opt/s/linuxFVT" + pid + ".pnm", GetPnmTempFilePath());
  EXPECT_EQ("/opt/s/linuxFVT" + pid + ".bmp", GetBmpTempFilePath());
  EXPECT_EQ("netstat -aopn | grep -v QuintarisS | grep 127.0.0.1:18625 | awk -F' ' {'print $7'}",
            internal::PeerLookupCommand(18625));
  // The security prompt is cut to 511 characters, closing quote and all.
  const std::string prefix = "/opt/s/folivant_dialog 3 1 2 \"", fits(511 - prefix.size() - 1, 'q');
  EXPECT_EQ(prefix + fits + "\"", GetLinuxSecurityDialogCmd(1, 2, fits.c_str()));
  EXPECT_EQ(prefix + fits + "q", GetLinuxSecurityDialogCmd(1, 2, std::string(600, 'q').c_str()));
}

TEST_F(UserSessionTest, ConverterGetsThePnmNameAsOneArgumentAndWritesTheBmp) {
  WriteFile(Path("pnm2bmp"), "#!/bin/sh\nprintf 'args=%d first=%s' \"$#\" \"$1\"\n");
  chmod(Path("pnm2bmp").c_str(), 0755);
  const std::string pnm = Path("in put $(touch " + Path("M1") + ");touch " + Path("M2") + ".pnm");
  const std::string bmp = Path("out put.bmp");
  WriteFile(bmp, std::string(500, 'o'));
  TransformPnm2Bmp(pnm.c_str(), bmp.c_str());
  EXPECT_EQ("args=1 first=" + pnm, ReadWholeFile(bmp)) << "the old content is replaced";
  EXPECT_FALSE(PathExists(Path("M1")) || PathExists(Path("M2")));
}

TEST_F(UserSessionTest, CertificateCountAndSystemInfo) {
  // Either the tool is missing or the user has no store: nothing is listed.
  const char* home = getenv("HOME");
  const std::string savedHome = home != nullptr ? home : "";
  setenv("HOME", folder_.dir().path().c_str(), 1);
  EXPECT_EQ(0, GetChromeCertCount());
  home != nullptr ? setenv("HOME", savedHome.c_str(), 1) : unsetenv("HOME");

  LogLinuxSystemInfo();
  struct utsname name;
  ASSERT_EQ(0, uname(&name));
  const std::string text = ReadWholeFile(Path("SystemInfo.log"));
  EXPECT_EQ(0u, text.find(std::string(name.sysname) + " " + name.nodename + " " + name.release + " ")) << text;
  EXPECT_EQ('\n', text.empty() ? 0 : text.back());
}

TEST_F(UserSessionTest, FullDomainIsSchemeHostAndPort) {
  const std::pair<const char*, const char*> cases[] = {
      {"HTTPS://Host:8080/path?x", "HTTPS://Host:8080"},
      {"http://example.com./x", "http://example.com"},  // a trailing dot is dropped
      // The whole origin is split at dots, so the scheme is encoded with the first label.
      {"https://b\xC3\xBC" "cher.example:8443/x", "xn--https://bcher-4ob.example:8443"},
      {"NULL", "NULL"}, {"nUlL", "nUlL"}, {"", ""}, {"ftp://a/b", ""},
      {"http://a..b/", ""},  // the conversion rejects an empty label
      // "http://" anywhere lets the URL through; the origin ends after its first "://".
      {"ftp://x/?next=http://y", "ftp://x"},
  };
  for (const auto& [url, origin] : cases) EXPECT_EQ(origin, GetFullDomain(url)) << url;
}

}  // namespace
