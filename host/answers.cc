#include "host/answers.h"

#include <climits>

namespace qs_host {

int SinkRegistry::Add(const std::shared_ptr<AnswerSink>& sink) {
  std::lock_guard<std::mutex> hold(lock_);
  // After 2^31 - 1 destinations the count starts again at 1, skipping any
  // index that is still in use.
  int index;
  do {
    index = next_;
    next_ = next_ == INT_MAX ? 1 : next_ + 1;
  } while (sinks_.count(index) != 0);
  sinks_.emplace(index, sink);
  return index;
}

void SinkRegistry::Remove(int connection) {
  std::lock_guard<std::mutex> hold(lock_);
  sinks_.erase(connection);
}

std::shared_ptr<AnswerSink> SinkRegistry::Find(int connection, const void* handle) const {
  std::shared_ptr<AnswerSink> sink;
  {
    std::lock_guard<std::mutex> hold(lock_);
    auto found = sinks_.find(connection);
    if (found == sinks_.end()) return nullptr;
    sink = found->second.lock();
  }
  if (sink == nullptr || static_cast<const void*>(sink.get()) != handle) return nullptr;
  return sink;
}

std::vector<std::shared_ptr<AnswerSink>> SinkRegistry::Live() const {
  std::vector<std::shared_ptr<AnswerSink>> live;
  std::lock_guard<std::mutex> hold(lock_);
  for (const auto& entry : sinks_) {
    if (auto sink = entry.second.lock()) live.push_back(std::move(sink));
  }
  return live;
}

SinkRegistry& Sinks() {
  static SinkRegistry registry;
  return registry;
}

signed char SendBackToSink(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                           char const* /*extra*/) {
  std::shared_ptr<AnswerSink> sink = Sinks().Find(connection, handle);
  if (sink == nullptr) return 0;
  Answer answer;
  if (text != nullptr) answer.text = text;
  if (data != nullptr && dataLen > 0) answer.data.assign(static_cast<const char*>(data), dataLen);
  sink->Deliver(connection, std::move(answer));
  return 1;
}

}  // namespace qs_host
