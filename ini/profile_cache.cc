#include "ini/profile_cache.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <sstream>
#include <string_view>

#include "platform/regular_file.h"

namespace {

long long WallClockNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

std::shared_ptr<const CIniFileA> Parse(const std::string& bytes) {
  auto document = std::make_shared<CIniFileA>();
  std::istringstream input(bytes);
  document->Load(input, false);
  return document;
}

const std::shared_ptr<const CIniFileA>& EmptyDocument() {
  static const std::shared_ptr<const CIniFileA> empty = std::make_shared<CIniFileA>();
  return empty;
}

// The folder part of a path, without its trailing "/"; "" when there is none
// (a relative name, which is never watched).
std::string FolderOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return std::string();
  return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

}  // namespace

ProfileCache& ProfileCache::Instance() {
  static ProfileCache* cache = new ProfileCache;  // lives until the process ends
  return *cache;
}

ProfileCache::ProfileCache() {
  m_notices.fileChanged = [this](int, const std::string& folder, const char* name) {
    const std::string path = folder == "/" ? "/" + std::string(name) : folder + "/" + name;
    auto found = m_entries.find(path);
    if (found != m_entries.end()) m_entries.erase(found);
  };
  m_notices.watchEnded = [this](int id) {
    for (auto it = m_entries.begin(); it != m_entries.end();) {
      it = it->second.watchId == id ? m_entries.erase(it) : std::next(it);
    }
  };
  m_notices.overflowed = [this] {
    for (auto it = m_entries.begin(); it != m_entries.end();) {
      it = it->second.watchId >= 0 ? m_entries.erase(it) : std::next(it);
    }
  };
  pthread_atfork(&ProfileCache::BeforeFork, &ProfileCache::AfterForkInParent, &ProfileCache::AfterForkInChild);
}

void ProfileCache::BeforeFork() { Instance().m_mutex.lock(); }

void ProfileCache::AfterForkInParent() { Instance().m_mutex.unlock(); }

void ProfileCache::AfterForkInChild() {
  // The inherited notice descriptor shares its queue with the parent's: a
  // read here would take notices the parent needs. The child starts afresh.
  ProfileCache& cache = Instance();
  cache.m_watch.Abandon();
  cache.m_entries.clear();
  cache.m_mutex.unlock();
}

ProfileCache::Stamp ProfileCache::StampOf(const struct stat& st) {
  Stamp stamp;
  stamp.device = st.st_dev;
  stamp.inode = st.st_ino;
  stamp.size = st.st_size;
  stamp.mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  stamp.ctimeNs = static_cast<long long>(st.st_ctim.tv_sec) * 1000000000LL + st.st_ctim.tv_nsec;
  return stamp;
}

void ProfileCache::DrainNotices() { m_watch.Drain(m_notices); }

std::shared_ptr<const CIniFileA> ProfileCache::Get(const char* fileName) {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_watching) {
      if (Entry* entry = WatchedEntry(fileName)) return entry->document;
    }
  }
  return GetStamped(fileName);
}

std::string ProfileCache::Lookup(const char* fileName, const char* section, const char* key,
                                 const char* defaultValue) {
  {
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_watching) {
      if (Entry* entry = WatchedEntry(fileName)) return LookupIn(*entry, section, key, defaultValue);
    }
  }
  return GetStamped(fileName)->GetKeyValue(section, key, defaultValue);
}

std::string ProfileCache::LookupIn(Entry& entry, const char* section, const char* key, const char* defaultValue) {
  for (const Remembered& lookup : entry.remembered) {
    if (lookup.used && lookup.section == section && lookup.key == key) {
      return lookup.found ? lookup.value : std::string(defaultValue);
    }
  }
  const CIniFileA::CIniSectionA* found = entry.document->GetSection(section);
  const CIniFileA::CIniSectionA::CIniKeyA* value = found != nullptr ? found->GetKey(key) : nullptr;
  Remembered& lookup = entry.remembered[entry.nextRemembered++ % 4];
  lookup.used = true;
  lookup.section = section;
  lookup.key = key;
  lookup.found = value != nullptr;
  lookup.value = value != nullptr ? value->GetValue() : std::string();
  return value != nullptr ? value->GetValue() : std::string(defaultValue);
}

ProfileCache::Entry* ProfileCache::WatchedEntry(const char* fileName) {
  DrainNotices();
  auto found = m_entries.find(std::string_view(fileName));
  if (found != m_entries.end() && found->second.watchId >= 0) {
    ++m_stats.hits;
    ++m_stats.watchedHits;
    return &found->second;
  }
  const int watchId = m_watch.Watch(FolderOf(fileName));
  if (watchId < 0) return nullptr;
  // The folder is watched before the file is read, so any change after this
  // read leaves a notice that drops the entry. A read is kept only when no
  // notice of its file arrived while it ran (one that did may have met the
  // file half-written); it is tried again a few times, then handed to the
  // caller alone. Nothing at all at the path is kept as the empty document
  // it reads as: whatever appears there later leaves a notice in the folder.
  // Anything else that cannot be read (a folder, a FIFO, a link to nothing
  // whose target may appear elsewhere...) reads as empty and is never kept.
  m_unkept = Entry();
  m_unkept.document = EmptyDocument();
  const std::string path(fileName);
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    std::string bytes;
    struct stat st;
    if (!ReadRegularFile(fileName, &bytes) && (lstat(fileName, &st) == 0 || errno != ENOENT)) return &m_unkept;
    Entry entry;
    entry.watchId = watchId;
    entry.document = Parse(bytes);
    ++m_stats.parses;
    m_unkept.document = entry.document;
    m_entries.insert_or_assign(path, std::move(entry));
    DrainNotices();
    found = m_entries.find(path);
    if (found != m_entries.end()) return &found->second;
  }
  return &m_unkept;
}

std::shared_ptr<const CIniFileA> ProfileCache::GetStamped(const char* fileName) {
  // A read is kept only when the file it read still carries the stamp taken
  // before it; otherwise it is tried again, then handed to the caller alone.
  std::shared_ptr<const CIniFileA> unkept = EmptyDocument();
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    struct stat st;
    if (stat(fileName, &st) != 0) {
      Invalidate(fileName);
      return EmptyDocument();
    }
    const Stamp stamp = StampOf(st);

    std::lock_guard<std::mutex> hold(m_mutex);
    auto found = m_entries.find(std::string_view(fileName));
    if (found != m_entries.end() && found->second.watchId < 0 && found->second.stamp == stamp) {
      Entry& entry = found->second;
      if (entry.readAtNs - entry.stamp.mtimeNs >= kRacyWindowNs) {
        ++m_stats.hits;
        return entry.document;
      }
      // Racily clean: the file may have changed within the same clock tick.
      const long long readAt = WallClockNs();
      std::string bytes;
      if (ReadRegularFile(fileName, &bytes) && bytes == entry.bytes) {
        entry.readAtNs = readAt;
        ++m_stats.racyRereads;
        return entry.document;
      }
    }
    if (found != m_entries.end()) m_entries.erase(found);

    Entry entry;
    entry.stamp = stamp;
    entry.readAtNs = WallClockNs();
    struct stat seen;
    if (!ReadRegularFile(fileName, &entry.bytes, &seen)) return EmptyDocument();
    entry.document = Parse(entry.bytes);
    ++m_stats.parses;
    if (!(StampOf(seen) == stamp)) {
      unkept = entry.document;
      continue;
    }
    std::shared_ptr<const CIniFileA> document = entry.document;
    m_entries.emplace(fileName, std::move(entry));
    return document;
  }
  return unkept;
}

void ProfileCache::Invalidate(const char* fileName) {
  std::lock_guard<std::mutex> hold(m_mutex);
  auto found = m_entries.find(std::string_view(fileName));
  if (found != m_entries.end()) m_entries.erase(found);
}

void ProfileCache::Clear() {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_entries.clear();
}

void ProfileCache::SetWatching(bool on) {
  std::lock_guard<std::mutex> hold(m_mutex);
  m_watching = on;
  m_entries.clear();
  if (!on) m_watch.Abandon();
}

bool ProfileCache::Watching() {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_watching;
}

ProfileCache::Stats ProfileCache::GetStats() {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_stats;
}
