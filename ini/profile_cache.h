// The parsed-document cache behind the profile-string functions.
//
// A cached document is used only while nothing can have changed its file
// since it was read. Two ways of knowing that:
//
//  - Watched (the default where it works): the file's folder is watched for
//    change notices (folder_watch.h) before the file is read. Any write,
//    attribute change, rename, creation or removal of the file drops its
//    document, as does a lost notice or the end of the folder's watch. An
//    unchanged file then costs one read of the notice descriptor that finds
//    nothing, shared by every file watched.
//  - Stamped (where the folder cannot be watched, or with watching off): a
//    stat of the file must match what was seen when it was read: device,
//    inode, size, and modification and change times in nanoseconds. File
//    timestamps are coarse (a write within the same clock tick leaves them
//    unchanged), so an entry whose modification time lies within
//    kRacyWindowNs of the moment it was read is "racily clean": it is re-read
//    and compared byte for byte on every use until that moment is older than
//    the window.
//
// Either way, a read is kept only when the file did not change while it ran
// (a read that may have met a half-written file is tried again), and a read
// that found no readable file (a folder, a FIFO, a link to nothing...) reads
// as empty and is never kept; only a watched folder keeps "nothing at this
// path" (whatever appears there leaves a notice). The very next read after a
// change sees it. Documents are
// immutable once published, so any number of threads may read them at once.
// A forked child starts with an empty cache of its own.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>

#include "ini/folder_watch.h"
#include "ini/ini_file.h"

class ProfileCache {
 public:
  static constexpr long long kRacyWindowNs = 1000000000LL;
  // Reads of a file that changes while they run, before one is handed out
  // without being kept.
  static constexpr int kReadAttempts = 3;

  static ProfileCache& Instance();

  // The file's current document; an empty one when it cannot be read.
  std::shared_ptr<const CIniFileA> Get(const char* fileName);
  // GetKeyValue(section, key, defaultValue) of the file's current document.
  // A watched file remembers its last few lookups, so a repeated one (the
  // log level of every log call) costs no search.
  std::string Lookup(const char* fileName, const char* section, const char* key, const char* defaultValue);
  // Forgets the file (after this process wrote it).
  void Invalidate(const char* fileName);
  void Clear();
  // Watching on (the default) or off; switching forgets everything.
  void SetWatching(bool on);
  bool Watching();

  // Counters for tests and benchmarks.
  struct Stats {
    unsigned long long hits = 0;          // re-used without reading
    unsigned long long racyRereads = 0;   // read again and found unchanged
    unsigned long long parses = 0;        // parsed anew
    unsigned long long watchedHits = 0;   // of the hits, those a watch vouched for
  };
  Stats GetStats();

 private:
  ProfileCache();

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
  // One lookup of a watched document and what it found.
  struct Remembered {
    std::string section, key, value;
    bool used = false;
    bool found = false;
  };
  struct Entry {
    int watchId = -1;    // the folder's watch, or -1 for a stamped entry
    Stamp stamp;         // stamped entries only
    long long readAtNs = 0;  // wall clock just before the bytes were read
    std::string bytes;       // stamped entries only: kept for the racy check
    std::shared_ptr<const CIniFileA> document;
    Remembered remembered[4];  // watched entries only, replaced in turn
    unsigned nextRemembered = 0;
  };

  static Stamp StampOf(const struct stat& st);
  // With the mutex held and watching on: the watched entry of the file, made
  // now if need be; null when the file's folder cannot be watched.
  Entry* WatchedEntry(const char* fileName);
  static std::string LookupIn(Entry& entry, const char* section, const char* key, const char* defaultValue);
  std::shared_ptr<const CIniFileA> GetStamped(const char* fileName);
  void DrainNotices();
  // Runs around fork(): the child gets a consistent, empty cache and no watch.
  static void BeforeFork();
  static void AfterForkInParent();
  static void AfterForkInChild();

  std::mutex m_mutex;
  bool m_watching = true;
  FolderWatch m_watch;
  FolderWatch::Notices m_notices;
  // Looked up by the caller's text without building a string each time.
  std::map<std::string, Entry, std::less<>> m_entries;
  Stats m_stats;
  Entry m_unkept;  // what WatchedEntry hands out without keeping it
};
