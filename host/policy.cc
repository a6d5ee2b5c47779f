#include "host/policy.h"

#include <algorithm>
#include <cctype>

namespace qs_host {

namespace {

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool AllDigits(std::string_view text) {
  return !text.empty() && text.size() <= 5 &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

// Splits "name[:port]" or "[v6][:port]" into the name; false when the port
// part is malformed.
bool NameOf(std::string_view authority, std::string_view* name) {
  if (!authority.empty() && authority.front() == '[') {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) return false;
    const std::string_view rest = authority.substr(close + 1);
    if (!rest.empty() && (rest.front() != ':' || !AllDigits(rest.substr(1)))) return false;
    *name = authority.substr(0, close + 1);
    return true;
  }
  const size_t colon = authority.find(':');
  if (colon != std::string_view::npos && !AllDigits(authority.substr(colon + 1))) return false;
  *name = authority.substr(0, colon);
  return true;
}

bool IsLoopbackName(std::string_view name) {
  const std::string lower = Lower(name);
  return lower == "127.0.0.1" || lower == "localhost" || lower == "[::1]";
}

}  // namespace

std::uint64_t BodyLimitFor(Route route, std::string_view target) {
  switch (route) {
    case Route::kSetImage: return kImageBodyLimit;
    case Route::kModule: return IsUploadTarget(target) ? kUploadBodyLimit : kCommandBodyLimit;
    case Route::kBench: return kCommandBodyLimit;
    case Route::kStatusPage:
    case Route::kClientScript:
    case Route::kPreflight:
    case Route::kGetImage: return 0;
  }
  return 0;
}

bool MethodAllowed(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "POST" || method == "OPTIONS";
}

bool IsLoopbackOrigin(std::string_view origin) {
  std::string_view rest;
  const std::string lower = Lower(origin);
  std::string_view view(lower);
  if (view.substr(0, 7) == "http://") {
    rest = view.substr(7);
  } else if (view.substr(0, 8) == "https://") {
    rest = view.substr(8);
  } else {
    return false;
  }
  std::string_view name;
  return NameOf(rest, &name) && IsLoopbackName(name);
}

std::string_view AllowOriginFor(OriginVerdict verdict, std::string_view origin) {
  switch (verdict) {
    case OriginVerdict::kAnyOrigin: return "*";
    case OriginVerdict::kEchoed:
    case OriginVerdict::kRefused: return origin;
    case OriginVerdict::kNoOrigin: break;
  }
  return {};
}

RequestPolicy::RequestPolicy(bool corsForAll, std::vector<std::string> extraHosts,
                             std::vector<std::string> extraOrigins)
    : corsForAll_(corsForAll) {
  for (const std::string& host : extraHosts) extraHosts_.push_back(Lower(host));
  for (std::string origin : extraOrigins) {
    while (!origin.empty() && origin.back() == '/') origin.pop_back();
    extraOrigins_.push_back(Lower(origin));
  }
}

int RequestPolicy::CheckHost(bool present, std::string_view host, unsigned httpVersion) const {
  if (!present) return httpVersion >= 11 ? 400 : 0;
  std::string_view name;
  if (!NameOf(host, &name) || name.empty()) return 400;
  if (IsLoopbackName(name)) return 0;
  const std::string lower = Lower(name);
  return std::find(extraHosts_.begin(), extraHosts_.end(), lower) != extraHosts_.end() ? 0 : 403;
}

OriginVerdict RequestPolicy::CheckOrigin(bool present, std::string_view origin) const {
  if (corsForAll_) return OriginVerdict::kAnyOrigin;
  if (!present) return OriginVerdict::kNoOrigin;
  if (IsLoopbackOrigin(origin)) return OriginVerdict::kEchoed;
  const std::string lower = Lower(origin);
  return std::find(extraOrigins_.begin(), extraOrigins_.end(), lower) != extraOrigins_.end()
             ? OriginVerdict::kEchoed
             : OriginVerdict::kRefused;
}

bool BudgetAdmits(std::size_t inUse, std::uint64_t more, std::size_t budget) {
  return inUse <= budget && more <= budget - inUse;
}

std::string_view RecordGuid(std::string_view target) {
  const size_t at = target.find("GUID=");
  return at == std::string_view::npos ? std::string_view() : target.substr(at + 5);
}

int RecordStatus(std::size_t guidBytes, bool storing, bool known, std::size_t stored, std::size_t maxRecords) {
  if (guidBytes > kMaxGuidBytes) return 414;
  if (storing && !known && stored >= maxRecords) return 507;
  return 0;
}

}  // namespace qs_host
