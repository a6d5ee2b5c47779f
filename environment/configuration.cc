#include "environment/configuration.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "environment/configuration_keys.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "ini/profile.h"
#include "platform/process_flags.h"
#include "platform/rwlock.h"
#include "util/win_string.h"

const char* appName = kDefaultSection;

bool g_bEnableScannerAccessAuth = false;
bool g_bEnableFileAccessAuth = false;
bool g_bEnableWebcamAccessAuth = false;
bool g_bEnableCORSAll = true;
bool g_bEnableEnhancedMode = false;
std::string g_strListenType;
std::string g_strServiceName;

namespace {

constexpr size_t kValueBuffer = 2048;

bool IsTrue(const std::string& text) { return strcasecmp(text.c_str(), "TRUE") == 0; }

}  // namespace

std::string GetConfigurationfromInitFile(const std::string& key, const char* defaultValue, const char* section,
                                         const char* file) {
  std::vector<char> value(kValueBuffer, '\0');
  std::vector<char> fallback(kValueBuffer, '\0');
  if (defaultValue != nullptr) lstrcpyn(fallback.data(), defaultValue, kValueBuffer);
  if (section == nullptr) section = appName;
  ScopedReaderLock hold(g_csWriteLog);
  unsigned int length = GetPrivateProfileStringA(section, key.c_str(), fallback.data(), value.data(),
                                                 static_cast<unsigned int>(kValueBuffer), file);
  return length == 0 ? std::string() : std::string(value.data());
}

std::string GetConfigurationfromInitFile(const std::string& key, const char* defaultValue, const char* section) {
  return GetConfigurationfromInitFile(key, defaultValue, section, g_init_file.c_str());
}

bool GetConfigurationfromInitFile(const std::string& key, const char* defaultValue) {
  return IsTrue(GetConfigurationfromInitFile(key, defaultValue, nullptr));
}

void SetConfigurationToInitFile(const std::string& key, const std::string& value, const char* section) {
  if (!GetIfServiceProcess()) return;
  ScopedWriterLock hold(g_csWriteLog);
  const int error = WritePrivateProfileStringChecked(section != nullptr ? section : appName, key.c_str(),
                                                     value.c_str(), g_init_file.c_str());
  if (error != 0) {
    LogDebug("Set configuration to init file failed. Key = %s, Value = %s. (%d)", key.c_str(), value.c_str(), error);
  }
}

void SetConfigurationToInitFile(const std::string& key, int value, const char* section) {
  char text[64];
  snprintf(text, sizeof(text), "%d", value);
  SetConfigurationToInitFile(key, std::string(text), section);
}

bool SetUserProcessExitFlag(const std::string& section, bool flag) {
  return WritePrivateProfileStringA(section.c_str(), "ExitFlag", flag ? "TRUE" : "FALSE",
                                    g_user_config_file.c_str());
}

bool GetUserProcessExitFlag(const std::string& section) {
  return IsTrue(GetConfigurationfromInitFile("ExitFlag", "FALSE", section.c_str(), g_user_config_file.c_str()));
}

bool GetEnableScannerAccessAuth() { return g_bEnableScannerAccessAuth; }
bool GetEnableFileAccessAuth() { return g_bEnableFileAccessAuth; }
bool GetEnableWebcamAccessAuth() { return g_bEnableWebcamAccessAuth; }
bool GetEnableCORSAll() { return g_bEnableCORSAll; }
bool GetEnableMultipleUserEnhancedMode() { return g_bEnableEnhancedMode; }
std::string GetListenType() { return g_strListenType; }
std::string GetServiceName() { return g_strServiceName; }
std::string GetSecurityExceptionFile() { return g_strSecurityExceptionFile; }
std::string GetFirefoxCert() { return g_strFirefoxCert; }

bool GetIfOnlyLoadQuintarisSignedModule() {
  return GetConfigurationfromInitFile(kSignedModulesKey.name, kSignedModulesKey.defaultValue);
}

std::string MakeSureFileCanBeWritten(const std::string& folder, const std::string& fileName) {
  const std::string path = folder + fileName;
  FILE* file = fopen(path.c_str(), "a+");
  if (file != nullptr) {
    fclose(file);
    return path;
  }
  const std::string::size_type dot = fileName.rfind('.');
  if (dot == std::string::npos) return path;
  char number[64];
  memset(number, 0, sizeof(number));
  snprintf(number, sizeof(number), "(%d)", rand());
  return folder + fileName.substr(0, dot) + number + fileName.substr(dot);
}
