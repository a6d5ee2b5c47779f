// The keys of section "QS" of the system configuration file that a user may
// set: name, type, default and when the module reads them. One table for the
// module's start-up and for the host's "config" subcommand, which lists,
// checks and writes them. Header only: the host uses it without linking the
// module's libraries.
#pragma once

#include "environment/program_info.h"

// The files in the work folder, and the default section of the system file.
inline constexpr char kSystemConfigurationFile[] = "QSConfiguration.ini";
inline constexpr char kUserConfigurationFile[] = "user_config.ini";
inline constexpr char kDefaultSection[] = "QS";

enum class KeyType { kFlag, kNumber, kText };
// When a changed value takes effect.
enum class KeyRead { kEveryLogLine, kStartUp };

struct ConfigurationKey {
  const char* name;
  KeyType type;
  const char* defaultValue;  // what a missing key reads as
  KeyRead read;
  const char* meaning;
  int minimum = 0;  // numbers only
  int maximum = 0;
  // Text only: what the module uses in place of an empty value ("" = none).
  const char* emptyMeans = "";
};

inline constexpr ConfigurationKey kLogLevelKey{
    "LogLevel", KeyType::kNumber, "6", KeyRead::kEveryLogLine, "log mask: 2 errors, 4 information, 8 debug", 0, 14};
inline constexpr ConfigurationKey kServerKey{
    "Server", KeyType::kText, "", KeyRead::kStartUp, "host name the module reports", 0, 0, "127.0.0.1"};
inline constexpr ConfigurationKey kScannerAuthKey{
    "EnableScannerAccessAuth", KeyType::kFlag, "FALSE", KeyRead::kStartUp, "scanner access authorisation (stored; qs-host does not use it)"};
inline constexpr ConfigurationKey kFileAuthKey{
    "EnableFileAccessAuth", KeyType::kFlag, "FALSE", KeyRead::kStartUp, "file access authorisation (stored; qs-host does not use it)"};
inline constexpr ConfigurationKey kWebcamAuthKey{
    "EnableWebcamAccessAuth", KeyType::kFlag, "FALSE", KeyRead::kStartUp, "camera access authorisation (stored; qs-host does not use it)"};
inline constexpr ConfigurationKey kCorsAllKey{
    "EnableCORSAll", KeyType::kFlag, "TRUE", KeyRead::kStartUp, "serve pages of every origin (off: only the loopback's and allow-origin)"};
inline constexpr ConfigurationKey kEnhancedModeKey{
    "EnableEnhancedMode", KeyType::kFlag, "FALSE", KeyRead::kStartUp, "enhanced multi-user mode, as VersionInfo reports it"};
inline constexpr ConfigurationKey kListenTypeKey{
    "ListenType", KeyType::kText, "", KeyRead::kStartUp, "listen type (stored; qs-host does not use it)"};
inline constexpr ConfigurationKey kServiceNameKey{
    "ServiceName", KeyType::kText, kServiceDisplayName, KeyRead::kStartUp, "the service name QSVersion reports"};
inline constexpr ConfigurationKey kSignedModulesKey{
    "OnlyLoadQuintarisSignedModule", KeyType::kFlag, "TRUE", KeyRead::kStartUp, "load only signed modules (stored; qs-host does not use it)"};

inline constexpr const ConfigurationKey* kConfigurationKeys[] = {
    &kLogLevelKey,   &kServerKey,       &kScannerAuthKey, &kFileAuthKey,    &kWebcamAuthKey,
    &kCorsAllKey,    &kEnhancedModeKey, &kListenTypeKey,  &kServiceNameKey, &kSignedModulesKey,
};

// The decimal value of a default such as kLogLevelKey's.
constexpr int DecimalOf(const char* text) {
  int value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) value = value * 10 + (*text - '0');
  return value;
}

// The named port lists (section "QS") and the per-user ports
// (user_config.ini), which the module writes itself.
inline constexpr const char* kPortListBases[] = {"Port", "SSLPort"};
inline constexpr char kPortNameKeyFormat[] = "%s_mn_%d";
inline constexpr char kPortNumberKeyFormat[] = "%s_mp_%d";
inline constexpr const char* kPortPrefixes[] = {"kxp", "fvt", "kxs"};
