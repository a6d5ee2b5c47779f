#include "host/config_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "environment/configuration_keys.h"
#include "host/state_folder.h"

namespace qs_host {

namespace {

// A key of either section.
struct Entry {
  const ConfigurationKey* module = nullptr;
  const HostSetting* host = nullptr;

  explicit operator bool() const { return module != nullptr || host != nullptr; }
  const char* name() const { return module != nullptr ? module->name : host->name; }
  const char* section() const { return module != nullptr ? kDefaultSection : kHostSection; }
  bool everyLogLine() const { return module != nullptr && module->read == KeyRead::kEveryLogLine; }
};

// Names match without regard to case, as the file's names do.
Entry Find(const std::string& name) {
  Entry entry;
  for (const ConfigurationKey* key : kConfigurationKeys) {
    if (strcasecmp(key->name, name.c_str()) == 0) entry.module = key;
  }
  for (const HostSetting& setting : kHostSettings) {
    if (strcasecmp(setting.name, name.c_str()) == 0) entry.host = &setting;
  }
  return entry;
}

// The module's value as it reads it at start-up: a missing key takes the
// default; a key present but empty reads as "" (so a flag stored empty is
// FALSE); a flag is true only for "TRUE" in any case; a number is strtol's.
std::string ModuleInForce(const ConfigurationKey& key, const std::optional<std::string>& stored) {
  const std::string text = stored ? *stored : key.defaultValue;
  switch (key.type) {
    case KeyType::kFlag: return strcasecmp(text.c_str(), "TRUE") == 0 ? "TRUE" : "FALSE";
    case KeyType::kNumber: return std::to_string(strtol(text.c_str(), nullptr, 10));
    case KeyType::kText: break;
  }
  return text.empty() ? key.emptyMeans : text;
}

// The host setting's value when only the file speaks (its default when the
// file's text is not valid: qs-host then refuses to start).
std::string HostInForce(const HostSetting& setting, const std::optional<std::string>& stored, bool* valid) {
  ServerOptions options;
  std::string why;
  *valid = !stored || ApplyHostSetting(setting, *stored, &options, &why);
  return HostSettingText(setting, options);
}

std::string InForce(const Entry& entry, const Profile& profile, bool* valid) {
  const std::optional<std::string> stored = profile.Stored(entry.section(), entry.name());
  *valid = true;
  return entry.module != nullptr ? ModuleInForce(*entry.module, stored) : HostInForce(*entry.host, stored, valid);
}

std::string DefaultOf(const Entry& entry) {
  if (entry.module != nullptr) return ModuleInForce(*entry.module, std::nullopt);
  return HostSettingText(*entry.host, ServerOptions());
}

// The text to write for `value`, or false with the reason.
bool Checked(const Entry& entry, const std::string& value, std::string* text, std::string* why) {
  if (entry.host != nullptr) {
    ServerOptions options;
    if (!ApplyHostSetting(*entry.host, value, &options, why)) return false;
    *text = HostSettingText(*entry.host, options);
    return true;
  }
  const ConfigurationKey& key = *entry.module;
  switch (key.type) {
    case KeyType::kFlag:
      if (strcasecmp(value.c_str(), "true") != 0 && strcasecmp(value.c_str(), "false") != 0) {
        *why = "\"" + value + "\" is not a flag: true or false";
        return false;
      }
      *text = strcasecmp(value.c_str(), "true") == 0 ? "TRUE" : "FALSE";
      return true;
    case KeyType::kNumber: {
      const bool digits = !value.empty() && value.size() <= 9 && value.find_first_not_of("0123456789") == std::string::npos;
      const long number = digits ? strtol(value.c_str(), nullptr, 10) : -1;
      if (number < key.minimum || number > key.maximum) {
        *why = "\"" + value + "\" is not a whole number from " + std::to_string(key.minimum) + " to " +
               std::to_string(key.maximum);
        return false;
      }
      *text = std::to_string(number);
      return true;
    }
    case KeyType::kText:
      for (unsigned char c : value) {
        if (c < 0x20 || c == 0x7F) {
          *why = "a value is one line of text, without control characters";
          return false;
        }
      }
      *text = value;
      return true;
  }
  return false;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }
std::string Shown(const std::string& text) { return text.empty() ? "\"\"" : text; }

std::string ReadAll(const std::string& path, bool* present) {
  std::ifstream in(path, std::ios::binary);
  *present = static_cast<bool>(in);
  std::ostringstream bytes;
  if (in) bytes << in.rdbuf();
  return bytes.str();
}

// Whether the file can be replaced or created: a present path must be a
// regular file open for writing, and the folder must take a new file (the
// write may go through a temporary file beside it).
bool Writable(const std::string& path, const std::string& folder, std::string* why) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (stat(path.c_str(), &st) != 0) {
      *why = "it is a link to nothing";
      return false;
    }
    if (!S_ISREG(st.st_mode)) {
      *why = "it is not a regular file";
      return false;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
      *why = strerror(errno);
      return false;
    }
    close(fd);
  } else if (errno != ENOENT) {
    *why = strerror(errno);
    return false;
  }
  std::string probe = folder + ".qs-config-XXXXXX";
  const int fd = mkstemp(&probe[0]);
  if (fd < 0) {
    *why = "its folder takes no new file (" + std::string(strerror(errno)) + ")";
    return false;
  }
  close(fd);
  unlink(probe.c_str());
  return true;
}

std::string Effect(const Entry& entry, const ConfigPlace& place) {
  if (entry.everyLogLine()) return "Takes effect at the next log line.";
  const std::string hint = RestartHint(place.folder, place.exePath);
  std::string text = hint.empty() ? "Takes effect when qs-host starts next."
                                  : "Takes effect at the next start: " + hint;
  if (entry.host != nullptr) text += "\n--" + std::string(entry.name()) + " on qs-host's command line wins over it.";
  return text;
}

int Set(const Entry& entry, const std::string& value, const ConfigPlace& place, std::ostream& out,
        std::ostream& err) {
  const Profile& profile = place.profile;
  std::string text, why;
  if (!Checked(entry, value, &text, &why)) {
    err << "qs-host: " << entry.name() << ": " << why << "; nothing written\n";
    return 2;
  }
  const std::optional<std::string> stored = profile.Stored(entry.section(), entry.name());
  bool valid = true;
  const std::string before = InForce(entry, profile, &valid);
  if (stored && *stored == text) {
    out << entry.name() << " is " << Shown(text) << " in " << profile.file << " already; nothing written\n";
    return 0;
  }
  if (!Writable(profile.file, place.folder, &why)) {
    err << "qs-host: cannot write " << profile.file << ": " << why << "; nothing written\n";
    return 2;
  }
  bool present = false;
  const std::string original = ReadAll(profile.file, &present);
  profile.write(entry.section(), entry.name(), text.c_str(), profile.file.c_str());
  const std::optional<std::string> back = profile.Stored(entry.section(), entry.name());
  if (!back || *back != text) {
    if (present) {
      std::ofstream(profile.file, std::ios::binary | std::ios::trunc) << original;
    } else {
      unlink(profile.file.c_str());
    }
    err << "qs-host: " << profile.file << " did not keep " << entry.name() << "=" << text
        << " (read back: " << (back ? Quoted(*back) : std::string("nothing")) << "); left as it was\n";
    return 2;
  }
  const std::string after = InForce(entry, profile, &valid);
  out << entry.name() << ": " << Shown(before) << " -> " << Shown(after) << " (" << profile.file << ", ["
      << entry.section() << "] " << entry.name() << "=" << text << ")\n"
      << Effect(entry, place) << "\n";
  return 0;
}

void Row(std::ostream& out, const std::string& key, const std::string& value, const std::string& fallback,
         const std::string& effect, const std::string& file) {
  out << "  " << std::left << std::setw(31) << key << std::setw(22) << Shown(value) << std::setw(20)
      << Shown(fallback) << std::setw(15) << effect << file << "\n";
}

std::string PortLists(const Profile& profile) {
  std::string text;
  for (const char* base : kPortListBases) {
    const long count = strtol(profile.Stored(kDefaultSection, base).value_or("0").c_str(), nullptr, 10);
    std::string entries;
    for (long i = 0; i < count && i < 1000; ++i) {
      char name[64], port[64];
      snprintf(name, sizeof(name), kPortNameKeyFormat, base, static_cast<int>(i));
      snprintf(port, sizeof(port), kPortNumberKeyFormat, base, static_cast<int>(i));
      const std::string entry = profile.Stored(kDefaultSection, name).value_or("");
      if (entry.empty()) break;
      entries += (entries.empty() ? "" : ", ") + entry + " " + profile.Stored(kDefaultSection, port).value_or("0");
    }
    text += std::string(text.empty() ? "" : "; ") + base + ": " + (entries.empty() ? "none" : entries);
  }
  return text;
}

// The per-user ports of the section "" (this platform's user SID).
std::string UserPorts(const Profile& profile) {
  std::string text;
  for (const char* prefix : kPortPrefixes) {
    const std::string plain = profile.Stored("", prefix).value_or("0");
    const std::string secure = profile.Stored("", (std::string(prefix) + "_ssl").c_str()).value_or("0");
    if (strtol(plain.c_str(), nullptr, 10) == 0 && strtol(secure.c_str(), nullptr, 10) == 0) continue;
    text += (text.empty() ? "" : ", ") + std::string(prefix) + " " + plain + " (TLS " + secure + ")";
  }
  return text.empty() ? "none" : text;
}

int List(const ConfigPlace& place, std::ostream& out) {
  const Profile& profile = place.profile;
  struct stat st;
  out << "Settings file: " << profile.file
      << (stat(profile.file.c_str(), &st) != 0 ? " (not there yet: every key has its default)" : "") << "\n";
  for (const char* section : {kDefaultSection, kHostSection}) {
    out << "\n[" << section << "]"
        << (section == kHostSection ? " qs-host's own; an option on its command line wins" : " the module's") << "\n";
    Row(out, "KEY", "IN FORCE", "DEFAULT", "TAKES EFFECT", "IN THE FILE");
    for (const Entry& entry : [&] {
           std::vector<Entry> entries;
           for (const ConfigurationKey* key : kConfigurationKeys) entries.push_back(Entry{key, nullptr});
           for (const HostSetting& setting : kHostSettings) entries.push_back(Entry{nullptr, &setting});
           return entries;
         }()) {
      if (strcmp(entry.section(), section) != 0) continue;
      bool valid = true;
      const std::string value = InForce(entry, profile, &valid);
      const std::optional<std::string> stored = profile.Stored(section, entry.name());
      Row(out, entry.name(), value, DefaultOf(entry), entry.everyLogLine() ? "next log line" : "next start",
          stored ? Quoted(*stored) + (valid ? "" : " not valid: qs-host will not start") : "-");
    }
  }
  Profile users = profile;
  users.file = place.folder + kUserConfigurationFile;
  out << "\nRead-only (the service writes these itself):\n"
      << "  port lists: " << PortLists(profile) << "\n"
      << "  ports of this user (" << users.file << "): " << UserPorts(users) << "\n";
  return 0;
}

}  // namespace

int RunConfig(const std::vector<std::string>& words, const ConfigPlace& place, std::ostream& out,
              std::ostream& err) {
  const std::string usage = "usage: qs-host config [get KEY | set KEY VALUE]";
  if (words.empty()) return List(place, out);
  const std::string& action = words[0];
  const size_t wanted = action == "get" ? 2 : action == "set" ? 3 : 0;
  if (wanted == 0) {
    err << "qs-host: config has no action \"" << action << "\"\n" << usage << "\n";
    return 2;
  }
  if (words.size() != wanted) {
    err << "qs-host: config " << action << " takes " << (wanted == 2 ? "KEY" : "KEY VALUE") << "\n" << usage << "\n";
    return 2;
  }
  const Entry entry = Find(words[1]);
  if (!entry) {
    err << "qs-host: no setting \"" << words[1] << "\"; qs-host config lists them\n";
    return 2;
  }
  if (action == "set") return Set(entry, words[2], place, out, err);
  bool valid = true;
  out << InForce(entry, place.profile, &valid) << "\n";
  return 0;
}

std::vector<std::pair<std::string, std::string>> SettingsInForce(const Profile& profile,
                                                                 const ServerOptions& options) {
  std::vector<std::pair<std::string, std::string>> rows = {{"Settings file", profile.file}};
  for (const ConfigurationKey* key : kConfigurationKeys) {
    rows.emplace_back(key->name, ModuleInForce(*key, profile.Stored(kDefaultSection, key->name)));
  }
  for (const HostSetting& setting : kHostSettings) {
    rows.emplace_back(setting.name, HostSettingText(setting, options));
  }
  return rows;
}

std::string RestartHint(const std::string& folder, const std::string& exePath) {
  const std::string unit = "systemctl --user restart qs-host";
  // The user unit runs the installed qs-host from the state folder.
  if (access((folder + kCopiedMarker).c_str(), F_OK) == 0) return unit;
  DIR* processes = opendir("/proc");
  if (processes == nullptr) return "";
  std::string hint;
  while (const dirent* item = readdir(processes)) {
    const long pid = strtol(item->d_name, nullptr, 10);
    if (pid <= 0 || pid == getpid()) continue;
    const std::string base = std::string("/proc/") + item->d_name;
    char exe[4096] = {};
    if (readlink((base + "/exe").c_str(), exe, sizeof(exe) - 1) <= 0 || exePath != exe) continue;
    // A unit's process carries the service manager's INVOCATION_ID.
    bool present = false;
    const std::string environ = ReadAll(base + "/environ", &present);
    if (environ.compare(0, 14, "INVOCATION_ID=") == 0 || environ.find(std::string("\0INVOCATION_ID=", 15)) !=
                                                                   std::string::npos) {
      hint = unit;
      break;
    }
    hint = "restart the qs-host running as process " + std::string(item->d_name);
  }
  closedir(processes);
  return hint;
}

}  // namespace qs_host
