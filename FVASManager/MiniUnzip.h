// CMiniUnzip: the ZIP extraction driver. It walks an archive with minizip's
// unzip interface and writes every entry, under its stored name, below a
// target folder.
//
// unzip() changes the process's current directory to the target folder and
// leaves it there: extraction is relative to it, so two extractions at the
// same time in one process would write into each other's folders. Stored names
// are used exactly as they stand (no check for ".." or leading separators);
// entries are written in archive order and a later entry of the same name
// overwrites an earlier one.
//
// Every message the driver writes replaces the previous one in its 1024-byte
// message buffer, so after a failure the buffer holds the last message, and
// after a successful run the last " extracting: ..." or "Creating
// directory: ..." line.
#pragma once

#include <minizip/unzip.h>

#include <ctime>

// The zlib wrapper the driver is built on: it only records the zlib version
// the module was started with.
class CZLIB {
 public:
  CZLIB();
  virtual ~CZLIB() = default;
  const char* GetZlibVersion() const { return m_zlibVersion; }

 protected:
  const char* m_zlibVersion;
};

class CMiniUnzip : public CZLIB {
 public:
  static constexpr int kReadBufferSize = 8192;
  static constexpr int kNameBufferSize = 256;
  static constexpr int kMessageSize = 1024;

  CMiniUnzip();

  // Opens `zipPath` (or, failing that, `zipPath` + ".zip"), enters `folder`
  // and extracts every entry with its path, overwriting, without password.
  // True when every entry was extracted.
  bool unzip(const char* zipPath, const char* folder);

  // minizip status (0 when every entry was extracted).
  int do_extract(unzFile archive, int withoutPath, int overwrite, const char* password);
  int do_extract_currentfile(unzFile archive, const int* withoutPath, int* overwrite, const char* password);
  // 0 extracted, 1 an extraction error, 2 "File %s not found in the zipfile".
  int do_extract_onefile(unzFile archive, const char* name, int withoutPath, int overwrite, const char* password);

  // 1 when the folders of `path` exist afterwards, 0 for an empty path or
  // when a folder cannot be made because its parent is missing.
  int makedir(const char* path);
  // mkdir with mode 0775.
  int mymkdir(const char* path);
  // Sets both times of the file to the entry's local date and time.
  int change_file_date(const char* path, uLong dosDate, tm_unz date);
  // Formats into the message buffer, replacing what was there.
  void lprintf(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // The listing and usage output (standard output).
  int do_list(unzFile archive);
  void Display64BitsSize(ZPOS64_T value, int width);
  void do_help();
  void do_banner();

  const char* GetMessage() const { return m_message; }

 private:
  char m_message[kMessageSize];
};
