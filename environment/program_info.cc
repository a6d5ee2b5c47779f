#include "environment/program_info.h"

#include <ftw.h>
#include <sys/stat.h>

#include <cstring>

#include "environment/configuration.h"
#include "environment/configuration_keys.h"
#include "environment/log.h"
#include "platform/file.h"
#include "platform/process_flags.h"
#include "util/util.h"
#include "util/win_string.h"

std::string g_work_path;
std::string g_log_path;
std::string g_cache_path;
std::string g_upload_path;
std::string g_cert_path;
std::string g_strSecurityExceptionFile;
std::string g_exe_file;
std::string g_init_file;
char g_szIniFile[1024] = {0};
std::string g_user_config_file;
std::string g_ssl_cert_filepath;
std::string g_ssl_private_key_filepath;
std::string g_dump_path;
std::string g_strFirefoxCert;
std::string g_log_file;
std::string g_logs_path;
std::string g_logs_file;
std::string g_host_name;
char gszServiceUUID[1024] = {0};
std::string g_module_path;
bool g_bServiceStopped = false;

namespace {

WorkMode g_workMode = WorkModeService;

// The fixed product text of the banner.
constexpr char kProductInformation[] = "Quintaris Service for Linux x86-64";

// Opens a tree to every user: the per-user processes write into the same log
// files as the service. Done directly rather than through a shell.
void OpenTreeToEveryone(const std::string& folder) {
  nftw(
      folder.c_str(),
      [](const char* path, const struct stat*, int, struct FTW*) {
        chmod(path, 0777);
        return 0;
      },
      16, FTW_PHYS);
}

}  // namespace

void CheckAndInitUserMode() {}

void InitProgramInfo(bool adjustPermissions) {
  if (!g_work_path.empty()) return;

  char exe[1025];
  memset(exe, 0, sizeof(exe));
  CUtil::GetModulePath(exe);
  std::string exePath(exe);
  g_work_path = exePath.substr(0, exePath.rfind('/') + 1);

  g_log_path = g_work_path + "log" + "/";
  g_cache_path = g_work_path + "cache" + "/";
  g_upload_path = g_work_path + "upload" + "/";
  g_cert_path = g_work_path + "cert" + "/";
  g_strSecurityExceptionFile = g_work_path + "qs.exception";
  g_exe_file = exePath;
  g_init_file = g_work_path + kSystemConfigurationFile;
  lstrcpyn(g_szIniFile, g_init_file.c_str(), sizeof(g_szIniFile));
  g_user_config_file = g_work_path + kUserConfigurationFile;
  g_ssl_cert_filepath = g_cert_path + "server.pem";
  g_ssl_private_key_filepath = g_cert_path + "server_key.pem";
  g_dump_path = g_work_path + "dump" + "/";
  g_strFirefoxCert = g_cert_path + "cert.e";

  CreateDirectory(g_cache_path.c_str(), nullptr);
  CreateDirectory(g_log_path.c_str(), nullptr);
  CreateDirectory(g_upload_path.c_str(), nullptr);

  CheckAndInitUserMode();

  g_log_file = g_log_path + "qss.log";
  g_logs_path = g_log_path;
  g_logs_file = g_logs_path + "qsu.log";
  g_log_file = MakeSureFileCanBeWritten(g_log_path, "qss.log");
  g_logs_file = MakeSureFileCanBeWritten(g_log_path, "qsu.log");

  if (adjustPermissions) {
    OpenTreeToEveryone(g_log_path);
    CreateDirectory(g_dump_path.c_str(), nullptr);
    OpenTreeToEveryone(g_dump_path);
  }

  int level = GetLogLevelInLocal();
  __atomic_store_n(&g_log_level, level, __ATOMIC_RELAXED);
  SetLogLevel(level);

  g_host_name = GetConfigurationfromInitFile(kServerKey.name, nullptr, nullptr);
  if (g_host_name.empty()) g_host_name = kServerKey.emptyMeans;

  CUtil::CreateUUID(gszServiceUUID);

  g_bEnableScannerAccessAuth = GetConfigurationfromInitFile(kScannerAuthKey.name, kScannerAuthKey.defaultValue);
  g_bEnableFileAccessAuth = GetConfigurationfromInitFile(kFileAuthKey.name, kFileAuthKey.defaultValue);
  g_bEnableWebcamAccessAuth = GetConfigurationfromInitFile(kWebcamAuthKey.name, kWebcamAuthKey.defaultValue);
  g_bEnableCORSAll = GetConfigurationfromInitFile(kCorsAllKey.name, kCorsAllKey.defaultValue);
  g_bEnableEnhancedMode = GetConfigurationfromInitFile(kEnhancedModeKey.name, kEnhancedModeKey.defaultValue);

  g_strListenType = GetConfigurationfromInitFile(kListenTypeKey.name, kListenTypeKey.defaultValue, nullptr);
  g_strServiceName = GetConfigurationfromInitFile(kServiceNameKey.name, kServiceNameKey.defaultValue, nullptr);

  LogDebug("Version info:%s, %s---%s, \r\n\t\tis64:%d, isScanning=%d, workMode=%d, isFVTActiveX=%d\r\n",
           kModuleDescription, kProductInformation, kModuleVersion, 1, GetIfScanningProcess() ? 1 : 0,
           static_cast<int>(GetProgramMode()), 0);
}

std::string GetWorkPath() { return g_work_path; }
std::string GetLogPath() { return g_log_path; }
std::string GetCachePath() { return g_cache_path; }
std::string GetUploadPath() { return g_upload_path; }
std::string GetCertPath() { return g_cert_path; }
std::string GetDumpPath() { return g_dump_path; }
std::string GetInitFile() { return g_init_file; }
std::string GetUserConfigFile() { return g_user_config_file; }
std::string GetLogFile() { return g_log_file; }
std::string GetSSLCertFile() { return g_ssl_cert_filepath; }
std::string GetSSLPriKeyFile() { return g_ssl_private_key_filepath; }
std::string GetExeFile() { return g_exe_file; }
void SetExeFile(const char* file) { g_exe_file = file != nullptr ? file : ""; }
std::string GetHostName() { return g_host_name; }
void SetHostName(const char* name) {
  if (name != nullptr) g_host_name = name;
}
std::string GetModulePath() { return g_module_path; }
void SetModulePath(const std::string& path) { g_module_path = path; }
bool GetIfServiceStopped() { return g_bServiceStopped; }
void SetIfServiceStopped(bool stopped) { g_bServiceStopped = stopped; }
WorkMode GetProgramMode() { return static_cast<WorkMode>(__atomic_load_n(&g_workMode, __ATOMIC_RELAXED)); }
void SetProgramMode(WorkMode mode) { __atomic_store_n(&g_workMode, mode, __ATOMIC_RELAXED); }

bool IsDebugMode() { return (GetLogLevel() & Log_Debug) != 0; }

bool CleanCacheFolder() { return RemoveDir(g_cache_path.c_str()); }

void SaveServiceName(const char* name) {
  SetConfigurationToInitFile("ServiceName", std::string(name != nullptr ? name : ""), nullptr);
}
