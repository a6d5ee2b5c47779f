#include "host/routes.h"

namespace qs_host {

namespace {

bool Contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

}  // namespace

Route Classify(std::string_view method, std::string_view target, bool benchRoute) {
  if (method == "OPTIONS") return Route::kPreflight;
  if ((method == "GET" || method == "HEAD") && (target == "/" || target == "/index.html")) return Route::kStatusPage;
  if ((method == "GET" || method == "HEAD") && target == kClientScriptTarget) return Route::kClientScript;
  if (benchRoute && target == kBenchTarget) return Route::kBench;
  // The module looks for these markers anywhere in the URL, so a path that
  // begins with the alias can carry them too; they win over the alias.
  if (Contains(target, "/GetEncryptedImageMap?")) return Route::kGetImage;
  if (Contains(target, "/SetEncryptedImageMap?")) return Route::kSetImage;
  return Route::kModule;
}

bool IsUploadTarget(std::string_view target) {
  return Contains(target, "/LoadZipFromBytes") || Contains(target, "/CheckUpdateFile");
}

int BrowserTypeFor(std::string_view userAgent) {
  if (userAgent.empty()) return 0;
  if (Contains(userAgent, "Firefox/")) return 3;
  if (Contains(userAgent, "Chrome/") || Contains(userAgent, "Chromium/") || Contains(userAgent, "HeadlessChrome/"))
    return 2;
  if (Contains(userAgent, "Safari/")) return 4;
  return 1;
}

std::string_view ContentTypeFor(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string_view::npos && (text[first] == '{' || text[first] == '[')) {
    return "application/json";
  }
  return "text/plain; charset=utf-8";
}

}  // namespace qs_host
