#include "ini/profile.h"

#include <cstring>
#include <ctime>
#include <sstream>
#include <string_view>

#include "ini/profile_cache.h"
#include "platform/regular_file.h"
#include "util/win_string.h"

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

}  // namespace

// ---- ProfileCache -------------------------------------------------------------

ProfileCache& ProfileCache::Instance() {
  static ProfileCache* cache = new ProfileCache;  // lives until the process ends
  return *cache;
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

std::shared_ptr<const CIniFileA> ProfileCache::Get(const char* fileName) {
  struct stat st;
  if (stat(fileName, &st) != 0) {
    Invalidate(fileName);
    return EmptyDocument();
  }
  const Stamp stamp = StampOf(st);

  std::lock_guard<std::mutex> hold(m_mutex);
  auto found = m_entries.find(std::string_view(fileName));
  if (found != m_entries.end() && found->second.stamp == stamp) {
    Entry& entry = found->second;
    if (entry.readAtNs - entry.stamp.mtimeNs >= kRacyWindowNs) {
      ++m_stats.hits;
      return entry.document;
    }
    // Racily clean: the file may have changed within the same clock tick.
    const long long readAt = WallClockNs();
    std::string bytes;
    if (NarrowIniTraits::ReadFile(fileName, &bytes) && bytes == entry.bytes) {
      entry.readAtNs = readAt;
      ++m_stats.racyRereads;
      return entry.document;
    }
  }

  Entry entry;
  entry.stamp = stamp;
  entry.readAtNs = WallClockNs();
  if (!NarrowIniTraits::ReadFile(fileName, &entry.bytes)) {
    if (found != m_entries.end()) m_entries.erase(found);
    return EmptyDocument();
  }
  entry.document = Parse(entry.bytes);
  ++m_stats.parses;
  std::shared_ptr<const CIniFileA> document = entry.document;
  if (found != m_entries.end()) {
    found->second = std::move(entry);
  } else {
    m_entries.emplace(fileName, std::move(entry));
  }
  return document;
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

ProfileCache::Stats ProfileCache::GetStats() {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_stats;
}

// ---- Profile strings ------------------------------------------------------------

unsigned int GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue, char* buffer,
                                      unsigned int size, const char* fileName) {
  std::shared_ptr<const CIniFileA> document =
      fileName != nullptr ? ProfileCache::Instance().Get(fileName) : EmptyDocument();
  const std::string value =
      document->GetKeyValue(section != nullptr ? section : "", key != nullptr ? key : "",
                            defaultValue != nullptr ? defaultValue : "");
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
