#include "host/state_folder.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qs_host {

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// What identifies an installation: the installed version and the size and
// modification time of both installed files.
std::string Stamp(const std::string& exeFolder, const std::string& moduleFile) {
  std::string stamp = ReadAll(exeFolder + kInstalledMarker);
  for (const std::string& path : {exeFolder + "qs-host", moduleFile}) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return std::string();
    stamp += " " + std::to_string(st.st_size) + ":" + std::to_string(st.st_mtim.tv_sec) + "." +
             std::to_string(st.st_mtim.tv_nsec);
  }
  return stamp;
}

bool MakeFolders(const std::string& folder, std::string* error) {
  for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1)) {
    const std::string part = folder.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      *error = "cannot make " + part + ": " + strerror(errno);
      return false;
    }
  }
  return true;
}

// Copies `from` to `to` through a temporary name, so that a qs-host already
// running from `to` keeps its old file.
bool CopyFile(const std::string& from, const std::string& to, mode_t mode, std::string* error) {
  const std::string temporary = to + ".new";
  {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!in || !out || !(out << in.rdbuf()) || !out.flush()) {
      *error = "cannot copy " + from + " to " + temporary;
      unlink(temporary.c_str());
      return false;
    }
  }
  if (chmod(temporary.c_str(), mode) != 0 || rename(temporary.c_str(), to.c_str()) != 0) {
    *error = "cannot put " + to + " in place: " + strerror(errno);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace

std::string StateFolder() {
  const char* state = getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] == '/') return std::string(state) + "/quintaris/";
  const char* home = getenv("HOME");
  std::string homeFolder = home != nullptr && home[0] == '/' ? home : "";
  if (homeFolder.empty()) {
    const passwd* user = getpwuid(getuid());
    if (user != nullptr && user->pw_dir != nullptr) homeFolder = user->pw_dir;
  }
  return homeFolder.empty() ? std::string() : homeFolder + "/.local/state/quintaris/";
}

bool PrepareStateFolder(const std::string& exeFolder, const std::string& moduleFile, std::string* runPath,
                        std::string* error) {
  runPath->clear();
  if (access((exeFolder + kInstalledMarker).c_str(), F_OK) != 0) return true;
  const std::string state = StateFolder();
  if (state.empty()) {
    *error = "neither XDG_STATE_HOME nor a home folder is known for the user's state";
    return false;
  }
  if (!MakeFolders(state, error)) return false;
  const std::string stamp = Stamp(exeFolder, moduleFile);
  const bool current = !stamp.empty() && ReadAll(state + kCopiedMarker) == stamp &&
                       access((state + "qs-host").c_str(), X_OK) == 0 &&
                       access((state + "libFVASManager.so").c_str(), R_OK) == 0;
  if (!current) {
    if (!CopyFile(moduleFile, state + "libFVASManager.so", 0644, error) ||
        !CopyFile(exeFolder + "qs-host", state + "qs-host", 0755, error)) {
      return false;
    }
    std::ofstream(state + kCopiedMarker, std::ios::binary | std::ios::trunc) << stamp;
  }
  *runPath = state + "qs-host";
  return true;
}

}  // namespace qs_host
