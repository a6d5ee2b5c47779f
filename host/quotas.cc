#include "host/quotas.h"

#include "host/policy.h"

namespace qs_host {

bool BodyBudget::Take(std::uint64_t bytes) {
  std::size_t used = used_.load();
  do {
    if (!BudgetAdmits(used, bytes, limit_)) return false;
  } while (!used_.compare_exchange_weak(used, used + static_cast<std::size_t>(bytes)));
  return true;
}

bool BodyLease::Resize(std::uint64_t bytes) {
  if (bytes > bytes_) {
    if (!budget_.Take(bytes - bytes_)) return false;
  } else {
    budget_.Give(bytes_ - static_cast<std::size_t>(bytes));
  }
  bytes_ = static_cast<std::size_t>(bytes);
  return true;
}

int RecordBook::Set(const Module& module, const std::string& target, const std::string& data) {
  const std::string guid(RecordGuid(target));
  if (guid.empty()) return 400;
  std::lock_guard<std::mutex> hold(lock_);
  const bool known = guids_.count(guid) != 0;
  if (const int refusal = RecordStatus(guid.size(), !data.empty(), known, guids_.size(), limit_)) return refusal;
  if (!module.SetImage(target, data)) return 400;
  if (data.empty()) {
    guids_.erase(guid);
  } else if (!known) {
    guids_.insert(guid);
  }
  return 0;
}

}  // namespace qs_host
