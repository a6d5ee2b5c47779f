#include "ini/profile.h"

#include <cstring>

#include "ini/profile_cache.h"
#include "platform/regular_file.h"
#include "util/win_string.h"

// ---- Profile strings ------------------------------------------------------------

unsigned int GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue, char* buffer,
                                      unsigned int size, const char* fileName) {
  if (section == nullptr) section = "";
  if (key == nullptr) key = "";
  if (defaultValue == nullptr) defaultValue = "";
  const std::string value = fileName != nullptr ? ProfileCache::Instance().Lookup(fileName, section, key, defaultValue)
                                                : std::string(defaultValue);
  if (buffer != nullptr && size >= 2) lstrcpyn(buffer, value.c_str(), size - 1);
  return static_cast<unsigned int>(strlen(value.c_str()));
}

bool WritePrivateProfileStringA(const char* section, const char* key, const char* value, const char* fileName) {
  if (fileName == nullptr) return true;
  CIniFileA document;
  // Only a file that is missing starts from an empty document. Anything else
  // that cannot be read (a folder, a FIFO, a file without read permission, a
  // dangling link) cannot be written either: rewriting it from an empty
  // document would lose every key it holds.
  if (!document.Load(std::string(fileName), false) && !NothingAtPath(fileName)) return true;
  document.SetKeyValue(section != nullptr ? section : "", key != nullptr ? key : "", value != nullptr ? value : "");
  document.Save(std::string(fileName));
  ProfileCache::Instance().Invalidate(fileName);
  return true;
}
