// A minimal host for tests: loads the built plug-in with dlopen, resolves its
// exports by their plain names (SendBack by its C++ signature) and captures
// every answer the module sends back.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "FVASManager/host_callbacks.h"

namespace qs_test {

struct Answer {
  int connection;
  void* handle;
  std::string text;
  std::string data;
  std::string extra;
  bool hasExtra;
};

// Records every call of the send-back callback.
class AnswerLog {
 public:
  static AnswerLog& Instance() {
    static AnswerLog log;
    return log;
  }
  static signed char Callback(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                              char const* extra) {
    Answer answer{connection, handle, text != nullptr ? text : "",
                  data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : std::string(),
                  extra != nullptr ? extra : "", extra != nullptr};
    std::lock_guard<std::mutex> hold(Instance().mutex_);
    Instance().answers_.push_back(answer);
    return 1;
  }
  std::vector<Answer> Take() {
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<Answer> out;
    out.swap(answers_);
    return out;
  }

 private:
  std::mutex mutex_;
  std::vector<Answer> answers_;
};

class ModuleHost {
 public:

  ModuleHost() {
    module_ = dlopen(QS_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (module_ == nullptr) {
      ADD_FAILURE() << "cannot load the module: " << dlerror();
      return;
    }
    Resolve(DoAction, "DoAction");
    Resolve(DistributeCommand, "DistributeCommand");
    Resolve(GetWaitTimeout, "GetWaitTimeout");
    Resolve(GetAlias, "GetAlias");
    Resolve(GetVersionDesc, "GetVersionDesc");
    Resolve(GetPorts, "GetPorts");
    Resolve(GetImage, "GetImage");
    Resolve(SetImage, "SetImage");
    Resolve(CloseWebSocket, "CloseWebSocket");
    Resolve(Reserved, "Reserved");
    Resolve(SendBack, "_Z8SendBackPFaiPvPKcPKvjS1_EiS_S1_S3_jS1_");
  }
  ~ModuleHost() {
    if (module_ != nullptr) dlclose(module_);
  }
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  bool loaded() const { return module_ != nullptr; }
  void* Symbol(const char* name) const { return dlsym(module_, name); }

  // Sends one request as a browser would, on connection 1, answers captured.
  int Send(const std::string& url, const std::string& request, int browserType = 1,
           const unsigned char* body = nullptr, unsigned int bodyLen = 0, int reject = 0) {
    return DistributeCommand(1, this, reject, url.c_str(), request.c_str(), body, bodyLen, browserType,
                             &AnswerLog::Callback, 42, "http://example.test", nullptr, nullptr, nullptr);
  }
  // The text of the single answer the last requests produced.
  std::string OnlyAnswer() {
    std::vector<Answer> answers = AnswerLog::Instance().Take();
    EXPECT_EQ(1u, answers.size());
    return answers.empty() ? "" : answers.back().text;
  }

  DoActionFn DoAction = nullptr;
  DistributeCommandFn DistributeCommand = nullptr;
  GetWaitTimeoutFn GetWaitTimeout = nullptr;
  GetAliasFn GetAlias = nullptr;
  GetVersionDescFn GetVersionDesc = nullptr;
  GetPortsFn GetPorts = nullptr;
  GetImageFn GetImage = nullptr;
  SetImageFn SetImage = nullptr;
  CloseWebSocketFn CloseWebSocket = nullptr;
  ReservedFn Reserved = nullptr;
  SendBackWrapper SendBack = nullptr;

 private:
  template <typename F>
  void Resolve(F& target, const char* name) {
    target = reinterpret_cast<F>(dlsym(module_, name));
    EXPECT_NE(nullptr, reinterpret_cast<void*>(target)) << "export missing: " << name;
  }

  void* module_ = nullptr;
};

}  // namespace qs_test
