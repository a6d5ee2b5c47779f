#include "ini/profile.h"

#include <cerrno>
#include <cstring>
#include <sstream>

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

int WritePrivateProfileStringChecked(const char* section, const char* key, const char* value, const char* fileName) {
  if (fileName == nullptr) return EINVAL;
  RegularFileUpdate update(fileName);
  std::string bytes;
  // What cannot be read (a folder, a FIFO, a dangling link) is refused before
  // anything is written: rewriting it from an empty document would lose
  // every key it holds.
  if (const int error = update.Read(&bytes)) return error;
  CIniFileA document;
  std::istringstream input(bytes);
  document.Load(input, false);
  document.SetKeyValue(section != nullptr ? section : "", key != nullptr ? key : "", value != nullptr ? value : "");
  std::ostringstream output;
  document.Save(output);
  const int error = update.Replace(output.str());
  ProfileCache::Instance().Invalidate(fileName);
  return error;
}

bool WritePrivateProfileStringA(const char* section, const char* key, const char* value, const char* fileName) {
  if (const int error = WritePrivateProfileStringChecked(section, key, value, fileName)) errno = error;
  return true;  // kept: true in every case; the outcome is errno
}
