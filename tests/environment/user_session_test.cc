#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "environment/log.h"
#include "environment/program_info.h"
#include "environment/user_session.h"
#include "tests/common/own_folder.h"
#include "tests/common/temp_dir.h"
#include "util/win_string.h"

namespace {

using qs_test::PathExists;
using qs_test::ReadWholeFile;
using qs_test::TempDir;
using qs_test::WriteFile;
namespace internal = user_session_internal;

bool ToolAvailable(const char* tool) {
  return system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// Environment variables as the kernel lists them: each followed by a 0 byte.
std::string Block(const std::vector<std::string>& variables) {
  std::string block;
  for (const std::string& v : variables) block += v + std::string(1, '\0');
  return block;
}

// A loopback listener on a free port.
int Listen(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  bind(fd, reinterpret_cast<struct sockaddr*>(&address), length);
  listen(fd, 4);
  getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

// Accepts one connection within ten seconds; -1 when none comes.
int AcceptWithin10s(int listener) {
  struct pollfd wait = {listener, POLLIN, 0};
  if (poll(&wait, 1, 10000) != 1) return -1;
  return accept(listener, nullptr, nullptr);
}

// Starts `program` with exactly `arguments` and `environment`.
pid_t Spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  std::vector<char*> argv;
  for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) return -1;
  return pid;
}

// Points the configuration, log and work folders at a fresh folder and puts
// back every global these cases change.
class UserSessionTest : public testing::Test {
 protected:
  void SetUp() override {
    g_init_file = dir_ / "QSConfiguration.ini";
    lstrcpyn(g_szIniFile, g_init_file.c_str(), sizeof(g_szIniFile));
    g_work_path = g_log_path = dir_.path() + "/";
    g_log_file = dir_ / "qss.log";
  }
  void TearDown() override {
    g_init_file = saved_init_;
    lstrcpyn(g_szIniFile, saved_ini_.c_str(), sizeof(g_szIniFile));
    g_work_path = saved_work_;
    g_log_path = saved_log_path_;
    g_log_file = saved_log_;
    g_module_path = saved_module_;
    g_enumLogLevel = saved_log_all_;
  }

  // Every level goes into qss.log of the folder.
  void LogEverything() { WriteFile(g_init_file, "[QS]\nLogLevel=14\n"); }
  std::string LogText() const { return ReadWholeFile(dir_ / "qss.log"); }
  static std::string Tag(const char* type) {
    return std::string("[") + type + "-" + std::to_string(GetProgramMode()) + "]: ";
  }
  // Starts `application` and waits for the child named in the debug line.
  // A child whose exec failed comes back here and ends with 40 (false) or 30.
  int RunHelper(const std::string& application, const char* commandLine) {
    std::vector<char> app(application.begin(), application.end());
    app.push_back('\0');
    std::vector<char> command(commandLine, commandLine + strlen(commandLine) + 1);
    const pid_t parent = getpid();
    const bool started = CreateProcessAsCurrentLogonUser(app.data(), command.data());
    if (getpid() != parent) _exit(started ? 30 : 40);
    EXPECT_TRUE(started);
    const std::string text = LogText();
    const std::string marker = Tag("Debug") + "CreateProcessAsCurrentLogonUser return: ";
    const size_t at = text.rfind(marker);
    if (at == std::string::npos) return -1;
    const pid_t child = static_cast<pid_t>(strtol(text.c_str() + at + marker.size(), nullptr, 10));
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  TempDir dir_;

 private:
  std::string saved_init_ = g_init_file;
  std::string saved_ini_ = g_szIniFile;
  std::string saved_work_ = g_work_path;
  std::string saved_log_path_ = g_log_path;
  std::string saved_log_ = g_log_file;
  std::string saved_module_ = g_module_path;
  bool saved_log_all_ = g_enumLogLevel;
};

// ---- Session queries -------------------------------------------------------------

TEST_F(UserSessionTest, EveryConnectionIsTheSharedSession) {
  std::string sid = "S-1-5-21";
  unsigned int session = 77;
  GetUserInfo(5, sid, session);
  EXPECT_EQ("", sid);
  EXPECT_EQ(0u, session);
  void* token = &token;
  EXPECT_FALSE(GetCurrentUserToken(&token, 3));
  EXPECT_EQ(&token, token);
}

TEST_F(UserSessionTest, NameToUidLooksTheUserUpAndLogsAFailedLookup) {
  LogEverything();
  unsigned int uid = 99;
  unsigned int gid = 99;
  EXPECT_EQ(0, name_to_uid("root", &uid, &gid));
  EXPECT_EQ(0u, uid);
  EXPECT_EQ(0u, gid);

  EXPECT_EQ(-1, name_to_uid(nullptr, &uid, &gid));
  EXPECT_EQ(-1, name_to_uid("root", nullptr, &gid));
  EXPECT_EQ(std::string::npos, LogText().find("name_to_uid failed.")) << "null arguments are not logged";
  uid = 5;
  gid = 6;
  EXPECT_EQ(-1, name_to_uid("qs_no_such_user_z9", &uid, &gid));
  EXPECT_EQ(5u, uid);
  EXPECT_EQ(6u, gid);
  EXPECT_NE(std::string::npos, LogText().find(Tag("Error") + "name_to_uid failed. GetLastError = "));
}

// ---- Helper processes ------------------------------------------------------------

TEST_F(UserSessionTest, HelperGetsTheFixedArgumentList) {
  LogEverything();
  const std::string output = dir_ / "args.txt";
  const std::string helper = dir_ / "helper.sh";
  WriteFile(helper, "#!/bin/sh\nfor a in \"$0\" \"$@\"; do printf '%s\\n' \"$a\"; done > '" + output + "'\n");
  chmod(helper.c_str(), 0755);
  SetModulePath("/usr/lib/qs/libkxp.so");
  for (bool logAll : {false, true}) {
    g_enumLogLevel = logAll;
    EXPECT_EQ(0, RunHelper(helper, "two words"));
    EXPECT_EQ(helper + "\nscan\ntwo words\n1\n1\n" + (logAll ? "1" : "0") + "\n/usr/lib/qs/libkxp.so\n",
              ReadWholeFile(output));
  }
}

TEST_F(UserSessionTest, FailedExecReturnsFalseToTheCallerInTheChild) {
  LogEverything();
  EXPECT_EQ(40, RunHelper(dir_ / "no_such_helper", "x"));
  const std::string log = LogText();
  EXPECT_NE(std::string::npos, log.find(Tag("Debug") + "CreateProcessAsCurrentLogonUser fork child process end\n\n"));
  EXPECT_NE(std::string::npos, log.find(Tag("Error") + "execve failed: Something wrong with child ! GetLastError = "));
}

// ---- The browser process behind a loopback connection ------------------------------

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

TEST_F(UserSessionTest, DisplayWithShellCharactersIsWrittenVerbatimAndRunsNothing) {
  const std::string markerX = dir_ / "X";
  const std::string markerY = dir_ / "Y";
  const std::string markerZ = dir_ / "Z";
  const std::string value = "$(touch " + markerX + ");`touch " + markerY + "`; touch " + markerZ + " | cat > /dev/null &";
  const pid_t browser = Spawn({"/bin/sleep", "30"}, {"HOME=/", "DISPLAY=" + value, "LANG=C"});
  ASSERT_GT(browser, 0);
  // The spawn returns while the new image may still be setting up its
  // environment; wait until the kernel shows it.
  const std::string environFile = "/proc/" + std::to_string(browser) + "/environ";
  for (int i = 0; i < 500 && ReadWholeFile(environFile).empty(); ++i) usleep(10 * 1000);

  const std::string output = dir_ / "DISPLAY.log";
  EXPECT_EQ(value, internal::WriteDisplayOfProcess(browser, "/proc", output));
  EXPECT_EQ(value + "\n", ReadWholeFile(output));
  kill(browser, SIGKILL);
  waitpid(browser, nullptr, 0);
  usleep(100 * 1000);
  EXPECT_FALSE(PathExists(markerX));
  EXPECT_FALSE(PathExists(markerY));
  EXPECT_FALSE(PathExists(markerZ));
}

TEST_F(UserSessionTest, DisplayFileAndUidComeFromTheProcFolder) {
  mkdir((dir_ / "7").c_str(), 0755);
  WriteFile(dir_ / "7/environ", Block({"USER=u", "DISPLAY=:1.0"}));
  WriteFile(dir_ / "7/status", "Name:\tbrowser\nUid:\t1000\t1001\t1002\t1003\nGid:\t50\t50\t50\t50\n");
  const std::string output = dir_ / "DISPLAY.log";
  WriteFile(output, "old content that is replaced\n");
  EXPECT_EQ(":1.0", internal::WriteDisplayOfProcess(7, dir_.path(), output));
  EXPECT_EQ(":1.0\n", ReadWholeFile(output));
  EXPECT_EQ("1000", internal::UidOfProcess(7, dir_.path()));

  // An unknown process leaves an empty line, as the service always has.
  EXPECT_EQ("", internal::WriteDisplayOfProcess(8, dir_.path(), output));
  EXPECT_EQ("\n", ReadWholeFile(output));
  EXPECT_EQ("", internal::UidOfProcess(8, dir_.path()));
  EXPECT_EQ(std::to_string(getuid()), internal::UidOfProcess(getpid(), "/proc"));
}

// Runs in a copy of the test binary named like the service, so that the
// lookup skips this process's own end of the connection. The browser is a
// shell connected to it with its own DISPLAY (and, when this runs as root,
// its own user). Without netstat nothing is found.
TEST_F(UserSessionTest, BrowserBehindALoopbackConnectionIsFound) {
  if (!qs_test::InOwnFolder()) {
    TempDir folder;
    EXPECT_EQ(0, qs_test::RunInOwnFolder(folder.path(), nullptr, "QuintarisService"));
    return;
  }
  const std::string folder = getenv("QS_TEST_OWN_FOLDER");
  int port = 0;
  const int listener = Listen(&port);
  ASSERT_GT(port, 0);

  const bool asRoot = getuid() == 0;
  const unsigned int browserUid = asRoot ? 65534 : getuid();
  const pid_t browser = fork();
  if (browser == 0) {
    if (asRoot && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
    const std::string script = "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) + " && read -t 30 line <&3";
    char* argv[] = {const_cast<char*>("/bin/bash"), const_cast<char*>("-c"), const_cast<char*>(script.c_str()),
                    nullptr};
    char* envp[] = {const_cast<char*>("DISPLAY=:42.0"), const_cast<char*>("LANG=C"), nullptr};
    execve(argv[0], argv, envp);
    _exit(3);
  }
  const int connection = AcceptWithin10s(listener);
  ASSERT_GE(connection, 0) << "the browser did not connect";

  const std::string output = folder + "/DISPLAY.log";
  const std::string display = internal::GetDisplayEnvTo(connection, "/proc", output);
  const std::string uid = GetRemoteProcessUID(connection);
  if (ToolAvailable("netstat")) {
    EXPECT_EQ(":42.0", display);
    EXPECT_EQ(std::to_string(browserUid), uid);
    EXPECT_EQ(uid, GetCurrentUserName(static_cast<unsigned int>(connection)));
  } else {
    EXPECT_EQ("", display);
    EXPECT_EQ("", uid);
  }
  EXPECT_EQ(display + "\n", ReadWholeFile(output));

  close(connection);
  int status = 0;
  waitpid(browser, &status, 0);
  close(listener);
}

// ---- Command lines ---------------------------------------------------------------

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
  const std::string prefix = "/opt/s/folivant_dialog 3 1 2 \"";
  const std::string fits(511 - prefix.size() - 1, 'q');
  EXPECT_EQ(prefix + fits + "\"", GetLinuxSecurityDialogCmd(1, 2, fits.c_str()));
  EXPECT_EQ(prefix + fits + "q", GetLinuxSecurityDialogCmd(1, 2, std::string(600, 'q').c_str()));
}

// ---- Desktop actions -------------------------------------------------------------

TEST_F(UserSessionTest, ConverterGetsThePnmNameAsOneArgumentAndWritesTheBmp) {
  const std::string converter = dir_ / "pnm2bmp";
  WriteFile(converter, "#!/bin/sh\nprintf 'args=%d first=%s' \"$#\" \"$1\"\n");
  chmod(converter.c_str(), 0755);
  const std::string marker1 = dir_ / "M1";
  const std::string marker2 = dir_ / "M2";
  const std::string pnm = dir_ / ("in put $(touch " + marker1 + ");touch " + marker2 + ".pnm");
  const std::string bmp = dir_ / "out put.bmp";
  WriteFile(bmp, std::string(500, 'o'));

  TransformPnm2Bmp(pnm.c_str(), bmp.c_str());
  EXPECT_EQ("args=1 first=" + pnm, ReadWholeFile(bmp)) << "the old content is replaced";
  EXPECT_FALSE(PathExists(marker1));
  EXPECT_FALSE(PathExists(marker2));
  TransformPnm2Bmp(nullptr, (dir_ / "other.bmp").c_str());
  EXPECT_FALSE(PathExists(dir_ / "other.bmp"));
}

TEST_F(UserSessionTest, CertificateCountAndSystemInfo) {
  // Either the tool is missing or the user has no store: nothing is listed.
  const char* home = getenv("HOME");
  const std::string savedHome = home != nullptr ? home : "";
  setenv("HOME", dir_.path().c_str(), 1);
  EXPECT_EQ(0, GetChromeCertCount());
  setenv("HOME", savedHome.c_str(), 1);
  if (home == nullptr) unsetenv("HOME");

  LogLinuxSystemInfo();
  struct utsname name;
  ASSERT_EQ(0, uname(&name));
  const std::string text = ReadWholeFile(dir_ / "SystemInfo.log");
  EXPECT_EQ(0u, text.find(std::string(name.sysname) + " " + name.nodename + " " + name.release + " ")) << text;
  EXPECT_EQ('\n', text.empty() ? 0 : text.back());
}

// ---- Origins ---------------------------------------------------------------------

TEST_F(UserSessionTest, FullDomainIsSchemeHostAndPort) {
  EXPECT_EQ("HTTPS://Host:8080", GetFullDomain("HTTPS://Host:8080/path?x"));
  EXPECT_EQ("http://example.com", GetFullDomain("http://example.com./x")) << "a trailing dot is dropped";
  // The whole origin is split at dots, so the scheme sits in the first label
  // and is encoded with it.
  EXPECT_EQ("xn--https://bcher-4ob.example:8443", GetFullDomain("https://b\xC3\xBC" "cher.example:8443/x"));

  EXPECT_EQ("NULL", GetFullDomain("NULL"));
  EXPECT_EQ("nUlL", GetFullDomain("nUlL"));
  EXPECT_EQ("", GetFullDomain(""));

  EXPECT_EQ("", GetFullDomain("ftp://a/b"));
  EXPECT_EQ("", GetFullDomain("http://a..b/")) << "the conversion rejects an empty label";
  // "http://" anywhere lets the URL through; the origin ends after its first "://".
  EXPECT_EQ("ftp://x", GetFullDomain("ftp://x/?next=http://y"));
}

}  // namespace
