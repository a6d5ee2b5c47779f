#include "FVASManager/MiniUnzip.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>
#include <zlib.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/file.h"
#include "platform/format.h"

CZLIB::CZLIB() : m_zlibVersion(zlibVersion()) {}

CMiniUnzip::CMiniUnzip() { memset(m_message, 0, sizeof(m_message)); }

void CMiniUnzip::lprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(m_message, sizeof(m_message), format, args);
  va_end(args);
}

int CMiniUnzip::mymkdir(const char* path) { return mkdir(path, 0775); }

int CMiniUnzip::makedir(const char* path) {
  if (path == nullptr || *path == '\0') return 0;
  const size_t length = strlen(path);
  char* buffer = static_cast<char*>(malloc(length + 1));
  if (buffer == nullptr) {
    lprintf("Error allocating memory");
    return UNZ_INTERNALERROR;
  }
  memcpy(buffer, path, length + 1);
  if (buffer[length - 1] == '/') buffer[length - 1] = '\0';
  if (mymkdir(buffer) == 0) {
    free(buffer);
    return 1;
  }
  char* p = buffer + 1;
  for (;;) {
    while (*p != '\0' && *p != '\\' && *p != '/') ++p;
    const char hold = *p;
    *p = '\0';
    // Existing folders are passed over; only "path not found" stops.
    if (mymkdir(buffer) == -1 && GetLastError() == 3) {
      lprintf("Couldn't create directory %s", buffer);
      free(buffer);
      return 0;
    }
    if (hold == '\0') break;
    *p++ = hold;
  }
  free(buffer);
  return 1;
}

int CMiniUnzip::change_file_date(const char* path, uLong, tm_unz date) {
  struct tm local;
  memset(&local, 0, sizeof(local));
  local.tm_sec = static_cast<int>(date.tm_sec);
  local.tm_min = static_cast<int>(date.tm_min);
  local.tm_hour = static_cast<int>(date.tm_hour);
  local.tm_mday = static_cast<int>(date.tm_mday);
  local.tm_mon = static_cast<int>(date.tm_mon);
  local.tm_year = static_cast<int>(date.tm_year > 1900 ? date.tm_year - 1900 : date.tm_year);
  local.tm_isdst = -1;
  const time_t when = mktime(&local);
  utimbuf times{when, when};
  return utime(path, &times);
}

int CMiniUnzip::do_extract_currentfile(unzFile archive, const int* withoutPath, int*, const char* password) {
  char nameInZip[kNameBufferSize];
  unz_file_info64 info;
  int err = unzGetCurrentFileInfo64(archive, &info, nameInZip, sizeof(nameInZip), nullptr, 0, nullptr, 0);
  if (err != UNZ_OK) {
    lprintf("Error %d with zipfile in GetCurrentFileInfo\r\n", err);
    return err;
  }
  void* buffer = malloc(kReadBufferSize);
  if (buffer == nullptr) {
    lprintf("Error allocating memory\r\n");
    return UNZ_INTERNALERROR;
  }

  char* nameWithoutPath = nameInZip;
  for (char* p = nameInZip; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') nameWithoutPath = p + 1;
  }

  if (*nameWithoutPath == '\0') {
    if (*withoutPath == 0) {
      lprintf("Creating directory: %s\r\n", nameInZip);
      mymkdir(nameInZip);
    }
    free(buffer);
    return err;
  }

  const char* writeName = *withoutPath == 0 ? nameInZip : nameWithoutPath;
  err = unzOpenCurrentFilePassword(archive, password);
  if (err != UNZ_OK) lprintf("Error %d with zipfile in OpenCurrentFilePassword\r\n", err);

  FILE* out = nullptr;
  if (err == UNZ_OK) {
    const unsigned int access = GENERIC_READ | GENERIC_WRITE;
    out = QSCreateFile(writeName, access, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (out == nullptr && *withoutPath == 0 && nameWithoutPath != nameInZip) {
      // Make the entry's folders and try once more.
      const char separator = nameWithoutPath[-1];
      nameWithoutPath[-1] = '\0';
      makedir(writeName);
      nameWithoutPath[-1] = separator;
      out = QSCreateFile(writeName, access, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    if (out == nullptr) lprintf("Error opening %s\r\n", writeName);
  }

  if (out != nullptr) {
    lprintf(" extracting: %s\r\n", writeName);
    do {
      err = unzReadCurrentFile(archive, buffer, kReadBufferSize);
      if (err < 0) {
        lprintf("Error %d with zipfile in ReadCurrentFile\r\n", err);
        break;
      }
      if (err > 0) {
        unsigned int written = 0;
        if (!WriteFile(out, buffer, static_cast<unsigned int>(err), &written, nullptr)) {
          lprintf("Error in writing extracted file\r\n");
          err = UNZ_ERRNO;
          break;
        }
      }
    } while (err > 0);
    QSCloseFile(out);
    if (err == 0) change_file_date(writeName, info.dosDate, info.tmu_date);
  }

  if (err == UNZ_OK) {
    err = unzCloseCurrentFile(archive);
    if (err != UNZ_OK) lprintf("Error %d with zipfile in CloseCurrentFile\r\n", err);
  } else {
    unzCloseCurrentFile(archive);
  }
  free(buffer);
  return err;
}

int CMiniUnzip::do_extract(unzFile archive, int withoutPath, int overwrite, const char* password) {
  unz_global_info64 global;
  ZPOS64_T count = 0;
  int err = unzGetGlobalInfo64(archive, &global);
  if (err != UNZ_OK) {
    lprintf("Error %d with zipfile in GetGlobalInfo \r\n", err);
  } else {
    count = global.number_entry;
  }
  for (ZPOS64_T i = 0; i < count; ++i) {
    int status = do_extract_currentfile(archive, &withoutPath, &overwrite, password);
    if (status != UNZ_OK) return status;
    if (i + 1 < count) {
      status = unzGoToNextFile(archive);
      if (status != UNZ_OK) {
        lprintf("Error %d with zipfile in GoToNextFile\r\n", status);
        return status;
      }
    }
  }
  return err;
}

int CMiniUnzip::do_extract_onefile(unzFile archive, const char* name, int withoutPath, int overwrite,
                                   const char* password) {
  if (unzLocateFile(archive, name, 0) != UNZ_OK) {
    lprintf("File %s not found in the zipfile\r\n", name);
    return 2;
  }
  return do_extract_currentfile(archive, &withoutPath, &overwrite, password) == UNZ_OK ? 0 : 1;
}

bool CMiniUnzip::unzip(const char* zipPath, const char* folder) {
  if (zipPath == nullptr || folder == nullptr) return false;
  char name[kNameBufferSize - 1 + 16];
  memset(name, 0, sizeof(name));
  strncpy(name, zipPath, kNameBufferSize - 1);

  zlib_filefunc64_def fileFunctions;
  fill_fopen64_filefunc(&fileFunctions);
  unzFile archive = unzOpen2_64(name, &fileFunctions);
  if (archive == nullptr) {
    strcat(name, ".zip");
    archive = unzOpen2_64(name, &fileFunctions);
  }
  if (archive == nullptr) {
    lprintf("Cannot open %s or %s.zip", zipPath, zipPath);
    return false;
  }
  if (chdir(folder) != 0) {
    unzClose(archive);
    lprintf("Error changing into %s", folder);
    return false;
  }
  int status = do_extract(archive, 0, 1, nullptr);
  unzClose(archive);
  return status == 0;
}

// ---- Listing and usage ----------------------------------------------------------

void CMiniUnzip::Display64BitsSize(ZPOS64_T value, int width) {
  char digits[32];
  int length = snprintf(digits, sizeof(digits), "%llu", static_cast<unsigned long long>(value));
  for (int i = length; i < width; ++i) putchar(' ');
  fputs(digits, stdout);
}

int CMiniUnzip::do_list(unzFile archive) {
  unz_global_info64 global;
  int err = unzGetGlobalInfo64(archive, &global);
  if (err != UNZ_OK) {
    lprintf("Error %d with zipfile in GetGlobalInfo \r\n", err);
    return err;
  }
  printf("  Length  Method     Size Ratio   Date    Time   CRC-32     Name\r\n");
  printf("  ------  ------     ---- -----   ----    ----   ------     ----\r\n");
  for (ZPOS64_T i = 0; i < global.number_entry; ++i) {
    char name[kNameBufferSize];
    unz_file_info64 info;
    err = unzGetCurrentFileInfo64(archive, &info, name, sizeof(name), nullptr, 0, nullptr, 0);
    if (err != UNZ_OK) {
      lprintf("Error %d with zipfile in GetCurrentFileInfo\r\n", err);
      return err;
    }
    const unsigned long ratio =
        info.uncompressed_size > 0 ? static_cast<unsigned long>((info.compressed_size * 100) / info.uncompressed_size)
                                   : 0;
    const char* method = info.compression_method == 0 ? "Stored" : info.compression_method == Z_DEFLATED ? "Defl:N"
                                                                                                         : "Unkn. ";
    Display64BitsSize(info.uncompressed_size, 7);
    printf("  %6s%c", method, (info.flag & 1) ? '*' : ' ');
    Display64BitsSize(info.compressed_size, 7);
    printf(" %3lu%%  %2.2lu-%2.2lu-%2.2lu  %2.2lu:%2.2lu  %8.8lx   %s\r\n", ratio,
           static_cast<unsigned long>(info.tmu_date.tm_mon) + 1, static_cast<unsigned long>(info.tmu_date.tm_mday),
           static_cast<unsigned long>(info.tmu_date.tm_year) % 100, static_cast<unsigned long>(info.tmu_date.tm_hour),
           static_cast<unsigned long>(info.tmu_date.tm_min), static_cast<unsigned long>(info.crc), name);
    if (i + 1 < global.number_entry) {
      err = unzGoToNextFile(archive);
      if (err != UNZ_OK) {
        lprintf("Error %d with zipfile in GoToNextFile\r\n", err);
        return err;
      }
    }
  }
  return 0;
}

void CMiniUnzip::do_help() {
  printf("Usage : miniunz [-e] [-x] [-v] [-l] [-o] [-p password] file.zip [file_to_extr.] [-d extractdir]\n\n");
}

void CMiniUnzip::do_banner() { printf("ZIP extraction driver on zlib %s\n", m_zlibVersion); }
