// Every open connection of the host, for the connection cap and for the stop.
//
// A connection reports when it starts and stops waiting for its peer (idle:
// waiting for a request or a message; busy: a request is being read or
// answered). At the cap, the connection that has been idle the longest is
// told to close, so a flood of idle sockets cannot lock a real page out.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace qs_host {

class Connection {
 public:
  virtual ~Connection() = default;
  // Closes the connection now (called from any thread; must only post).
  virtual void Evict() = 0;
  // The host is stopping: finish what is being answered, then close.
  virtual void Shutdown() = 0;
};

class ConnectionTable {
 public:
  using Clock = std::chrono::steady_clock;

  // Registers a connection (held weakly); it starts idle. Ids are never 0.
  int Add(const std::shared_ptr<Connection>& connection);
  void Remove(int id);
  void SetIdle(int id, bool idle);
  // With `count` or more connections open, the idle one that has waited the
  // longest (it is taken out of the idle set, so it is chosen only once);
  // null when fewer are open or none is idle.
  std::shared_ptr<Connection> VictimAtCap(std::size_t count);
  std::size_t Size();
  std::vector<std::shared_ptr<Connection>> Live();

 private:
  struct Entry {
    std::weak_ptr<Connection> connection;
    bool idle = true;
    Clock::time_point since;
  };
  std::mutex lock_;
  int next_ = 1;
  std::unordered_map<int, Entry> entries_;
};

}  // namespace qs_host
