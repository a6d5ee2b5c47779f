// The page served at "/": it opens a WebSocket to the module's alias on the
// same host and port, asks VersionInfo, QSVersion and GetPorts, and shows the
// answers.
#pragma once

#include <string>

namespace qs_host {

// The page with the module's alias filled in.
std::string StatusPage(const std::string& alias);

}  // namespace qs_host
