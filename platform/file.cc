#include "platform/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/system_time.h"

namespace {

constexpr long kReadPiece = 0x100000;  // 1 MiB

bool IsDotOrDotDot(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

}  // namespace

FILE* CreateFile(const char* name, unsigned int desiredAccess, unsigned int, void*, unsigned int creationDisposition,
                 unsigned int, FILE*) {
  if (name == nullptr) return nullptr;
  const bool write = (desiredAccess & GENERIC_WRITE) != 0;
  char mode[4] = {0};
  size_t n = 0;
  mode[n++] = creationDisposition == OPEN_EXISTING ? 'r' : creationDisposition == OPEN_ALWAYS ? 'a' : 'w';
  if (write) mode[n++] = '+';
  mode[n++] = 'b';
  FILE* first = fopen(name, mode);
  if (first == nullptr) return nullptr;
  fclose(first);
  FILE* stream = fopen(name, write ? "r+b" : "rb");
  if (stream != nullptr) fseek(stream, 0, SEEK_SET);
  return stream;
}

FILE* QSCreateFile(const char* name, unsigned int desiredAccess, unsigned int shareMode, void* security,
                   unsigned int creationDisposition, unsigned int flags, FILE* templateFile) {
  return CreateFile(name, desiredAccess, shareMode, security, creationDisposition, flags, templateFile);
}

bool QSCloseFile(FILE* stream) { return stream == nullptr || fclose(stream) == 0; }

bool CloseFile(void* stream) { return QSCloseFile(static_cast<FILE*>(stream)); }

unsigned int GetFileSize(void* stream, unsigned int*) {
  FILE* file = static_cast<FILE*>(stream);
  if (file == nullptr) return 0;
  long position = ftell(file);
  fseek(file, 0, SEEK_END);
  long size = ftell(file);
  fseek(file, position, SEEK_SET);
  return static_cast<unsigned int>(size);
}

unsigned int SetFilePointer(void* stream, int distance, int*, unsigned int moveMethod) {
  FILE* file = static_cast<FILE*>(stream);
  if (file == nullptr) return 0xFFFFFFFF;
  fseek(file, distance, static_cast<int>(moveMethod));
  return static_cast<unsigned int>(ftell(file));
}

BOOL WriteFile(void* stream, const void* buffer, unsigned int count, unsigned int* written, void*) {
  FILE* file = static_cast<FILE*>(stream);
  size_t n = 0;
  if (file != nullptr && (buffer != nullptr || count == 0)) n = fwrite(buffer, 1, count, file);
  if (written != nullptr) *written = static_cast<unsigned int>(n);
  return file != nullptr && n == count;
}

BOOL ReadFile(void* stream, void* buffer, unsigned int count, unsigned int* read, void*) {
  FILE* file = static_cast<FILE*>(stream);
  size_t n = 0;
  if (file != nullptr && buffer != nullptr) n = fread(buffer, 1, count, file);
  if (read != nullptr) *read = static_cast<unsigned int>(n);
  return file != nullptr && ferror(file) == 0;
}

int ReadFile(void* stream, unsigned char** buffer, int* size) {
  if (buffer == nullptr || size == nullptr) return 0;
  *buffer = nullptr;
  *size = 0;
  FILE* file = static_cast<FILE*>(stream);
  if (file == nullptr) return 1;
  fseek(file, 0, SEEK_END);
  long length = ftell(file);
  rewind(file);
  if (length < 0) length = 0;
  unsigned char* data = static_cast<unsigned char*>(malloc(static_cast<size_t>(length) + 1));
  if (data == nullptr) return 1;
  *buffer = data;
  *size = static_cast<int>(length);
  if (length < kReadPiece) {
    if (length > 0) fread(data, 1, static_cast<size_t>(length), file);
  } else {
    long done = 0;
    while (done < length) {
      long piece = length - done < kReadPiece ? length - done : kReadPiece;
      size_t got = fread(data + done, 1, static_cast<size_t>(piece), file);
      if (got == 0) break;
      done += static_cast<long>(got);
    }
  }
  data[length] = 0;
  return 0;
}

int ReadFileByName(const char* path, unsigned char** buffer, int* size) {
  if (buffer != nullptr) *buffer = nullptr;
  if (size != nullptr) *size = 0;
  FILE* file = QSCreateFile(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                            nullptr);
  if (file == nullptr) return 0;
  int result = ReadFile(file, buffer, size);
  QSCloseFile(file);
  return result;
}

BOOL CopyFile(const char* source, const char* destination, signed char) {
  unsigned char* buffer = nullptr;
  int size = 0;
  if (ReadFileByName(source, &buffer, &size) == 0) {
    // The read "succeeded" by its own convention: nothing is written.
    free(buffer);
    return TRUE;
  }
  if (buffer == nullptr || size <= 0 || destination == nullptr) {
    free(buffer);
    return FALSE;
  }
  int fd = open(destination, O_RDWR | O_CREAT | O_TRUNC, 0777);
  if (fd < 0) {
    free(buffer);
    return FALSE;
  }
  flock(fd, LOCK_EX | LOCK_NB);
  ssize_t ignored = write(fd, buffer, static_cast<size_t>(size));
  (void)ignored;
  flock(fd, LOCK_UN | LOCK_NB);
  close(fd);
  free(buffer);
  return TRUE;
}

BOOL DeleteFile(const char* path) { return path != nullptr && unlink(path) == 0; }

unsigned int GetFileAttributes(const char* path) {
  if (path == nullptr || *path == '\0') return INVALID_FILE_ATTRIBUTES;
  struct stat st;
  if (stat(path, &st) != 0) return INVALID_FILE_ATTRIBUTES;
  return S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
}

BOOL SetFileAttributes(const char*, unsigned int) { return TRUE; }

BOOL CreateDirectory(const char* path, void*) {
  if (path == nullptr) return FALSE;
  struct stat st;
  if (stat(path, &st) == 0) return FALSE;
  return mkdir(path, 0777) == 0;
}

BOOL GetFileTime(char* path, _FILETIME*, _FILETIME*, _FILETIME* lastWrite) {
  struct stat st;
  memset(&st, 0, sizeof(st));
  if (path != nullptr) stat(path, &st);
  if (lastWrite != nullptr) lastWrite->dwLowDateTime = static_cast<uint32_t>(st.st_mtime);
  return TRUE;
}

int ImgChmodForLinux(const char* path) {
  // Done directly rather than through a shell, so the path is never parsed
  // as shell text.
  return path == nullptr ? -1 : chmod(path, 0777);
}

bool RemoveDir(const char* path) {
  if (path == nullptr) return false;
  DIR* dir = opendir(path);
  if (dir == nullptr) return false;
  while (dirent* entry = readdir(dir)) {
    if (IsDotOrDotDot(entry->d_name)) continue;
    size_t length = strlen(path) + strlen(entry->d_name) + 2;
    char* full = static_cast<char*>(malloc(length));
    if (full == nullptr) {
      closedir(dir);
      return false;
    }
    snprintf(full, length, "%s/%s", path, entry->d_name);
    struct stat st;
    bool isDir = stat(full, &st) == 0 && S_ISDIR(st.st_mode);
    if (!isDir) {
      int rc = unlink(full);
      free(full);
      if (rc != 0) {
        closedir(dir);
        return false;
      }
      continue;
    }
    bool removed = RemoveDir(full);
    free(full);
    if (removed) {
      // One sub-directory per call: the rest stays for a later call.
      closedir(dir);
      return true;
    }
  }
  closedir(dir);
  return rmdir(path) == 0;
}

void DeleteFileOrDir(const char* path) {
  if (path == nullptr || *path == '\0') return;
  struct stat st;
  if (stat(path, &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    RemoveDir(path);
  } else {
    unlink(path);
  }
}

int RemoveUndeletedDir(const char* path) {
  if (path == nullptr || strchr(path, '/') == nullptr) return 0;
  char parent[1024];
  snprintf(parent, sizeof(parent), "%s", path);
  size_t length = strlen(parent);
  while (length > 0 && parent[length - 1] == '/') parent[--length] = '\0';
  char* cut = strrchr(parent, '/');
  if (cut == nullptr) return 1;
  *cut = '\0';

  _SYSTEMTIME now{};
  GetSystemTime(&now);
  DIR* dir = opendir(parent);
  if (dir == nullptr) return 1;
  while (dirent* entry = readdir(dir)) {
    if (IsDotOrDotDot(entry->d_name)) continue;
    char full[2048];
    snprintf(full, sizeof(full), "%s/%s", parent, entry->d_name);
    struct stat st;
    if (stat(full, &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    if (st.st_mtime == 0) break;
    _SYSTEMTIME then{};
    ConvertTimeToSystemTime(then, static_cast<long>(st.st_mtime));
    bool old = now.wYear > then.wYear || (now.wYear == then.wYear && now.wMonth > then.wMonth) ||
               (now.wYear == then.wYear && now.wMonth == then.wMonth && now.wDay - then.wDay >= 2);
    if (old) RemoveDir(full);
  }
  closedir(dir);
  return 1;
}
