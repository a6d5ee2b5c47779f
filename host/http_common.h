// What the host's sessions share: the Beast types, the host's context, and the
// responses every route builds the same way.
#pragma once

#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/connections.h"
#include "host/module.h"
#include "host/policy.h"
#include "host/quotas.h"

namespace qs_host {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// Everything a session needs to know about the host; set before the first
// connection is accepted, then only `stopping`, the table and the counts of
// the budget and the record book change.
struct HostContext {
  Module* module = nullptr;
  std::string alias;
  std::string page;
  RequestPolicy policy;
  Limits limits;
  bool benchRoute = false;
  std::atomic<bool> stopping{false};
  ConnectionTable connections;
  BodyBudget budget;
  RecordBook records;
  // Called after every call into the module (from any thread).
  std::function<void()> afterModuleCall = [] {};
};

template <class Fields, class Name>
std::string Header(const Fields& fields, Name name) {
  auto found = fields.find(name);
  return found == fields.end() ? std::string() : std::string(found->value());
}

// The requesting page's origin, as far as the request tells it (Origin, else
// Referer); the module is told this.
std::string DomainOf(const Request& request);

// A response with the headers every answer carries, and the CORS headers the
// request's origin verdict asks for.
Response MakeResponse(const Request& request, OriginVerdict verdict, http::status status,
                      std::string_view contentType, std::string body);
Response TextResponse(const Request& request, OriginVerdict verdict, http::status status, std::string text);

// The checks every request passes before any route sees it: the Host, the
// method and the Origin. A refusal to send (403, 400 or 405), or none; the
// origin verdict is left in *verdict either way.
std::optional<Response> CheckRequest(const Request& request, const HostContext& host, OriginVerdict* verdict);

// The answer to OPTIONS: the CORS preflight approved for an allowed origin
// (with the Private Network Access answer when asked), plain Allow without
// Origin.
Response Preflight(const Request& request, OriginVerdict verdict);

}  // namespace qs_host
