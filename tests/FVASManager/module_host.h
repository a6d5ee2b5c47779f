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

struct Answer { int connection; void* handle; std::string text, data, extra; bool hasExtra; };

// Records every call of the send-back callback, from any thread.
class AnswerLog {
 public:
  static AnswerLog& Instance() {
    static AnswerLog log;
    return log;
  }
  static signed char Callback(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                              char const* extra) {
    std::lock_guard<std::mutex> hold(Instance().mutex_);
    Instance().answers_.push_back({connection, handle, text != nullptr ? text : "",
                                   data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : "",
                                   extra != nullptr ? extra : "", extra != nullptr});
    return 1;
  }
  std::vector<Answer> Take() {
    std::lock_guard<std::mutex> hold(mutex_);
    return std::move(answers_);
  }

 private:
  std::mutex mutex_;
  std::vector<Answer> answers_;
};

class ModuleHost {
 public:
  ModuleHost() : module_(dlopen(QS_MODULE_PATH, RTLD_NOW | RTLD_LOCAL)) {
    if (module_ == nullptr) ADD_FAILURE() << "cannot load the module: " << dlerror();
  }
  ~ModuleHost() {
    if (module_ != nullptr) dlclose(module_);
  }
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  bool loaded() const { return module_ != nullptr; }

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

 private:
  template <typename F>
  F Resolve(const char* name) {
    void* symbol = module_ != nullptr ? dlsym(module_, name) : nullptr;
    EXPECT_NE(nullptr, symbol) << "export missing: " << name;
    return reinterpret_cast<F>(symbol);
  }
  void* module_;

 public:
  const DoActionFn DoAction = Resolve<DoActionFn>("DoAction");
  const DistributeCommandFn DistributeCommand = Resolve<DistributeCommandFn>("DistributeCommand");
  const GetWaitTimeoutFn GetWaitTimeout = Resolve<GetWaitTimeoutFn>("GetWaitTimeout");
  const GetAliasFn GetAlias = Resolve<GetAliasFn>("GetAlias");
  const GetVersionDescFn GetVersionDesc = Resolve<GetVersionDescFn>("GetVersionDesc");
  const GetPortsFn GetPorts = Resolve<GetPortsFn>("GetPorts");
  const GetImageFn GetImage = Resolve<GetImageFn>("GetImage");
  const SetImageFn SetImage = Resolve<SetImageFn>("SetImage");
  const CloseWebSocketFn CloseWebSocket = Resolve<CloseWebSocketFn>("CloseWebSocket");
  const ReservedFn Reserved = Resolve<ReservedFn>("Reserved");
  const SendBackWrapper SendBack = Resolve<SendBackWrapper>("_Z8SendBackPFaiPvPKcPKvjS1_EiS_S1_S3_jS1_");
};

}  // namespace qs_test
