// User and session queries, the start of a per-user helper process, the X
// display of a browser user, and the command lines of the desktop helpers.
//
// The service runs as a system service while browsers run in users' desktop
// sessions. On this platform the Win32-style session queries have fixed
// results (every user shares the SID "" and session 0), so callers written
// for sessions work unchanged. No state is kept; every function may be called
// from any thread and waits for the tools it runs.
//
// Text that comes from another process or from a caller is never handed to a
// shell: the browser's environment and status files are read directly, the
// display is written to its file directly, and the image converter is started
// without a shell. Only commands whose variable parts are numbers or the
// module's own folders run through the shell.
#pragma once

#include <string>

// ---- Session queries (fixed results on this platform) ------------------------

// Always "": all per-user keys live in the section with the empty name ("[]").
std::string GetUserSID(unsigned int processId);
// Always 0.
unsigned int GetProcessSessionID(unsigned int processId);
// Always 0.
unsigned int GetClientConnectionSessionID(int socket);
// Always 0.
unsigned int GetConnectionProcessID(int socket);
// There are no user tokens here: always fails (false); `token` is not touched.
bool GetCurrentUserToken(void** token, unsigned int sessionId);
// sessionId = GetProcessSessionID(GetConnectionProcessID(socket)) and sid =
// GetUserSID of that process: so 0 and "" for every connection.
void GetUserInfo(int socket, std::string& sid, unsigned int& sessionId);
// Returns `path` unchanged.
std::string DealWithMacHomeDir(const std::string& path);
// GetRemoteProcessUID(socket): the numeric user id, as text, of the peer.
std::string GetCurrentUserName(unsigned int socket);

// ---- Users and helper processes --------------------------------------------------

// Looks `name` up in the password database (getpwnam_r with a buffer of the
// system's maximum record size) and stores its user and group ids. Returns 0
// on success; -1 when an argument is null or the maximum size is unknown, and
// -1 with the error line "name_to_uid failed." when the lookup fails or finds
// no such user.
int name_to_uid(const char* name, unsigned int* uid, unsigned int* gid);

// Forks and, in the child, replaces the image with `application` (execv, the
// environment inherited) and the arguments: application, "scan", commandLine,
// "1", "1", "1" or "0" (g_enumLogLevel), GetModulePath(). The Win32 arguments
// after commandLine are accepted and ignored.
//
// In the parent: false with "fork() fialed(%d)" when fork fails; otherwise
// true with the debug line "CreateProcessAsCurrentLogonUser return: %d" (the
// child's pid). In the child the call returns only when the exec failed: it
// logs "CreateProcessAsCurrentLogonUser fork child process end\n" (debug) and
// "execve failed: Something wrong with child !" (error) and returns false TO
// ITS CALLER IN THE CHILD PROCESS, which does not exit by itself. A caller that
// sees false in a process other than the one it called from must _exit.
bool CreateProcessAsCurrentLogonUser(char* application, char* commandLine, void* processAttributes = nullptr,
                                     void* threadAttributes = nullptr, bool inheritHandles = false,
                                     unsigned int creationFlags = 0, void* environment = nullptr,
                                     const char* currentDirectory = nullptr, void* startupInfo = nullptr,
                                     void* processInformation = nullptr);

// ---- The browser process behind a loopback connection ------------------------------

// Finds the process at the other end of the loopback connection `socket` (its
// peer port looked up with netstat, skipping the service's own lines), reads
// its DISPLAY variable and writes it, followed by a line feed, into
// "/opt/quintaris/QuintarisService/DISPLAY.log" for the service's helpers.
// Returns the value; "" when the peer or the variable is not found (the file
// then receives an empty line).
std::string GetDisplayEnv(int socket);

// The real user id, as text ("1000"), of the process at the other end of the
// loopback connection `socket`; "" when it cannot be found.
std::string GetRemoteProcessUID(int socket);

// ---- Desktop helper command lines (built, never run) -------------------------------
// W is the work path, ending in "/".

// W + "folivant_dialog 2"
std::string GetLinuxOpenFileDialogCmd();
// W + "folivant_dialog 1 " + name (name not quoted)
std::string GetLinuxSaveFileDialogCmd(std::string name);
// "%s %s %d %d \"%s\"" with W + "folivant_dialog", "3", a, b, text, cut to
// 511 characters. A null text counts as "".
std::string GetLinuxSecurityDialogCmd(int a, int b, const char* text);
// W + "DebInstallCertCheck&" (started in the background)
std::string GetDebInstallCertCheckCmd();
// W + "linuxFVT" + <process id> + ".pnm"
std::string GetPnmTempFilePath();
// W + "linuxFVT" + <process id> + ".bmp"
std::string GetBmpTempFilePath();

// ---- Desktop actions -------------------------------------------------------------

// How many certificates named "quintaris_folivant" the user's browser
// certificate store holds (certutil); 0 when the tool prints nothing.
int GetChromeCertCount();
// Adds W + "server.der" to the user's browser certificate store as a trusted
// peer ("quintaris_folivant"). The tool's result is ignored.
void InstallChromeCert();
// Writes the output of "uname -a" into the log folder's "SystemInfo.log".
void LogLinuxSystemInfo();
// Runs W + "pnm2bmp" with `pnmFile` as its one argument and its standard
// output written to `bmpFile` (created or truncated), and waits for it. The
// converter's result is ignored; null names do nothing.
void TransformPnm2Bmp(const char* pnmFile, const char* bmpFile);

// The origin of a URL, scheme + host + port ("HTTPS://Host:8080" of
// "HTTPS://Host:8080/path?x"), its non-ASCII labels converted with
// CUtil::IdnToAscii (the text is split at every "." and each label with
// non-ASCII characters encoded, scheme included). "" and any case of "null"
// come back unchanged; a URL without "http://" or "https://" (in any case) and
// a text the conversion rejects give "".
std::string GetFullDomain(const std::string& url);

// ---- Parts with injectable paths (the functions above use the fixed ones) ----------
namespace user_session_internal {

// The peer port, in host order, of `socket`; 0 when it has no peer address.
int GetPeerPort(int socket);
// The netstat command that finds the "pid/program" column of the far end of a
// loopback connection on `port`, excluding the service's own process.
std::string PeerLookupCommand(int port);
// Runs PeerLookupCommand(port) and parses the pid from its first line; 0
// when nothing is printed.
int FindPeerPid(int port);
// The DISPLAY value in an environment block (variables separated by 0 bytes),
// read as lines of at most 2,559 bytes split at line feeds and 0 bytes; the
// last DISPLAY line wins. "" when there is none.
std::string DisplayFromEnvironment(const std::string& block);
// Reads procRoot + "/<pid>/environ", and writes its DISPLAY value followed by a
// line feed into `outputFile`, replaced in one step (platform/regular_file.h). Returns the value.
std::string WriteDisplayOfProcess(int pid, const std::string& procRoot, const std::string& outputFile);
// The full GetDisplayEnv flow with the /proc root and the output file given.
std::string GetDisplayEnvTo(int socket, const std::string& procRoot, const std::string& outputFile);
// Opens procRoot + "/<pid>/status" to everyone (chmod 0777, result ignored;
// procfs refuses it, which is harmless) and returns the second field of its
// first line that contains "Uid" (the real user id); "" when there is none.
std::string UidOfProcess(int pid, const std::string& procRoot);

}  // namespace user_session_internal
