// ManagerClient: the table of named JSON commands and their invocation, the
// version and port commands, and the per-user tables they share.
//
// Function runs one command end to end: it looks the method up (exact,
// case-sensitive), runs the handler, sends the result back and writes three
// numbered timing lines. The table holds exactly "VersionInfo", "QSVersion"
// and "GetPorts"; every other method is answered -2200 "Function not found".
// The user table (SID -> session) and the user-key table (key handed to the
// browser -> SID) are guarded by a lock of their own, held only around each
// table operation, so commands from several host threads may run at once.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "platform/win_types.h"

class HttpParamRequest;

// h = h * 33 + byte over the bytes up to the first NUL, each byte taken as a
// signed 8-bit value, from 0, wrapping in 32 bits. User keys handed to
// browsers are made with it and must stay stable.
unsigned int GetHashCode(const std::string& text);

class ManagerClient {
 public:
  // The listen ports of one module prefix.
  struct SPorts {
    int port;
    int sslPort;
  };
  // A user's row: the session id, written on every lookup; the other members
  // are reserved per-user data that this module never reads.
  struct SUserModuleInfo {
    unsigned int sessionId = 0;
    int reserved1 = 0;
    int reserved2 = 0;
    std::string reservedText;
  };
  using Handler = HttpParamRequest* (ManagerClient::*)(HttpParamRequest*);
  using PortMap = std::map<std::string, SPorts>;

  ManagerClient();
  virtual ~ManagerClient();
  ManagerClient(const ManagerClient&) = delete;
  ManagerClient& operator=(const ManagerClient&) = delete;

  // Inserts the three commands (an existing name keeps its entry).
  void AddAllFunctionMap();
  // Runs one command and returns the result of sending it back. A request
  // from browser type 0 is answered -2205 without running anything.
  BOOL Function(HttpParamRequest* pParam);
  // Looks the method up and runs its handler; -2200 for an unknown method.
  HttpParamRequest* FunctionInner(HttpParamRequest* pParam);
  // Stores the code and the text (cut to 1023 characters).
  void SetErrorInfo(int code, const char* text);
  int GetErrorCode() const { return m_nErrorCode; }
  const char* GetErrorInfo() const { return m_szErrorInfo; }

  // ---- Version commands ------------------------------------------------------

  // The installed service version ("QSVersion", default "0"; empty when the
  // request sends parameters) and "Quintaris Service".
  HttpParamRequest* QSVersion(HttpParamRequest* pParam);
  // The protocol version, the module name, the user key, whether the enhanced
  // multi-user mode is on ("false" always for the legacy tag) and "32". Records
  // the user behind the connection under the key it hands out.
  HttpParamRequest* VersionInfo(HttpParamRequest* pParam);
  // Program mode 0 and the enhanced-mode switch on.
  bool CheckEnhancedModeEnabled();
  // Marks the user's process for exit (its "ExitFlag").
  bool CloseUserProcess(const std::string& userSid);

  // ---- Port discovery --------------------------------------------------------

  // The ports of the user behind a key that VersionInfo handed out, as a
  // compact JSON object; -2202 without a parameter, -2408 "User SID is
  // empty." for an unknown key (which is then entered with an empty SID).
  HttpParamRequest* GetPorts(HttpParamRequest* pParam);
  // Resolves the user behind a socket and records the session.
  std::string GetUserSIDBySock(int socket);
  // Always an empty map: "User SID is empty." for an empty SID, no error for
  // a known one. The per-user query is not wired in this module.
  PortMap GetCurrentUserModulePorts(const std::string& userSid, std::string& error);
  // The registered plain and secure ports of every prefix for the user.
  PortMap GetAllListenPorts(const std::string& userSid);
  // {"<prefix>":{"port":N,"sslPort":N},...} in key order, without blanks.
  static std::string PortMapToJson(const PortMap& ports);

  // ---- Update packages (complete, but not in the command table) -----------------

  // Saves the uploaded ZIP (the request body) in the cache folder, unpacks it
  // and copies the files into the module folder (type != 1), or, for a service
  // update (type 1), into "Update_<version>/" from which the service package
  // "Service_<version>.zip" is validated and the updater started. Parameters:
  // the type and the target version (0 and "" when either does not convert).
  // Answers one boolean with the last error code and text.
  HttpParamRequest* LoadZipFromBytes(HttpParamRequest* pParam);
  // Validates the module folder's "Service_<version>.zip" (deleted afterwards)
  // and starts the updater. The optional parameter is the version; anything
  // but a JSON string gives the empty version.
  HttpParamRequest* CheckUpdateFile(HttpParamRequest* pParam);
  // "IfUpdate" is exactly "1".
  bool CheckIfUpdate();
  // Installed "QSVersion" (commas and blanks removed) >= the candidate, both
  // read with strtol and cut to 32 bits; the candidate keeps its commas, so
  // "13,0,0,0404" counts as 13. An empty candidate gives false.
  bool CheckIfAlreadyNewVersion(const std::string& version);
  // Unpacks the service package into "<cache>QuintarisService/" and validates
  // it; a valid package's folder stays for the updater.
  bool CheckIfValid(const std::string& package);
  // ValidSigned, and -2400 when it says no.
  bool ValidFiles(const std::string& folder);
  // No signature is examined on this platform: every package passes.
  bool ValidSigned(const std::string& folder);
  // Always false; no file is read.
  bool ValidFileName(const std::string& folder, const std::string& name);
  // Opens the program to every user and starts it with posix_spawnp, the
  // arguments (program, work path) and an empty environment, without waiting.
  // 0, or the spawn error after "IfUpdate" is reset to "0" and -2407 noted.
  int StartUpdateProgress(const std::string& program);
  // StartUpdateProgress succeeded.
  bool UpdateServieInner(const std::string& program);

  // ---- Views of the tables (for diagnostics and tests) -----------------------

  size_t UserCount();
  size_t UserKeyCount();
  bool FindUserKey(const std::string& key, std::string* userSid);
  bool HasFunction(const std::string& name) const { return m_functionMap.count(name) != 0; }
  size_t FunctionCount() const { return m_functionMap.size(); }

 private:
  // -2373 "Quintaris Service is updating, please wait." (noted and logged).
  HttpParamRequest* AnswerUpdateInProgress(HttpParamRequest* pParam);

  std::map<std::string, Handler> m_functionMap;
  int m_nErrorCode = 0;
  char m_szErrorInfo[1024] = {0};
  std::map<std::string, SUserModuleInfo> m_userMap;
  std::map<std::string, std::string> m_userKeyMap;
  std::mutex m_tablesLock;
};
