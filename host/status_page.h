// The page served at "/": through the browser client it connects to the
// module on the same port, asks VersionInfo, QSVersion and GetPorts, and shows
// the answers, beside the request policy and limits the host enforces.
#pragma once

#include <string>
#include <string_view>

#include "host/policy.h"

namespace qs_host {

// The page with the module's alias and the host's policy filled in.
std::string StatusPage(const std::string& alias, const RequestPolicy& policy, const Limits& limits);

// The browser client (client/qs-client.js, compiled in) that the page imports
// from /client/qs-client.js.
std::string_view ClientScript();

}  // namespace qs_host
