// The page served at "/": it opens a WebSocket to the module's alias on the
// same host and port, asks VersionInfo, QSVersion and GetPorts, and shows the
// answers, beside the request policy and limits the host enforces.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/policy.h"

namespace qs_host {

// The page with the module's alias, the host's policy and the settings in
// force (name and value, shown read-only) filled in.
std::string StatusPage(const std::string& alias, const RequestPolicy& policy, const Limits& limits,
                       const std::vector<std::pair<std::string, std::string>>& settings);

}  // namespace qs_host
