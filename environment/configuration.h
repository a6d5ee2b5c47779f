// The configuration store: typed access to the keys of the system
// configuration file (QSConfiguration.ini, section "QS", written only by the
// service process) and of the per-user file (user_config.ini).
//
// Reads take g_csWriteLog as readers and writes as writer. A read returns ""
// whenever the stored value is empty, even when a default was given; the
// default is seen only when the key or section is missing. Flags are "TRUE"
// and "FALSE", compared without regard to case.
#pragma once

#include <string>

// The default section of the system configuration file.
extern const char* appName;

extern bool g_bEnableScannerAccessAuth;
extern bool g_bEnableFileAccessAuth;
extern bool g_bEnableWebcamAccessAuth;
extern bool g_bEnableCORSAll;  // true until start-up reads it
extern bool g_bEnableEnhancedMode;
extern std::string g_strListenType;
extern std::string g_strServiceName;

// Values and defaults are cut to 2,046 characters.
std::string GetConfigurationfromInitFile(const std::string& key, const char* defaultValue, const char* section,
                                         const char* file);
// The same on the system configuration file; a null section means "QS".
std::string GetConfigurationfromInitFile(const std::string& key, const char* defaultValue, const char* section);
// A flag from section "QS" of the system file: true for "TRUE" in any case.
bool GetConfigurationfromInitFile(const std::string& key, const char* defaultValue);

// Only the service process writes; a null section means "QS". A write that
// does not reach the file (which then stays as it was) is logged at Debug
// level with its error number.
void SetConfigurationToInitFile(const std::string& key, const std::string& value, const char* section);
void SetConfigurationToInitFile(const std::string& key, int value, const char* section);

// "ExitFlag" in `section` of the user configuration file, written directly
// (no lock, any process).
bool SetUserProcessExitFlag(const std::string& section, bool flag);
bool GetUserProcessExitFlag(const std::string& section);

bool GetEnableScannerAccessAuth();
bool GetEnableFileAccessAuth();
bool GetEnableWebcamAccessAuth();
bool GetEnableCORSAll();
bool GetEnableMultipleUserEnhancedMode();
std::string GetListenType();
std::string GetServiceName();
std::string GetSecurityExceptionFile();
std::string GetFirefoxCert();
// Read afresh on every call ("OnlyLoadQuintarisSignedModule", default TRUE).
bool GetIfOnlyLoadQuintarisSignedModule();

// folder + fileName when that can be opened for appending; otherwise, when
// the name has a ".", the name with "(<rand()>)" before its last "." (not
// tested again), else folder + fileName unchanged.
std::string MakeSureFileCanBeWritten(const std::string& folder, const std::string& fileName);
