#include "environment/port_registry.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "environment/configuration.h"
#include "environment/configuration_keys.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "environment/user_session.h"
#include "ini/profile.h"
#include "platform/regular_file.h"
#include "platform/rwlock.h"

std::map<std::string, int> g_mapSSLPortInMem;
std::map<std::string, int> g_mapNoSSLPortInMem;

namespace {


// Without the count, a list is read up to this many entries.
constexpr int kMaxListEntries = 10;

int ToNumber(const std::string& text) { return static_cast<int>(strtol(text.c_str(), nullptr, 10)); }

std::string EntryKey(const std::string& base, const char* kind, int index) {
  char key[256];
  memset(key, 0, sizeof(key));
  snprintf(key, sizeof(key), kind, base.c_str(), index);
  return key;
}

std::string NameKey(const std::string& base, int index) { return EntryKey(base, kPortNameKeyFormat, index); }

std::string PortKey(const std::string& base, int index) { return EntryKey(base, kPortNumberKeyFormat, index); }

int FindPort(const std::map<std::string, int>& ports, const std::string& name) {
  auto it = ports.find(name);
  return it == ports.end() ? 0 : it->second;
}

}  // namespace

// ---- Per-user ports ----------------------------------------------------------------

int GetPort(const std::string& section, const std::string& name, bool bDefault, bool bSSL) {
  std::string key = name;
  if (bSSL) key += "_ssl";
  if (bDefault) key += "_def";
  return ToNumber(GetConfigurationfromInitFile(key, "0", section.c_str(), g_user_config_file.c_str()));
}

void SavePort(const std::string& section, const std::string& name, bool bDefault, bool bSSL, int port) {
  std::string key = name;
  if (bSSL) key += "_ssl";
  char text[32];
  memset(text, 0, sizeof(text));
  snprintf(text, sizeof(text), "%d", port);
  WritePrivateProfileStringA(section.c_str(), key.c_str(), text, g_user_config_file.c_str());
  if (bDefault) {
    WritePrivateProfileStringA(section.c_str(), (key + "_def").c_str(), text, g_user_config_file.c_str());
  }
}

std::vector<int> ReadUserSSLPort() {
  std::vector<int> ports;
  if (GetProgramMode() != WorkModeUserProcess) return ports;
  const std::string sid = GetUserSID(static_cast<unsigned int>(getpid()));
  for (const char* prefix : kPortPrefixes) {
    const int port = GetPort(sid, prefix, false, true);
    if (port != 0) ports.push_back(port);
  }
  return ports;
}

// ---- Named port lists --------------------------------------------------------------

std::map<std::string, int> ReadPort(const std::string& base, bool bUseCount) {
  std::map<std::string, int> ports;
  ScopedReaderLock hold(g_csWriteLog);
  const int count = ToNumber(GetConfigurationfromInitFile(base, "0", appName));
  int limit = kMaxListEntries;
  if (bUseCount) {
    if (count <= 0) return ports;
    limit = count;
  }
  for (int i = 0; i < limit; ++i) {
    const std::string name = GetConfigurationfromInitFile(NameKey(base, i), "", appName);
    if (name.empty()) break;
    ports[name] = ToNumber(GetConfigurationfromInitFile(PortKey(base, i), "", appName));
  }
  return ports;
}

std::map<std::string, int> ReadSSLPort(bool bUseCount) { return ReadPort("SSLPort", bUseCount); }

std::map<std::string, int> ReadNoSSLPort(bool bUseCount) { return ReadPort("Port", bUseCount); }

int GetSSLPort(const std::string& name, bool bUseCount) { return FindPort(ReadSSLPort(bUseCount), name); }

int GetNoSSLPort(const std::string& name, bool bUseCount) { return FindPort(ReadNoSSLPort(bUseCount), name); }

void SetSSLPort(int port, const std::string& name) {
  g_mapSSLPortInMem[name] = port;
  SavePort(g_mapSSLPortInMem, "SSLPort");
}

void SetNoSSLPort(int port, const std::string& name) {
  g_mapNoSSLPortInMem[name] = port;
  SavePort(g_mapNoSSLPortInMem, "Port");
}

void SavePort(const std::map<std::string, int>& ports, const std::string& base) {
  ScopedWriterLock hold(g_csWriteLog);
  if (ports.empty()) return;
  int index = 0;
  for (const auto& entry : ports) {
    SetConfigurationToInitFile(NameKey(base, index), entry.first, appName);
    SetConfigurationToInitFile(PortKey(base, index), entry.second, appName);
    ++index;
  }
  SetConfigurationToInitFile(base, index, appName);
}

// ---- Port text search ------------------------------------------------------------

bool PortIsUsed(const std::string& fileName, int port) {
  std::string content;
  if (!ReadRegularFile(fileName.c_str(), &content)) return false;
  char text[32];
  memset(text, 0, sizeof(text));
  snprintf(text, sizeof(text), "%d", port);
  // A plain substring test on the text up to its first 0 byte.
  return strstr(content.c_str(), text) != nullptr;
}

bool PortIsUsed(int) { return false; }
