// The parsed-document cache behind the profile-string functions.
//
// A document is re-used only while a stat of its file matches what was seen
// when it was read: device, inode, size, and modification and change times in
// nanoseconds. File timestamps are coarse (a write within the same clock tick
// leaves them unchanged), so an entry whose modification time lies within
// kRacyWindowNs of the moment it was read is "racily clean": it is re-read and
// compared byte for byte on every use until that moment is older than the
// window. Documents are immutable once published, so any number of threads may
// read them at once.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>

#include "ini/ini_file.h"

class ProfileCache {
 public:
  static constexpr long long kRacyWindowNs = 1000000000LL;

  static ProfileCache& Instance();

  // The file's current document; an empty one when it cannot be read.
  std::shared_ptr<const CIniFileA> Get(const char* fileName);
  // Forgets the file (after this process wrote it).
  void Invalidate(const char* fileName);
  void Clear();

  // Counters for tests and benchmarks.
  struct Stats {
    unsigned long long hits = 0;          // re-used without reading
    unsigned long long racyRereads = 0;   // read again and found unchanged
    unsigned long long parses = 0;        // parsed anew
  };
  Stats GetStats();

 private:
  struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long mtimeNs = 0;
    long long ctimeNs = 0;
    bool operator==(const Stamp& o) const {
      return device == o.device && inode == o.inode && size == o.size && mtimeNs == o.mtimeNs &&
             ctimeNs == o.ctimeNs;
    }
  };
  struct Entry {
    Stamp stamp;
    long long readAtNs = 0;  // wall clock just before the bytes were read
    std::string bytes;
    std::shared_ptr<const CIniFileA> document;
  };

  static Stamp StampOf(const struct stat& st);

  std::mutex m_mutex;
  // Looked up by the caller's text without building a string each time.
  std::map<std::string, Entry, std::less<>> m_entries;
  Stats m_stats;
};
