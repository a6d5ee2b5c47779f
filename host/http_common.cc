#include "host/http_common.h"

namespace qs_host {

std::string DomainOf(const Request& request) {
  std::string origin = Header(request, http::field::origin);
  return origin.empty() ? Header(request, http::field::referer) : origin;
}

Response MakeResponse(const Request& request, OriginVerdict verdict, http::status status,
                      std::string_view contentType, std::string body) {
  Response response{status, request.version()};
  response.set(http::field::server, "qs-host");
  if (!contentType.empty()) response.set(http::field::content_type, contentType);
  response.set(http::field::cache_control, "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  const std::string origin = Header(request, http::field::origin);
  const std::string_view allow = AllowOriginFor(verdict, origin);
  if (!allow.empty()) response.set(http::field::access_control_allow_origin, allow);
  if (!allow.empty() && allow != "*") response.set(http::field::vary, "Origin");
  response.body() = std::move(body);
  return response;
}

Response TextResponse(const Request& request, OriginVerdict verdict, http::status status, std::string text) {
  return MakeResponse(request, verdict, status, "text/plain; charset=utf-8", std::move(text));
}

std::optional<Response> CheckRequest(const Request& request, const HostContext& host, OriginVerdict* verdict) {
  *verdict = OriginVerdict::kNoOrigin;
  const auto hostField = request.find(http::field::host);
  const bool hasHost = hostField != request.end();
  // One Host, naming the loopback (or a name the host was told to allow).
  if (hasHost && request.count(http::field::host) > 1) {
    return TextResponse(request, *verdict, http::status::bad_request, "more than one Host header\n");
  }
  switch (host.policy.CheckHost(hasHost, hasHost ? hostField->value() : "", request.version())) {
    case 400:
      return TextResponse(request, *verdict, http::status::bad_request, "a valid Host header is required\n");
    case 403:
      return TextResponse(request, *verdict, http::status::forbidden,
                          "this service answers requests for the loopback only\n");
    default:
      break;
  }
  if (!MethodAllowed(request.method_string())) {
    Response response = TextResponse(request, *verdict, http::status::method_not_allowed, "method not allowed\n");
    response.set(http::field::allow, kAllowedMethods);
    return response;
  }
  const auto origin = request.find(http::field::origin);
  *verdict = host.policy.CheckOrigin(origin != request.end(), origin != request.end() ? origin->value() : "");
  if (*verdict == OriginVerdict::kRefused) {
    return TextResponse(request, *verdict, http::status::forbidden, "this origin may not use the service\n");
  }
  return std::nullopt;
}

Response Preflight(const Request& request, OriginVerdict verdict) {
  Response response = MakeResponse(request, verdict, http::status::no_content, "", "");
  response.set(http::field::allow, kAllowedMethods);
  if (verdict == OriginVerdict::kAnyOrigin || verdict == OriginVerdict::kEchoed) {
    response.set(http::field::access_control_allow_methods, "GET, POST, OPTIONS");
    const std::string headers = Header(request, http::field::access_control_request_headers);
    response.set(http::field::access_control_allow_headers, headers.empty() ? "Content-Type" : headers);
    response.set(http::field::access_control_max_age, "600");
    // A page on a public origin asks before it may reach a loopback address.
    if (Header(request, "Access-Control-Request-Private-Network") == "true") {
      response.set("Access-Control-Allow-Private-Network", "true");
    }
  }
  return response;
}

}  // namespace qs_host
