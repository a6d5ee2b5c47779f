// A fresh folder under /tmp for one test, removed with its contents at the end,
// and the small file helpers the tests share.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace qs_test {

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/qs_test_XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
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

inline bool PathExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

inline bool IsFolder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(path, ignored);
}

// How many descriptors this process holds open.
inline long OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

}  // namespace qs_test
