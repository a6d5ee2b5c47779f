// The page served at "/": it opens a WebSocket to the module's alias on the
// same host and port, asks VersionInfo, QSVersion and GetPorts, and shows the
// answers, beside the request policy and limits the host enforces.
#pragma once

#include <string>

#include "host/policy.h"

namespace qs_host {

// The page with the module's alias and the host's policy filled in.
std::string StatusPage(const std::string& alias, const RequestPolicy& policy, const Limits& limits);

}  // namespace qs_host
