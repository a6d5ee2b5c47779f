#include "host/connections.h"

#include <climits>

namespace qs_host {

int ConnectionTable::Add(const std::shared_ptr<Connection>& connection) {
  std::lock_guard<std::mutex> hold(lock_);
  int id;
  do {
    id = next_;
    next_ = next_ == INT_MAX ? 1 : next_ + 1;
  } while (entries_.count(id) != 0);
  entries_.emplace(id, Entry{connection, true, Clock::now()});
  return id;
}

void ConnectionTable::Remove(int id) {
  std::lock_guard<std::mutex> hold(lock_);
  entries_.erase(id);
}

void ConnectionTable::SetIdle(int id, bool idle) {
  std::lock_guard<std::mutex> hold(lock_);
  auto found = entries_.find(id);
  if (found == entries_.end()) return;
  found->second.idle = idle;
  found->second.since = Clock::now();
}

std::shared_ptr<Connection> ConnectionTable::VictimAtCap(std::size_t count) {
  std::lock_guard<std::mutex> hold(lock_);
  if (entries_.size() < count) return nullptr;
  Entry* oldest = nullptr;
  for (auto& entry : entries_) {
    if (entry.second.idle && !entry.second.connection.expired() &&
        (oldest == nullptr || entry.second.since < oldest->since)) {
      oldest = &entry.second;
    }
  }
  if (oldest == nullptr) return nullptr;
  oldest->idle = false;
  return oldest->connection.lock();
}

std::size_t ConnectionTable::Size() {
  std::lock_guard<std::mutex> hold(lock_);
  return entries_.size();
}

std::vector<std::shared_ptr<Connection>> ConnectionTable::Live() {
  std::vector<std::shared_ptr<Connection>> live;
  std::lock_guard<std::mutex> hold(lock_);
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (auto connection = it->second.connection.lock()) {
      live.push_back(std::move(connection));
      ++it;
    } else {
      it = entries_.erase(it);
    }
  }
  return live;
}

}  // namespace qs_host
