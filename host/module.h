// The plug-in as the host sees it: one shared library opened with dlopen, its
// flat exports resolved by name, and the rule the host keeps when calling them
// (image records within their fixed size). Commands may be given from several
// threads at once: the module guards its own shared state. The host calls
// DoAction(0) before the first command and DoAction(3) after the last.
#pragma once

#include <string>
#include <vector>

#include "FVASManager/host_callbacks.h"

namespace qs_host {

// The size of one image-map record; SetImage must never see more.
constexpr unsigned int kImageRecordSize = 2052;

class Module {
 public:
  using GetFlagFn = bool (*)();
  using GetTextFn = std::string (*)();

  // The library stays mapped until the process ends, so its static objects
  // are destroyed at exit like the host's own.
  Module() = default;
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // Opens the library and resolves every export. On failure returns false and
  // `error` names the library and what is missing.
  bool Load(const std::string& path, std::string* error);
  const std::string& path() const { return path_; }

  int DoAction(int action, const std::string& exeFile, int seed);

  // One request into the module, with the host's callback; any thread, any
  // number at once. Whatever the module throws reaches the caller.
  int Distribute(int connection, void* handle, const std::string& url, const char* request,
                 const unsigned char* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                 int socket, const std::string& domain);
  int Distribute(int connection, void* handle, const std::string& url, const std::string& request,
                 const unsigned char* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                 int socket, const std::string& domain) {
    return Distribute(connection, handle, url, request.c_str(), body, bodyLen, browserType, sendBack, socket, domain);
  }

  int WaitTimeout() const { return getWaitTimeout_(); }
  std::string Alias() const;
  std::string VersionDesc() const;
  std::vector<int> DefaultPorts(bool alternate) const;
  // The record stored under the URL's GUID; false when there is none.
  bool GetImage(const std::string& url, std::string* record) const;
  // Stores `data` (at most kImageRecordSize bytes; longer data is refused here
  // and never reaches the module) or, for empty data, deletes the record.
  bool SetImage(const std::string& url, const std::string& data) const;
  void CloseWebSockets() const { closeWebSocket_(); }

  // From the module's base library, when it exports them (null otherwise):
  // whether CORS is open to every origin, and the certificate folder.
  bool HasCorsSwitch() const { return getEnableCORSAll_ != nullptr; }
  bool CorsForAllOrigins() const { return getEnableCORSAll_ != nullptr && getEnableCORSAll_(); }
  std::string CertFolder() const { return getCertPath_ != nullptr ? getCertPath_() : std::string(); }
  // The module's profile-string functions (its INI layer), null when it does
  // not export them.
  using ProfileReadFn = unsigned int (*)(const char*, const char*, const char*, char*, unsigned int, const char*);
  using ProfileWriteFn = bool (*)(const char*, const char*, const char*, const char*);
  ProfileReadFn ProfileRead() const { return profileRead_; }
  ProfileWriteFn ProfileWrite() const { return profileWrite_; }

 private:
  template <typename F>
  void Resolve(F& target, const char* name, std::vector<std::string>* missing);

  void* library_ = nullptr;
  std::string path_;

  DoActionFn doAction_ = nullptr;
  DistributeCommandFn distributeCommand_ = nullptr;
  GetWaitTimeoutFn getWaitTimeout_ = nullptr;
  GetAliasFn getAlias_ = nullptr;
  GetVersionDescFn getVersionDesc_ = nullptr;
  GetPortsFn getPorts_ = nullptr;
  GetImageFn getImage_ = nullptr;
  SetImageFn setImage_ = nullptr;
  CloseWebSocketFn closeWebSocket_ = nullptr;
  ReservedFn reserved_ = nullptr;
  GetFlagFn getEnableCORSAll_ = nullptr;
  GetTextFn getCertPath_ = nullptr;
  ProfileReadFn profileRead_ = nullptr;
  ProfileWriteFn profileWrite_ = nullptr;
};

}  // namespace qs_host
