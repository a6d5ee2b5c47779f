// Change notices for folders, from one inotify descriptor that is read
// without waiting.
//
// A folder is watched only where a notice is certain to arrive for every
// change made to a file directly in it: its path must be absolute and free of
// symbolic links (a re-pointed link would silently leave the watch on the old
// folder), and its file system must be a local one whose changes all pass
// through this kernel (network and user-space file systems do not report
// changes made elsewhere). Renaming a folder above a watched one is not
// reported; the work folders this serves are not renamed under a running
// service.
//
// Not thread-safe: the owner serialises calls.
#pragma once

#include <functional>
#include <map>
#include <string>

class FolderWatch {
 public:
  FolderWatch() = default;
  ~FolderWatch();
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Starts watching `folder` (no trailing "/"), or finds the watch already
  // made; its id, or -1 when the folder cannot be watched (see above, or no
  // inotify descriptor or watch could be had). A refusal is final until
  // Abandon.
  int Watch(const std::string& folder);

  // What Drain reports.
  struct Notices {
    // A file named `name` in the folder of watch `id` changed, appeared or
    // went away.
    std::function<void(int id, const std::string& folder, const char* name)> fileChanged;
    // The watch `id` ended (its folder was removed, moved or unmounted):
    // nothing cached under it can be trusted any more.
    std::function<void(int id)> watchEnded;
    // Notices were lost: nothing watched can be trusted.
    std::function<void()> overflowed;
  };
  // Reads every notice that has arrived, without waiting: one read when
  // nothing has. Each is reported through `notices`.
  void Drain(const Notices& notices);

  // Forgets every watch and the descriptor. A forked child calls this: the
  // descriptor it inherited shares its queue with the parent's.
  void Abandon();

 private:
  void Forget(int id);

  int m_fd = -1;
  std::map<std::string, int> m_idOfFolder;  // -1 for a folder that is not watched
  std::map<int, std::string> m_folderOfId;
};
