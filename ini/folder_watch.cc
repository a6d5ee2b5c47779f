#include "ini/folder_watch.h"

#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

constexpr uint32_t kFileEvents =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
constexpr uint32_t kFolderEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

// Local file systems: every change to their files goes through this kernel,
// which reports it. Anything else (NFS, SMB, FUSE, 9p...) may change
// underneath without a notice.
bool ReportsEveryChange(const std::string& folder) {
  struct statfs info;
  if (statfs(folder.c_str(), &info) != 0) return false;
  switch (static_cast<unsigned long>(info.f_type)) {
    case 0xEF53UL:      // ext2, ext3, ext4
    case 0x58465342UL:  // xfs
    case 0x9123683EUL:  // btrfs
    case 0x01021994UL:  // tmpfs
    case 0x858458F6UL:  // ramfs
    case 0xF2F52010UL:  // f2fs
    case 0x794C7630UL:  // overlayfs
    case 0x2FC12FC1UL:  // zfs
    case 0x52654973UL:  // reiserfs
    case 0x3153464AUL:  // jfs
      return true;
    default:
      return false;
  }
}

bool IsCanonical(const std::string& folder) {
  if (folder.empty() || folder[0] != '/') return false;
  char resolved[PATH_MAX];
  return realpath(folder.c_str(), resolved) != nullptr && folder == resolved;
}

}  // namespace

FolderWatch::~FolderWatch() { Abandon(); }

int FolderWatch::Watch(const std::string& folder) {
  auto found = m_idOfFolder.find(folder);
  if (found != m_idOfFolder.end()) return found->second;
  // A refusal is remembered: the folder's files are then stamped instead.
  if (!IsCanonical(folder) || !ReportsEveryChange(folder)) return m_idOfFolder[folder] = -1;
  if (m_fd < 0) m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  const int id = m_fd < 0 ? -1 : inotify_add_watch(m_fd, folder.c_str(), kFileEvents | kFolderEvents | IN_ONLYDIR);
  if (id < 0) return m_idOfFolder[folder] = -1;
  // Two paths of one folder (a hard-linked name cannot exist for folders,
  // but a bind mount can) share an id; the later path wins the reverse map,
  // and both are forgotten together.
  m_idOfFolder[folder] = id;
  m_folderOfId[id] = folder;
  return id;
}

void FolderWatch::Forget(int id) {
  auto found = m_folderOfId.find(id);
  if (found == m_folderOfId.end()) return;
  for (auto it = m_idOfFolder.begin(); it != m_idOfFolder.end();) {
    it = it->second == id ? m_idOfFolder.erase(it) : std::next(it);
  }
  m_folderOfId.erase(found);
}

void FolderWatch::Drain(const Notices& notices) {
  if (m_fd < 0) return;
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    const ssize_t got = read(m_fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;  // EAGAIN: nothing (more) has arrived
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) {
        notices.overflowed();
        continue;
      }
      if (event->mask & (kFolderEvents | IN_IGNORED)) {
        notices.watchEnded(event->wd);
        if (!(event->mask & IN_IGNORED)) inotify_rm_watch(m_fd, event->wd);
        Forget(event->wd);
        continue;
      }
      auto folder = m_folderOfId.find(event->wd);
      if (event->len > 0 && folder != m_folderOfId.end()) {
        notices.fileChanged(event->wd, folder->second, event->name);
      }
    }
  }
}

void FolderWatch::Abandon() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
  m_idOfFolder.clear();
  m_folderOfId.clear();
}
