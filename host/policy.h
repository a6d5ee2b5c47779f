// The request policy of the host: which requests a page on this machine may
// make at all, before anything reaches the module.
//
//  - Host: only names of the loopback are served (127.0.0.1, localhost, [::1],
//    with or without a port, plus names given with --allow-host), so a page
//    whose own name was re-bound to 127.0.0.1 cannot drive the module as if it
//    were same-origin. Anything else is 403; an HTTP/1.1 request without Host
//    is 400.
//  - Origin, one rule for HTTP and WebSocket: with the module's CORS-all flag
//    on every origin is served and answers say "Access-Control-Allow-Origin:
//    *"; with it off only loopback origins (http or https, any port) and
//    origins given with --allow-origin are served, their origin echoed with
//    "Vary: Origin", and any other origin is 403. A request without Origin
//    (scripts, curl) is served.
//  - Methods GET, HEAD, POST and OPTIONS; anything else is 405.
//  - Body limits per route, and the time and connection limits below.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/routes.h"

namespace qs_host {

// Limits of a connection; the defaults are what qs-host uses unless told
// otherwise on its command line.
struct Limits {
  int headSeconds = 30;        // from a request's first byte to the end of its head
  int idleSeconds = 60;        // a connection waiting for the next request
  int maxConnections = 512;    // open at once; at the cap the longest idle goes
  std::size_t headerBytes = 16 * 1024;  // the whole header section
  int bodyBudgetMiB = 64;      // request bodies and WebSocket messages held at once, all connections together
  int maxRecords = 16384;      // image records stored through the host (2052 bytes each, about 40 MiB)
};

// The largest body each route takes: an image record is 2052 bytes, any
// command 1 MiB, package uploads as much as a command while the module's
// command table has no handler that reads a package (its LoadZipFromBytes
// answers -2200 and CheckUpdateFile drops the body); the page, preflights and
// image reads take none.
constexpr std::uint64_t kImageBodyLimit = 2052;
constexpr std::uint64_t kCommandBodyLimit = 1024 * 1024;
constexpr std::uint64_t kUploadBodyLimit = kCommandBodyLimit;
std::uint64_t BodyLimitFor(Route route, std::string_view target);

// The methods served, as an Allow header says them.
constexpr std::string_view kAllowedMethods = "GET, HEAD, POST, OPTIONS";
bool MethodAllowed(std::string_view method);

// What the Origin rule says of a request.
enum class OriginVerdict {
  kNoOrigin,   // CORS-all off and no Origin header: served, no CORS headers
  kAnyOrigin,  // CORS-all on: served, "Access-Control-Allow-Origin: *"
  kEchoed,     // an allowed origin: served, the origin echoed
  kRefused,    // 403, which names the refused origin so the page can read why
};

// What Access-Control-Allow-Origin says for a verdict: "*", the request's own
// origin, or nothing (empty). The 403 of a refused origin names that origin:
// it carries no command result, and a page that can read it tells a refusal
// apart from a service that is not running.
std::string_view AllowOriginFor(OriginVerdict verdict, std::string_view origin);

class RequestPolicy {
 public:
  RequestPolicy() = default;
  RequestPolicy(bool corsForAll, std::vector<std::string> extraHosts, std::vector<std::string> extraOrigins);

  // `host` is the Host header's value, `present` whether there was one.
  // 0 when the request may go on, else the status to answer: 400 for an
  // HTTP/1.1 request without Host, 403 for a name that is not allowed.
  int CheckHost(bool present, std::string_view host, unsigned httpVersion) const;
  OriginVerdict CheckOrigin(bool present, std::string_view origin) const;

  bool corsForAll() const { return corsForAll_; }
  const std::vector<std::string>& extraHosts() const { return extraHosts_; }
  const std::vector<std::string>& extraOrigins() const { return extraOrigins_; }

 private:
  bool corsForAll_ = true;
  std::vector<std::string> extraHosts_;    // lower case
  std::vector<std::string> extraOrigins_;  // lower case, no trailing "/"
};

// Whether `origin` ("scheme://host[:port]") names the loopback over http or
// https.
bool IsLoopbackOrigin(std::string_view origin);

// The body budget: whether `more` bytes fit beside the `inUse` bytes that
// bodies and messages already hold. A request that does not fit is answered
// 503 with Retry-After (seconds) before its body is read; a WebSocket message
// that does not fit closes its socket with 1013.
constexpr int kRetryAfterSeconds = 1;
bool BudgetAdmits(std::size_t inUse, std::uint64_t more, std::size_t budget);

// Image records: the GUID is everything after "GUID=" up to the end of the
// target, as the module takes it (empty without "GUID=").
constexpr std::size_t kMaxGuidBytes = 256;
std::string_view RecordGuid(std::string_view target);
// The status a record request gets before it reaches the module: 414 for a
// GUID over kMaxGuidBytes; 507 for a new GUID (not `known`) to be stored while
// `stored` records have reached `maxRecords`; 0 to go on (reads, overwrites and
// deletes are never refused for the count).
int RecordStatus(std::size_t guidBytes, bool storing, bool known, std::size_t stored, std::size_t maxRecords);

}  // namespace qs_host
