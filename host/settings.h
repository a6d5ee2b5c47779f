// The host's own settings. Each is an option of qs-host's command line and a
// key of the section "[qs-host]" of the module's configuration file
// (QSConfiguration.ini in the work folder), so that a user of the installed
// service can change them without touching its unit; an option given on the
// command line wins over the file. A list (Host names, origins) is one key
// whose items are separated by spaces or commas. Adding a setting is one row
// of kHostSettings.
#pragma once

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "host/module.h"
#include "host/server.h"

namespace qs_host {

constexpr char kHostSection[] = "qs-host";

struct HostSetting {
  const char* name;       // the option (--name) and the key
  const char* valueName;  // for the help text
  const char* help;
  // A list of items ...
  std::vector<std::string> ServerOptions::*list = nullptr;
  bool (*itemValid)(const std::string&) = nullptr;
  // ... or a whole number in [minimum, maximum], a field of Limits.
  long long minimum = 0, maximum = 0;
  long long (*get)(const Limits&) = nullptr;
  void (*set)(Limits&, long long) = nullptr;
};

template <auto Field>
long long GetLimit(const Limits& limits) {
  return static_cast<long long>(limits.*Field);
}
template <auto Field>
void SetLimit(Limits& limits, long long value) {
  limits.*Field = static_cast<std::decay_t<decltype(limits.*Field)>>(value);
}

bool ValidHostName(const std::string& name);
bool ValidOrigin(const std::string& origin);

inline const HostSetting kHostSettings[] = {
    {"allow-host", "NAME", "also serve requests whose Host names NAME (for a proxy in front of the service)",
     &ServerOptions::allowHosts, &ValidHostName},
    {"allow-origin", "ORIGIN", "also serve pages of ORIGIN (e.g. https://app.example) while the module's "
     "EnableCORSAll is off", &ServerOptions::allowOrigins, &ValidOrigin},
    {"head-timeout", "SECONDS", "time a client has to send a whole request head", nullptr, nullptr, 1, 3600,
     &GetLimit<&Limits::headSeconds>, &SetLimit<&Limits::headSeconds>},
    {"idle-timeout", "SECONDS", "time an idle connection is kept", nullptr, nullptr, 1, 86400,
     &GetLimit<&Limits::idleSeconds>, &SetLimit<&Limits::idleSeconds>},
    {"max-connections", "N", "connections open at once; at the cap the longest idle one is closed", nullptr,
     nullptr, 1, 1000000, &GetLimit<&Limits::maxConnections>, &SetLimit<&Limits::maxConnections>},
    {"body-budget", "MIB", "request bodies and WebSocket messages held at once, all connections together; a "
     "request over it is answered 503", nullptr, nullptr, 1, 65536, &GetLimit<&Limits::bodyBudgetMiB>,
     &SetLimit<&Limits::bodyBudgetMiB>},
    {"max-records", "N", "image records stored at once; a new GUID beyond them is answered 507", nullptr, nullptr,
     1, 1000000, &GetLimit<&Limits::maxRecords>, &SetLimit<&Limits::maxRecords>},
};

// The setting named `name` (exact), or null.
const HostSetting* FindHostSetting(const std::string& name);

// Checks `text` as a value of `setting` and applies it to *options. False,
// with the reason in *why, when it is not one.
bool ApplyHostSetting(const HostSetting& setting, const std::string& text, ServerOptions* options,
                      std::string* why);
// The setting's value in `options`, as the file would hold it ("" for an
// empty list).
std::string HostSettingText(const HostSetting& setting, const ServerOptions& options);

// The module's profile-string functions on one file.
struct Profile {
  Module::ProfileReadFn read = nullptr;
  Module::ProfileWriteFn write = nullptr;
  std::string file;

  bool usable() const { return read != nullptr && write != nullptr; }
  // The stored text of `key`, or nothing when the key (or the file) is missing.
  std::optional<std::string> Stored(const char* section, const char* key) const;
};

// Applies the keys of "[qs-host]" in the profile's file to *options. False,
// with a message naming the file and key, for a value that is not valid.
bool ReadHostSettings(const Profile& profile, ServerOptions* options, std::string* error);

}  // namespace qs_host
