// A fresh folder under /tmp for one test, removed with its contents at the end.
#pragma once

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace qs_test {

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/qs_test_XXXXXX";
    char* made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "";
  }
  ~TempDir() {
    if (!path_.empty()) {
      nftw(path_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 16,
           FTW_DEPTH | FTW_PHYS);
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` inside the folder.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool PathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

inline bool IsFolder(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace qs_test
