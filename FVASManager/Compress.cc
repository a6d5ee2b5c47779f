#include "FVASManager/Compress.h"

#include <cstdio>
#include <cstring>

#include "FVASManager/MiniUnzip.h"
#include "platform/file.h"
#include "util/util.h"
#include "util/win_string.h"

Compress::Compress() { memset(m_szErrorDescription, 0, sizeof(m_szErrorDescription)); }

bool Compress::FileExists(const char* path) {
  if (path != nullptr && GetFileAttributes(path) != INVALID_FILE_ATTRIBUTES) return true;
  memset(m_szErrorDescription, 0, sizeof(m_szErrorDescription));
  snprintf(m_szErrorDescription, sizeof(m_szErrorDescription), "Cannot find the specified file \"%s\"",
           path != nullptr ? path : "");
  return false;
}

bool Compress::FolderExists(const char* path) {
  const unsigned int attributes = path != nullptr ? GetFileAttributes(path) : INVALID_FILE_ATTRIBUTES;
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    snprintf(m_szErrorDescription, sizeof(m_szErrorDescription), "Cannot find the specified folder \"%s\"",
             path != nullptr ? path : "");
    return false;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    snprintf(m_szErrorDescription, sizeof(m_szErrorDescription), "\"%s\" is not a folder", path);
    return false;
  }
  return true;
}

bool Compress::FolderCanWrite(const char*) { return false; }

bool Compress::Unzip(const char* zipPath, const char* folder) {
  if (!FileExists(zipPath)) return false;
  char target[1024];
  lstrcpyn(target, folder != nullptr ? folder : "", sizeof(target));
  CUtil::TrimWindowsFileName(target);
  CUtil::CreateDirectory(target);

  CMiniUnzip driver;
  const bool extracted = driver.unzip(zipPath, folder);
  if (!extracted) lstrcpyn(m_szErrorDescription, driver.GetMessage(), sizeof(m_szErrorDescription));
  return extracted;
}
