// Whole-file reads and rewrites of settings files that never block and never
// throw, whatever stands at the path.
//
// A settings path may name something other than a regular file: a folder made
// by mistake, a FIFO, a device, a file without permission, a symbolic link to
// nothing. These functions treat every such path as a file that is not there
// (reads) or cannot be written (writes): they open without blocking (a FIFO
// with no writer is never waited on), check that what was opened is a regular
// file, and report failure otherwise.
//
// A rewrite changes the file from its old text to its new text in one step,
// or not at all: the new text goes to a temporary file beside it, which is
// flushed to the disk, renamed over the old name, and the folder flushed. A
// reader, in this process or another, sees the old text or the new, never a
// mix, a cut or an empty file; a kill at any instant leaves the old or the new
// file and at most one leftover temporary (".<name>.tmp"), which the next
// rewrite of that file clears. The file keeps its permission bits, and its
// owner and group where this process may set them. A path that is a symbolic
// link stays a link: the file it leads to is replaced.
#pragma once

#include <sys/stat.h>

#include <string>

// Reads the whole regular file at `path` into `bytes`. False, with `bytes`
// empty, when the path does not name a regular file this process can read.
// With `seen`, what fstat said of the file once it had been read.
bool ReadRegularFile(const char* path, std::string* bytes, struct stat* seen = nullptr);

// Replaces the contents of the regular file at `path` with `bytes`, creating
// the file when nothing is there (see RegularFileUpdate). False, with errno
// set and the file unchanged, when it could not be done.
bool ReplaceRegularFile(const char* path, const std::string& bytes);

// One read-modify-rewrite of a settings file, exclusive among every thread and
// process that updates the file this way: the file is locked (flock) from the
// moment it is opened until the object goes. Where nothing stands at the path
// yet, its folder is locked instead until the new file is in place.
class RegularFileUpdate {
 public:
  explicit RegularFileUpdate(const char* path);
  ~RegularFileUpdate();
  RegularFileUpdate(const RegularFileUpdate&) = delete;
  RegularFileUpdate& operator=(const RegularFileUpdate&) = delete;

  // 0 when the file may be updated; otherwise the error number of what stands
  // in the way, and Read and Replace change nothing: ENOENT (its folder, or
  // the target of its link, does not exist), EISDIR (a folder), EINVAL
  // (a FIFO, a device or another non-regular file), EACCES (the file is
  // read-only: not writable by this process, or without any write bit).
  int Error() const { return m_error; }
  // The file's current text: empty for a file that does not exist yet.
  // 0 or the error number.
  int Read(std::string* bytes);
  // Puts `bytes` in place of the file, once. 0, or the error number with the
  // old file unchanged and no temporary left. A failure to flush the folder
  // after the rename is not reported: the new text is in place by then.
  int Replace(const std::string& bytes);

 private:
  int Lock(const char* path);

  int m_error = 0;
  int m_fd = -1;          // the locked file, or its folder while it is created
  bool m_creating = false;
  struct stat m_stat {};  // the locked file's
  std::string m_target;   // the file's path, links resolved
};
