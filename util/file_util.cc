// CUtil's file and folder members, on the Win32-style file layer.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/file.h"
#include "platform/global_memory.h"
#include "util/util.h"
#include "util/win_string.h"

namespace {

bool Exists(const char* path) { return GetFileAttributes(path) != INVALID_FILE_ATTRIBUTES; }

bool IsDotOrDotDot(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

// A bounded copy of `path` (1024 characters) without trailing `separator`s.
void CopyTrimmed(const char* path, char separator, char (&out)[1024]) {
  lstrcpyn(out, path, sizeof(out));
  size_t length = strlen(out);
  while (length > 0 && out[length - 1] == separator) out[--length] = '\0';
}

}  // namespace

bool CUtil::CreateDirectory(const char* path) {
  if (path == nullptr) return false;
  const char* last = strrchr(path, '/');
  if (last == nullptr) return true;
  std::string folder(path, static_cast<size_t>(last - path));
  if (Exists(folder.c_str())) return true;
  for (size_t i = 1; i < folder.size(); ++i) {
    if (folder[i] != '/') continue;
    std::string prefix = folder.substr(0, i);
    if (!Exists(prefix.c_str()) && !::CreateDirectory(prefix.c_str(), nullptr)) return false;
  }
  if (Exists(folder.c_str())) return true;
  return ::CreateDirectory(folder.c_str(), nullptr) != 0;
}

bool CUtil::DeleteDirectory(const char* path, signed char deleteItself) {
  if (path == nullptr) return false;
  char folder[1024];
  CopyTrimmed(path, '\\', folder);
  DIR* dir = opendir(folder);
  if (dir == nullptr) return deleteItself ? remove(folder) == 0 : true;

  bool lastDeletion = true;
  char full[4096];
  while (dirent* entry = readdir(dir)) {
    snprintf(full, sizeof(full), "%s/%s", folder, entry->d_name);
    struct stat st;
    if (lstat(full, &st) != 0) {
      perror(full);
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      printf("%s file\n", full);
      SetFileAttributes(full, FILE_ATTRIBUTE_NORMAL);
      lastDeletion = DeleteFile(full) != 0;
      if (!lastDeletion) {
        closedir(dir);
        return false;
      }
    } else if (!IsDotOrDotDot(entry->d_name)) {
      printf("%s directory\n", full);
      if (!DeleteDirectory(full, 1)) {
        closedir(dir);
        return false;
      }
    }
  }
  closedir(dir);
  return deleteItself ? remove(folder) == 0 : lastDeletion;
}

bool CUtil::CopyDirectoryFiles(const char* source, const char* destination, signed char recursive) {
  if (source == nullptr || destination == nullptr) return false;
  char from[1024];
  char to[1024];
  CopyTrimmed(source, '/', from);
  CopyTrimmed(destination, '/', to);
  DIR* dir = opendir(from);
  if (dir == nullptr) return true;

  bool result = true;
  while (dirent* entry = readdir(dir)) {
    if (IsDotOrDotDot(entry->d_name)) continue;
    std::string sourcePath = std::string(from) + "/" + entry->d_name;
    std::string targetPath = std::string(to) + "/" + entry->d_name;
    struct stat st;
    if (stat(sourcePath.c_str(), &st) != 0) continue;
    if (!S_ISDIR(st.st_mode)) {
      if (!CreateDirectory(targetPath.c_str())) {
        closedir(dir);
        return false;
      }
      result = CopyFile(sourcePath.c_str(), targetPath.c_str(), 0) != 0;
    } else if (recursive) {
      if (!CreateDirectory(targetPath.c_str()) ||
          !CopyDirectoryFiles(sourcePath.c_str(), targetPath.c_str(), recursive)) {
        closedir(dir);
        return false;
      }
    }
  }
  closedir(dir);
  return result;
}

bool CUtil::RemoveFileReadOnlyAttribute(const char* path) {
  if (path == nullptr) return false;
  unsigned int attributes = GetFileAttributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) return true;
  SetFileAttributes(path, (attributes & FILE_ATTRIBUTE_READONLY) ? FILE_ATTRIBUTE_NORMAL : attributes);
  return true;
}

long CUtil::FileFolderExists(const char* path, signed char isFile, signed char) {
  unsigned int attributes = path == nullptr ? INVALID_FILE_ATTRIBUTES : GetFileAttributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) return isFile ? -3002 : -3003;
  const bool isFolder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if (isFile && isFolder) return -2418;
  if (!isFile && !isFolder) return -1017;
  return 0;
}

unsigned char* CUtil::LoadFileToMemoryInner(const char* path, unsigned int* size, long* error) {
  long ignoredError = 0;
  unsigned int ignoredSize = 0;
  if (error == nullptr) error = &ignoredError;
  if (size == nullptr) size = &ignoredSize;
  *error = 0;
  FILE* file = QSCreateFile(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                            nullptr);
  if (file == nullptr) {
    *error = 16;
    return nullptr;
  }
  *size = ::GetFileSize(file, nullptr);
  unsigned char* buffer = static_cast<unsigned char*>(GlobalAlloc(0, *size));
  if (buffer == nullptr) {
    *error = 2;
    QSCloseFile(file);
    return nullptr;
  }
  unsigned int read = 0;
  if (!::ReadFile(file, buffer, *size, &read, nullptr)) {
    *error = 16;
    GlobalFree(buffer);
    buffer = nullptr;
  }
  QSCloseFile(file);
  return buffer;
}

long CUtil::SaveDataToFileInner(const char* path, const unsigned char* data, unsigned int length,
                                unsigned int offset) {
  FILE* file = nullptr;
  if (offset != 0) {
    CreateDirectory(path);
    file = QSCreateFile(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                        nullptr);
    if (file == nullptr) return 16;
    SetFilePointer(file, static_cast<int>(offset), nullptr, FILE_BEGIN);
  } else {
    if (!RemoveFileReadOnlyAttribute(path)) return 22;
    CreateDirectory(path);
    file = QSCreateFile(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                        nullptr);
    if (file == nullptr) return 16;
  }
  unsigned int written = 0;
  if (WriteFile(file, data, length, &written, nullptr) && written == length) {
    QSCloseFile(file);
    return 0;
  }
  QSCloseFile(file);
  DeleteFile(path);
  return 16;
}

void CUtil::GetModulePath(char* out) {
  if (out == nullptr) return;
  char path[1025];
  memset(path, 0, sizeof(path));
  ssize_t ignored = readlink("/proc/self/exe", path, sizeof(path) - 1);
  (void)ignored;
  strcpy(out, path);
}

void CUtil::GetDllPath(char* out) {
  if (out == nullptr) return;
  memset(out, 0, 1024);
  char path[1025];
  GetModulePath(path);
  char* slash = strrchr(path, '/');
  char* backslash = strrchr(path, '\\');
  char* last = slash > backslash ? slash : backslash;
  if (last == nullptr) return;
  last[1] = '\0';
  lstrcpyn(out, path, 1024);
}

int CUtil::GetAppliationFolder(char*, int) { return 0; }

void CUtil::GetResourcePath(char* out) {
  if (out == nullptr) return;
  char folder[1024];
  memset(folder, 0, sizeof(folder));
  GetAppliationFolder(folder, 0);
  TrimWindowsFileName(folder);
  // Bounded like every path buffer: a longer folder is cut.
  if (snprintf(out, 1024, "%s/Quintaris/", folder) >= 1024) out[1023] = '\0';
}

void CUtil::GetFileTime(const char*, _FILETIME*, _FILETIME*, _FILETIME*) {}

unsigned int CUtil::GetFileSize(const char*) { return 0; }

void CUtil::RemoveAllImageFilesInDir(const char*) {}

int CUtil::ReadFileByName(const char*, unsigned char**, int*) { return 0; }

int CUtil::ReadFile(void*, unsigned char**, int*) { return 0; }
