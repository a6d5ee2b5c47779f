#include "host/journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace qs_host {

namespace {

// JOURNAL_STREAM is "device:inode" of the stream the journal reads.
bool StderrIsTheJournal() {
  const char* stream = getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  unsigned long long device = 0, inode = 0;
  if (sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
  struct stat st;
  return fstat(STDERR_FILENO, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

}  // namespace

void Say(Priority priority, const std::string& line) {
  static const bool journal = StderrIsTheJournal();
  static std::mutex lock;
  std::lock_guard<std::mutex> hold(lock);
  if (journal) fprintf(stderr, "<%d>", static_cast<int>(priority));
  fprintf(stderr, "%s\n", line.c_str());
  fflush(stderr);
}

}  // namespace qs_host
