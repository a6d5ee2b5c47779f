#include "host/settings.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace qs_host {

namespace {

// Longer than any value a key can hold (the profile layer keeps 2,046).
constexpr unsigned int kValueBuffer = 4096;
// A default no file holds: tells a missing key from a stored one.
constexpr char kMissing[] = "\x01missing";

std::vector<std::string> Items(const std::string& text) {
  std::vector<std::string> items;
  std::string item;
  for (char c : text + " ") {
    if (c == ',' || std::isspace(static_cast<unsigned char>(c))) {
      if (!item.empty()) items.push_back(item);
      item.clear();
    } else {
      item += c;
    }
  }
  return items;
}

bool NameCharacters(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '-' || c == '_';
  });
}

}  // namespace

bool ValidHostName(const std::string& name) {
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
    return name.find_first_not_of("0123456789abcdefABCDEF:.", 1) == name.size() - 1;
  }
  return NameCharacters(name);
}

// "scheme://host[:port]", a trailing "/" allowed.
bool ValidOrigin(const std::string& origin) {
  const size_t separator = origin.find("://");
  if (separator == std::string::npos || separator == 0) return false;
  const std::string scheme = origin.substr(0, separator);
  if (!std::all_of(scheme.begin(), scheme.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '+' || c == '-' || c == '.';
      })) {
    return false;
  }
  std::string authority = origin.substr(separator + 3);
  if (!authority.empty() && authority.back() == '/') authority.pop_back();
  const size_t colon = authority.rfind(':');
  if (colon != std::string::npos && authority.back() != ']') {
    const std::string port = authority.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) return false;
    authority.resize(colon);
  }
  return ValidHostName(authority);
}

const HostSetting* FindHostSetting(const std::string& name) {
  for (const HostSetting& setting : kHostSettings) {
    if (name == setting.name) return &setting;
  }
  return nullptr;
}

bool ApplyHostSetting(const HostSetting& setting, const std::string& text, ServerOptions* options,
                      std::string* why) {
  if (setting.list != nullptr) {
    std::vector<std::string> items = Items(text);
    for (const std::string& item : items) {
      if (!setting.itemValid(item)) {
        *why = "\"" + item + "\" is not " + (setting.itemValid == &ValidOrigin ? "an origin (scheme://host[:port])"
                                                                                 : "a host name");
        return false;
      }
    }
    options->*setting.list = std::move(items);
    return true;
  }
  const bool digits = !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
  const long long value = digits ? std::stoll(text) : -1;
  if (value < setting.minimum || value > setting.maximum) {
    *why = "\"" + text + "\" is not a whole number from " + std::to_string(setting.minimum) + " to " +
           std::to_string(setting.maximum);
    return false;
  }
  setting.set(options->limits, value);
  return true;
}

std::string HostSettingText(const HostSetting& setting, const ServerOptions& options) {
  if (setting.list == nullptr) return std::to_string(setting.get(options.limits));
  std::string text;
  for (const std::string& item : options.*setting.list) text += (text.empty() ? "" : " ") + item;
  return text;
}

std::optional<std::string> Profile::Stored(const char* section, const char* key) const {
  std::vector<char> value(kValueBuffer, '\0');
  read(section, key, kMissing, value.data(), kValueBuffer, file.c_str());
  if (strcmp(value.data(), kMissing) == 0) return std::nullopt;
  return std::string(value.data());
}

bool ReadHostSettings(const Profile& profile, ServerOptions* options, std::string* error) {
  for (const HostSetting& setting : kHostSettings) {
    const std::optional<std::string> stored = profile.Stored(kHostSection, setting.name);
    std::string why;
    if (stored && !ApplyHostSetting(setting, *stored, options, &why)) {
      *error = profile.file + ", [" + kHostSection + "] " + setting.name + ": " + why +
               " (qs-host config set " + setting.name + " VALUE corrects it)";
      return false;
    }
  }
  return true;
}

}  // namespace qs_host
