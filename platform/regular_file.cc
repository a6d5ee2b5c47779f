#include "platform/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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

}  // namespace

bool ReadRegularFile(const char* path, std::string* bytes) {
  bytes->clear();
  const int fd = OpenRegular(path, O_RDONLY);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size > 0) bytes->reserve(static_cast<size_t>(st.st_size));
  char piece[16384];
  bool complete = true;
  for (;;) {
    const ssize_t got = read(fd, piece, sizeof(piece));
    if (got > 0) {
      bytes->append(piece, static_cast<size_t>(got));
    } else if (got == 0) {
      break;
    } else if (errno != EINTR) {
      complete = false;
      break;
    }
  }
  close(fd);
  if (!complete) bytes->clear();
  return complete;
}

bool ReplaceRegularFile(const char* path, const std::string& bytes) {
  // A FIFO opened for writing without a reader fails at once (ENXIO); one
  // with a reader is refused by the regular-file check before anything is
  // written. Only a regular file is truncated.
  const int fd = OpenRegular(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (fd < 0) return false;
  size_t done = 0;
  bool complete = true;
  while (done < bytes.size()) {
    const ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put > 0) {
      done += static_cast<size_t>(put);
    } else if (put < 0 && errno == EINTR) {
      continue;
    } else {
      complete = false;
      break;
    }
  }
  if (close(fd) != 0) complete = false;
  return complete;
}

bool NothingAtPath(const char* path) {
  struct stat st;
  return path != nullptr && lstat(path, &st) != 0 && errno == ENOENT;
}
