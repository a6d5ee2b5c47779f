// What the host lets all connections together hold: the bytes of request
// bodies and WebSocket messages (one budget), and the image records stored
// through its routes (a quota). The decisions are policy.h's; these keep the
// counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_set>

#include "host/module.h"

namespace qs_host {

class BodyBudget {
 public:
  void SetLimit(std::size_t bytes) { limit_ = bytes; }
  std::size_t limit() const { return limit_; }
  // Takes `bytes` when they fit beside what is held; false (nothing taken)
  // when they do not.
  bool Take(std::uint64_t bytes);
  void Give(std::size_t bytes) { used_.fetch_sub(bytes); }

 private:
  std::atomic<std::size_t> used_{0};
  std::size_t limit_ = 0;
};

// The share of the budget one connection holds; given back when it shrinks,
// is released or goes away.
class BodyLease {
 public:
  explicit BodyLease(BodyBudget& budget) : budget_(budget) {}
  ~BodyLease() { Resize(0); }
  BodyLease(const BodyLease&) = delete;
  BodyLease& operator=(const BodyLease&) = delete;

  // False (the share unchanged) when growing to `bytes` would overrun.
  bool Resize(std::uint64_t bytes);
  void Release() { Resize(0); }

 private:
  BodyBudget& budget_;
  std::size_t bytes_ = 0;
};

// The GUIDs the host has stored in the module's image map through its routes.
class RecordBook {
 public:
  void SetLimit(std::size_t records) { limit_ = records; }
  // Stores `data` under the target's GUID, or deletes the record for empty
  // data. 0 when the module took it, 400 when the target names no GUID, or
  // the refusal of RecordStatus (414, 507); the module is not called then.
  int Set(const Module& module, const std::string& target, const std::string& data);

 private:
  std::mutex lock_;  // held across the module's call, so the count follows the map
  std::unordered_set<std::string> guids_;
  std::size_t limit_ = 0;
};

}  // namespace qs_host
