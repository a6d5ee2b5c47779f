#include "host/module.h"

#include <dlfcn.h>

#include <algorithm>

namespace qs_host {

template <typename F>
void Module::Resolve(F& target, const char* name, std::vector<std::string>* missing) {
  target = reinterpret_cast<F>(dlsym(library_, name));
  if (target == nullptr && missing != nullptr) missing->push_back(name);
}

bool Module::Load(const std::string& path, std::string* error) {
  path_ = path;
  library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    const char* why = dlerror();
    *error = "cannot load the module " + path + ": " + (why != nullptr ? why : "unknown error");
    return false;
  }
  std::vector<std::string> missing;
  Resolve(doAction_, "DoAction", &missing);
  Resolve(distributeCommand_, "DistributeCommand", &missing);
  Resolve(getWaitTimeout_, "GetWaitTimeout", &missing);
  Resolve(getAlias_, "GetAlias", &missing);
  Resolve(getVersionDesc_, "GetVersionDesc", &missing);
  Resolve(getPorts_, "GetPorts", &missing);
  Resolve(getImage_, "GetImage", &missing);
  Resolve(setImage_, "SetImage", &missing);
  Resolve(closeWebSocket_, "CloseWebSocket", &missing);
  Resolve(reserved_, "Reserved", &missing);
  // The base library's functions are exported under their C++ names.
  Resolve(getEnableCORSAll_, "_Z16GetEnableCORSAllv", nullptr);
  Resolve(getCertPath_, "_Z11GetCertPathB5cxx11v", nullptr);
  Resolve(profileRead_, "_Z24GetPrivateProfileStringAPKcS0_S0_PcjS0_", nullptr);
  Resolve(profileWrite_, "_Z26WritePrivateProfileStringAPKcS0_S0_S0_", nullptr);
  if (!missing.empty()) {
    std::string names;
    for (const std::string& name : missing) names += (names.empty() ? "" : ", ") + name;
    *error = "the module " + path + " lacks the export" + (missing.size() > 1 ? "s " : " ") + names;
    return false;
  }
  return true;
}

int Module::DoAction(int action, const std::string& exeFile, int seed) {
  return doAction_(action, exeFile.c_str(), path_.c_str(), seed);
}

int Module::Distribute(int connection, void* handle, const std::string& url, const char* request,
                       const unsigned char* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                       int socket, const std::string& domain) {
  return distributeCommand_(connection, handle, 0, url.c_str(), request, body, bodyLen, browserType,
                            sendBack, socket, domain.c_str(), nullptr, nullptr, nullptr);
}

std::string Module::Alias() const {
  // GetAlias writes its text and NUL with one 32-bit store.
  char alias[8] = {};
  getAlias_(alias);
  return std::string(alias);
}

std::string Module::VersionDesc() const {
  const int size = getVersionDesc_(nullptr);
  if (size <= 0 || size > 4096) return std::string();
  std::vector<char> buffer(static_cast<size_t>(size) + 1, '\0');
  getVersionDesc_(buffer.data());
  return std::string(buffer.data());
}

std::vector<int> Module::DefaultPorts(bool alternate) const {
  const int count = getPorts_(alternate, nullptr);
  if (count <= 0 || count > 64) return {};
  std::vector<int> ports(static_cast<size_t>(count), 0);
  getPorts_(alternate, ports.data());
  return ports;
}

bool Module::GetImage(const std::string& url, std::string* record) const {
  // A size query first, so the buffer holds whatever the module writes.
  unsigned int length = 0;
  if (getImage_(url.c_str(), nullptr, &length) == 0) return false;
  std::string buffer(std::max(length, kImageRecordSize), '\0');
  if (getImage_(url.c_str(), &buffer[0], &length) == 0) return false;  // deleted meanwhile
  buffer.resize(std::min<size_t>(length, buffer.size()));
  record->swap(buffer);
  return true;
}

bool Module::SetImage(const std::string& url, const std::string& data) const {
  if (data.size() > kImageRecordSize) return false;
  const void* bytes = data.empty() ? nullptr : data.data();
  return setImage_(url.c_str(), bytes, static_cast<unsigned int>(data.size())) != 0;
}

}  // namespace qs_host
