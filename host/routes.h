// Which part of the host answers a request, decided from its method and
// target alone, and the small facts the module is told about each request.
#pragma once

#include <string>
#include <string_view>

namespace qs_host {

enum class Route {
  kStatusPage,  // GET / : the page compiled into the host
  kClientScript,  // GET /client/qs-client.js : the browser client, compiled in
  kPreflight,   // OPTIONS on any path: answered by the host (CORS)
  kBench,       // the fixed answer of the load comparison, when enabled
  kGetImage,    // ".../GetEncryptedImageMap?...": GetImage
  kSetImage,    // ".../SetEncryptedImageMap?...": SetImage
  kModule,      // everything else: DistributeCommand
};

constexpr std::string_view kClientScriptTarget = "/client/qs-client.js";

// The target of the fixed answer used by the load comparison (served only
// when the host was started with --bench-route).
constexpr std::string_view kBenchTarget = "/host/bench";

Route Classify(std::string_view method, std::string_view target, bool benchRoute);

// Package uploads, whose binary body the module takes as body and length.
bool IsUploadTarget(std::string_view target);

// The browser kind the module is told: 0 without a User-Agent (the module
// refuses such clients), 2 Chromium-based, 3 Firefox, 4 Safari, 1 any other.
int BrowserTypeFor(std::string_view userAgent);

// The module's JSON documents go out as JSON, any other text as plain text.
std::string_view ContentTypeFor(std::string_view text);

}  // namespace qs_host
