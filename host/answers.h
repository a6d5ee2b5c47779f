// How the module's answers find their way back. Every destination (one HTTP
// exchange, or one WebSocket for its whole life) is registered under a
// connection index (by its owner, which removes it when it is done with it or
// goes away); the module hands that index and the destination's handle
// back to the send-back callback, which looks the destination up and gives it
// a copy of the answer. Destinations deliver on their own strand, so the
// callback may be called from any thread, during or after DistributeCommand.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace qs_host {

struct Answer {
  std::string text;
  std::string data;  // binary data sent with the text, often empty
};

class AnswerSink {
 public:
  virtual ~AnswerSink() = default;
  // Called from any thread; must only copy and post.
  virtual void Deliver(int connection, Answer answer) = 0;
  // Called from any thread at shutdown.
  virtual void Shutdown() = 0;
};

class SinkRegistry {
 public:
  // Indexes start at 1 and never repeat while the process lives (0 means "no
  // connection" to the module). The registry holds the sink weakly.
  int Add(const std::shared_ptr<AnswerSink>& sink);
  void Remove(int connection);
  std::shared_ptr<AnswerSink> Find(int connection, const void* handle) const;
  std::vector<std::shared_ptr<AnswerSink>> Live() const;

 private:
  mutable std::mutex lock_;
  int next_ = 1;
  std::unordered_map<int, std::weak_ptr<AnswerSink>> sinks_;
};

// The registry the send-back callback consults.
SinkRegistry& Sinks();

// The host's SendBackCallback: 1 when the answer was handed to a live
// destination, 0 when the index or handle names none.
signed char SendBackToSink(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                           char const* extra);

}  // namespace qs_host
