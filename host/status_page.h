// The page served at "/": through the browser client it connects to the
// module on the same port, asks VersionInfo, QSVersion and GetPorts, and shows
// the answers, beside the request policy and limits the host enforces.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/policy.h"

namespace qs_host {

// The page with the module's alias, the host's policy and the settings in
// force (name and value, shown read-only) filled in.
std::string StatusPage(const std::string& alias, const RequestPolicy& policy, const Limits& limits,
                       const std::vector<std::pair<std::string, std::string>>& settings);

// The browser client (client/qs-client.js, compiled in) that the page imports
// from /client/qs-client.js.
std::string_view ClientScript();

}  // namespace qs_host
