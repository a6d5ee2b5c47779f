#include "platform/regular_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

// Opens with O_NONBLOCK so that a FIFO or device is never waited on, then
// keeps the descriptor only when it refers to a regular file (for those the
// flag changes nothing).
int OpenRegular(const char* path, int flags) {
  if (path == nullptr) return -1;
  const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return -1;
  }
  return fd;
}

// The whole rest of the descriptor's file; 0 or the error number.
int ReadAll(int fd, std::string* bytes) {
  char piece[16384];
  for (;;) {
    const ssize_t got = read(fd, piece, sizeof(piece));
    if (got > 0) {
      bytes->append(piece, static_cast<size_t>(got));
    } else if (got == 0) {
      return 0;
    } else if (errno != EINTR) {
      return errno;
    }
  }
}

int WriteAll(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put > 0) {
      done += static_cast<size_t>(put);
    } else if (put == 0) {
      return EIO;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int LockExclusive(int fd) {
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// The folder part of a path ("." when it has none, "/" for a file in the root).
std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash == 0 ? 1 : slash);
}

// The one temporary of a file: ".<name>.tmp" beside it.
std::string TemporaryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, name) + "." + path.substr(name) + ".tmp";
}

bool SameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

}  // namespace

bool ReadRegularFile(const char* path, std::string* bytes, struct stat* seen) {
  bytes->clear();
  const int fd = OpenRegular(path, O_RDONLY);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size > 0) bytes->reserve(static_cast<size_t>(st.st_size));
  const bool complete = ReadAll(fd, bytes) == 0 && (seen == nullptr || fstat(fd, seen) == 0);
  close(fd);
  if (!complete) bytes->clear();
  return complete;
}

bool ReplaceRegularFile(const char* path, const std::string& bytes) {
  RegularFileUpdate update(path);
  const int error = update.Replace(bytes);
  if (error != 0) errno = error;
  return error == 0;
}

// ---- One update ----------------------------------------------------------------------

RegularFileUpdate::RegularFileUpdate(const char* path) {
  m_error = path == nullptr ? EINVAL : Lock(path);
}

RegularFileUpdate::~RegularFileUpdate() {
  if (m_fd >= 0) close(m_fd);  // releases the lock
}

int RegularFileUpdate::Lock(const char* path) {
  // Each round locks what the path names now, then checks that the path
  // still names it: a writer that held the lock before may have renamed a
  // new file over it (or created the file), and that one is locked instead.
  for (int round = 0; round < 1000; ++round) {
    struct stat st;
    m_target = path;
    if (lstat(path, &st) != 0) {
      if (errno != ENOENT) return errno;
      // Nothing there yet: the folder is locked until the new file is in
      // place. A folder that does not exist gets nothing.
      const int folder = open(FolderOf(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (folder < 0) return errno;
      m_fd = folder;
      if (const int error = LockExclusive(folder)) return error;
      if (lstat(path, &st) == 0 || errno != ENOENT) {
        close(m_fd);
        m_fd = -1;
        continue;
      }
      m_creating = true;
      return 0;
    }
    if (S_ISLNK(st.st_mode)) {
      char resolved[PATH_MAX];
      if (realpath(path, resolved) == nullptr) return errno;  // a dangling link stays as it is
      m_target = resolved;
    }
    const int fd = open(m_target.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      if (errno == ENOENT) continue;  // removed or renamed over meanwhile
      return errno;
    }
    m_fd = fd;
    if (fstat(fd, &m_stat) != 0) return errno;
    if (!S_ISREG(m_stat.st_mode)) return S_ISDIR(m_stat.st_mode) ? EISDIR : EINVAL;
    if (const int error = LockExclusive(fd)) return error;
    if (stat(path, &st) != 0 || !SameFile(st, m_stat)) {
      close(m_fd);
      m_fd = -1;
      continue;
    }
    m_stat = st;
    // A read-only file is not replaced behind its owner's back, not even by
    // a process that could write it anyway (root).
    if ((m_stat.st_mode & 0222) == 0 || access(m_target.c_str(), W_OK) != 0) return EACCES;
    return 0;
  }
  return EAGAIN;
}

int RegularFileUpdate::Read(std::string* bytes) {
  bytes->clear();
  if (m_error != 0) return m_error;
  if (m_creating) return 0;
  if (lseek(m_fd, 0, SEEK_SET) != 0) return errno;
  const int error = ReadAll(m_fd, bytes);
  if (error != 0) bytes->clear();
  return error;
}

int RegularFileUpdate::Replace(const std::string& bytes) {
  if (m_error != 0) return m_error;
  // After the rename the lock is held on the file that went: a second
  // replace would not be exclusive any more.
  m_error = EALREADY;
  const std::string temporary = TemporaryOf(m_target);
  unlink(temporary.c_str());  // what a writer killed midway left
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return errno;
  int error = 0;
  if (!m_creating) {
    // Owner and group where this process may set them (else the group
    // alone, else the writer's), then the permission bits.
    if (fchown(fd, m_stat.st_uid, m_stat.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), m_stat.st_gid) != 0) {
      errno = 0;
    }
    if (fchmod(fd, m_stat.st_mode & 07777) != 0) error = errno;
  }
  if (error == 0) error = WriteAll(fd, bytes);
  if (error == 0 && fsync(fd) != 0) error = errno;
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(temporary.c_str(), m_target.c_str()) != 0) error = errno;
  if (error != 0) {
    unlink(temporary.c_str());
    return error;
  }
  // The rename reaches the disk with the folder.
  const int folder = m_creating ? -1 : open(FolderOf(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  fsync(m_creating ? m_fd : folder);
  if (folder >= 0) close(folder);
  return 0;
}
