#include "environment/user_session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "environment/log.h"
#include "environment/program_info.h"
#include "platform/process.h"
#include "platform/regular_file.h"
#include "util/util.h"

extern char** environ;

namespace {

constexpr char kDisplayLogFile[] = "/opt/quintaris/QuintarisService/DISPLAY.log";
constexpr char kProcRoot[] = "/proc";
constexpr char kDialogHelper[] = "folivant_dialog";
// Lines of the environment are read as fgets would read them with a buffer of
// 2,560 bytes.
constexpr size_t kEnvironmentLineBuffer = 2560;

// Runs `command` through the shell and returns its first line (at most
// size - 1 bytes, line feed included); "" when it prints nothing or cannot run.
std::string FirstLineOf(const char* command, size_t size) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return std::string();
  std::vector<char> line(size, '\0');
  std::string result;
  if (fgets(line.data(), static_cast<int>(size), pipe) != nullptr) result = line.data();
  pclose(pipe);
  return result;
}

// The whole content of a file; "" when it cannot be read.
std::string ReadFileBytes(const std::string& path) {
  std::string content;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return content;
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0) content.append(chunk, got);
  fclose(file);
  return content;
}

}  // namespace

// ---- Session queries -------------------------------------------------------------

std::string GetUserSID(unsigned int) { return std::string(); }

unsigned int GetProcessSessionID(unsigned int) { return 0; }

unsigned int GetClientConnectionSessionID(int) { return 0; }

unsigned int GetConnectionProcessID(int) { return 0; }

bool GetCurrentUserToken(void**, unsigned int) { return false; }

void GetUserInfo(int socket, std::string& sid, unsigned int& sessionId) {
  const unsigned int processId = GetConnectionProcessID(socket);
  sessionId = GetProcessSessionID(processId);
  sid = GetUserSID(processId);
}

std::string DealWithMacHomeDir(const std::string& path) { return path; }

std::string GetCurrentUserName(unsigned int socket) { return GetRemoteProcessUID(static_cast<int>(socket)); }

// ---- Users and helper processes --------------------------------------------------

int name_to_uid(const char* name, unsigned int* uid, unsigned int* gid) {
  if (name == nullptr || uid == nullptr || gid == nullptr) return -1;
  const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size == -1) return -1;
  std::vector<char> buffer(static_cast<size_t>(size));
  struct passwd record;
  struct passwd* found = nullptr;
  const int rc = getpwnam_r(name, &record, buffer.data(), buffer.size(), &found);
  if (rc != 0 || found == nullptr) {
    LogErr("name_to_uid failed.");
    return -1;
  }
  *uid = found->pw_uid;
  *gid = found->pw_gid;
  return 0;
}

bool CreateProcessAsCurrentLogonUser(char* application, char* commandLine, void*, void*, bool, unsigned int, void*,
                                     const char*, void*, void*) {
  // The helper learns that it scans for the service, the log mode ("1" when
  // everything is logged) and where the module lives. The list is built before
  // the fork so that the child only has to exec it.
  std::string modulePath = GetModulePath();
  char scan[] = "scan";
  char one[] = "1";
  char logMode[] = {g_enumLogLevel ? '1' : '0', '\0'};
  char* arguments[] = {application, scan, commandLine, one, one, logMode, &modulePath[0], nullptr};

  const pid_t child = fork();
  if (child < 0) {
    LogErr("fork() fialed(%d)", static_cast<int>(child));
    return false;
  }
  if (child > 0) {
    LogDebug("CreateProcessAsCurrentLogonUser return: %d", static_cast<int>(child));
    return true;
  }

  const int result = execv(application != nullptr ? application : "", arguments);

  // Only reached when the exec failed. The child does not exit here: it
  // returns to its caller, which must end it.
  LogDebug("CreateProcessAsCurrentLogonUser fork child process end\n");
  if (result != 0) LogErr("execve failed: Something wrong with child !");
  return result == 0;
}

// ---- The browser process behind a loopback connection ------------------------------

namespace user_session_internal {

int GetPeerPort(int socket) {
  struct sockaddr_in peer;
  memset(&peer, 0, sizeof(peer));
  socklen_t length = sizeof(peer);
  getpeername(socket, reinterpret_cast<struct sockaddr*>(&peer), &length);
  return ntohs(peer.sin_port);
}

std::string PeerLookupCommand(int port) {
  char command[256];
  memset(command, 0, sizeof(command));
  snprintf(command, sizeof(command),
           "netstat -aopn | grep -v QuintarisS | grep 127.0.0.1:%d | awk -F' ' {'print $7'}", port);
  return command;
}

int FindPeerPid(int port) {
  std::string line = FirstLineOf(PeerLookupCommand(port).c_str(), 256);
  std::vector<char> text(line.begin(), line.end());
  text.push_back('\0');
  return parseLineLinux(text.data());
}

std::string DisplayFromEnvironment(const std::string& block) {
  // The block is read the way a line reader sees it once every 0 byte has
  // become a line feed: lines end at a line feed (kept) or after 2,559 bytes.
  std::string display;
  const size_t longest = kEnvironmentLineBuffer - 1;
  size_t start = 0;
  while (start < block.size()) {
    size_t end = start;
    while (end < block.size() && end - start < longest) {
      const char c = block[end++];
      if (c == '\n' || c == '\0') break;
    }
    std::string line = block.substr(start, end - start);
    start = end;
    if (!line.empty() && (line.back() == '\n' || line.back() == '\0')) line.pop_back();
    const size_t equals = line.find('=');
    if (equals != std::string::npos && line.compare(0, equals, "DISPLAY") == 0) display = line.substr(equals + 1);
  }
  return display;
}

std::string WriteDisplayOfProcess(int pid, const std::string& procRoot, const std::string& outputFile) {
  const std::string display =
      DisplayFromEnvironment(ReadFileBytes(procRoot + "/" + std::to_string(pid) + "/environ"));
  // The value is written as it is: it comes from another user's process and
  // is never shown to a shell.
  // Replaced in one step: a helper reading the file never finds it empty.
  ReplaceRegularFile(outputFile.c_str(), display + "\n");
  return display;
}

std::string GetDisplayEnvTo(int socket, const std::string& procRoot, const std::string& outputFile) {
  const int port = GetPeerPort(socket);
  const int pid = FindPeerPid(port);
  // The lookup runs a second time with its output discarded, as the service
  // always has; only the port number varies in it.
  if (system(PeerLookupCommand(port).c_str()) == -1) {
    // The shell could not be started; nothing depends on this run.
  }
  return WriteDisplayOfProcess(pid, procRoot, outputFile);
}

std::string UidOfProcess(int pid, const std::string& procRoot) {
  const std::string status = procRoot + "/" + std::to_string(pid) + "/status";
  // Opening the status file to everyone is kept from the service's history;
  // it is made directly (no shell) and procfs refuses it, so it changes
  // nothing there. The file is world-readable anyway.
  chmod(status.c_str(), 0777);
  const std::string content = ReadFileBytes(status);
  size_t start = 0;
  while (start < content.size()) {
    size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    const std::string line = content.substr(start, end - start);
    start = end + 1;
    if (line.find("Uid") == std::string::npos) continue;
    // The second field of the line, fields separated by blanks and tabs.
    std::vector<std::string> fields;
    size_t pos = 0;
    while (pos < line.size()) {
      while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
      const size_t fieldStart = pos;
      while (pos < line.size() && line[pos] != ' ' && line[pos] != '\t') ++pos;
      if (pos > fieldStart) fields.push_back(line.substr(fieldStart, pos - fieldStart));
    }
    return fields.size() >= 2 ? fields[1] : std::string();
  }
  return std::string();
}

}  // namespace user_session_internal

std::string GetDisplayEnv(int socket) {
  return user_session_internal::GetDisplayEnvTo(socket, kProcRoot, kDisplayLogFile);
}

std::string GetRemoteProcessUID(int socket) {
  using namespace user_session_internal;
  return UidOfProcess(FindPeerPid(GetPeerPort(socket)), kProcRoot);
}

// ---- Desktop helper command lines ------------------------------------------------

std::string GetLinuxOpenFileDialogCmd() { return GetWorkPath() + kDialogHelper + " " + "2"; }

std::string GetLinuxSaveFileDialogCmd(std::string name) {
  return GetWorkPath() + kDialogHelper + " " + "1" + " " + name;
}

std::string GetLinuxSecurityDialogCmd(int a, int b, const char* text) {
  char command[512];
  memset(command, 0, sizeof(command));
  const std::string helper = GetWorkPath() + kDialogHelper;
  snprintf(command, sizeof(command), "%s %s %d %d \"%s\"", helper.c_str(), "3", a, b,
           text != nullptr ? text : "");
  return command;
}

std::string GetDebInstallCertCheckCmd() { return GetWorkPath() + "DebInstallCertCheck" + "&"; }

std::string GetPnmTempFilePath() { return GetWorkPath() + "linuxFVT" + std::to_string(getpid()) + ".pnm"; }

std::string GetBmpTempFilePath() { return GetWorkPath() + "linuxFVT" + std::to_string(getpid()) + ".bmp"; }

// ---- Desktop actions -------------------------------------------------------------

int GetChromeCertCount() {
  const std::string line =
      FirstLineOf("certutil -L -d sql:$HOME/.pki/nssdb| grep quintaris_folivant| wc -l", 256);
  return static_cast<int>(strtol(line.c_str(), nullptr, 10));
}

void InstallChromeCert() {
  // The only variable part is the module's own work folder.
  const std::string command =
      std::string("certutil -A -d sql:$HOME/.pki/nssdb -t \"P,,\" -n \"quintaris_folivant\" -i ") + GetWorkPath() +
      "server.der";
  if (system(command.c_str()) == -1) {
    // The tool's result is not reported.
  }
}

void LogLinuxSystemInfo() {
  const std::string command = std::string("echo `uname -a` > ") + GetLogPath() + "SystemInfo.log";
  if (system(command.c_str()) == -1) {
    // The tool's result is not reported.
  }
}

void TransformPnm2Bmp(const char* pnmFile, const char* bmpFile) {
  if (pnmFile == nullptr || bmpFile == nullptr) return;
  // The converter writes the bitmap to its standard output. The file names
  // come from callers, so instead of a shell redirection the converter is
  // started directly with the pnm file as its single argument and its standard
  // output opened on the bmp file (created or truncated, as ">" does).
  const std::string converter = GetWorkPath() + "pnm2bmp";
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return;
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, bmpFile, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  char* arguments[] = {const_cast<char*>(converter.c_str()), const_cast<char*>(pnmFile), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, converter.c_str(), &actions, nullptr, arguments, environ) == 0) {
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
  }
  posix_spawn_file_actions_destroy(&actions);
}

std::string GetFullDomain(const std::string& url) {
  if (url.empty() || strcasecmp(url.c_str(), "null") == 0) return url;

  std::string lower(url);
  for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (lower.find("http://") == std::string::npos && lower.find("https://") == std::string::npos) {
    return std::string();
  }
  size_t end = lower.size();
  const size_t scheme = lower.find("://");
  if (scheme != std::string::npos) {
    const size_t slash = lower.find('/', scheme + 3);
    if (slash != std::string::npos) end = slash;
  }
  const std::string origin = url.substr(0, end);

  const unsigned int size = CUtil::IdnToAscii(origin.c_str(), nullptr);
  if (size == 0) return std::string();
  std::vector<char> converted(size, '\0');
  CUtil::IdnToAscii(origin.c_str(), converted.data());
  return std::string(converted.data());
}
