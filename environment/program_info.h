// The module's start-up state: every folder and file name, derived from the
// location of the running executable, plus the settings read at start.
//
// InitProgramInfo runs once (only while the work path is empty) from the
// thread that loads the module, before any request; afterwards the values
// change only through their explicit setters. Getters return copies.
#pragma once

#include <string>

// The module's description and version, as the host and the banner see them.
constexpr char kModuleDescription[] = "Quintaris Service Manager Module";
constexpr char kModuleVersion[] = "14, 3, 3, 1212";
constexpr char kServiceDisplayName[] = "Quintaris Service";

// How the hosting process runs. Only the per-user process mode changes the
// module's behaviour (which secure ports are read, whether the enhanced mode
// can be on).
enum WorkMode {
  WorkModeService = 0,
  WorkModeReserved1 = 1,
  WorkModeReserved2 = 2,
  WorkModeUserProcess = 3,
};

extern std::string g_work_path;
extern std::string g_log_path;
extern std::string g_cache_path;
extern std::string g_upload_path;
extern std::string g_cert_path;
extern std::string g_strSecurityExceptionFile;
extern std::string g_exe_file;
extern std::string g_init_file;
extern char g_szIniFile[1024];
extern std::string g_user_config_file;
extern std::string g_ssl_cert_filepath;
extern std::string g_ssl_private_key_filepath;
extern std::string g_dump_path;
extern std::string g_strFirefoxCert;
extern std::string g_log_file;
extern std::string g_logs_path;
extern std::string g_logs_file;
extern std::string g_host_name;
extern char gszServiceUUID[1024];
extern std::string g_module_path;
extern bool g_bServiceStopped;

// Start-up, in this order: the work path is the executable's folder; the
// other paths follow from it; the cache, log and upload folders are made; the
// two log files are made writable (or replaced by a numbered name); only with
// `adjustPermissions`, the log tree, a new dump folder and its tree are opened
// to every user (mode 0777); then the log level, host name, a fresh service
// UUID, the five feature flags, the listen type and service name are read; and
// the version banner is logged. Nothing here reports failure.
void InitProgramInfo(bool adjustPermissions);
// A hook kept for the start-up sequence; it does nothing.
void CheckAndInitUserMode();

std::string GetWorkPath();
std::string GetLogPath();
std::string GetCachePath();
std::string GetUploadPath();
std::string GetCertPath();
std::string GetDumpPath();
std::string GetInitFile();
std::string GetUserConfigFile();
std::string GetLogFile();
std::string GetSSLCertFile();
std::string GetSSLPriKeyFile();
std::string GetExeFile();
void SetExeFile(const char* file);
std::string GetHostName();
// Null is ignored.
void SetHostName(const char* name);
std::string GetModulePath();
void SetModulePath(const std::string& path);
bool GetIfServiceStopped();
void SetIfServiceStopped(bool stopped);
WorkMode GetProgramMode();
void SetProgramMode(WorkMode mode);

// True when the Debug bit (8) is set in the current log level.
bool IsDebugMode();
// Removes the cache folder with the system layer's RemoveDir (which stops
// after the first sub-directory it removes) and returns its result; the folder
// is not made again.
bool CleanCacheFolder();
// Writes "ServiceName" into the system configuration; the running value
// changes only at the next start.
void SaveServiceName(const char* name);
