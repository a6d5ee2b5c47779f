// Listening sockets handed over by the service manager (socket activation).
//
// When LISTEN_PID is this process's id, LISTEN_FDS sockets start at
// descriptor 3; LISTEN_FDNAMES (colon-separated) names them: "https" for
// HTTPS and WSS, "http" (or no name) for plain HTTP and WebSocket. Each must
// be a listening TCP socket bound to a loopback address. The LISTEN_*
// variables are removed from the environment either way, so that helper
// programs the module starts never see them.
#pragma once

#include <string>
#include <vector>

namespace qs_host {

struct InheritedSocket {
  int fd = -1;
  bool tls = false;
  int port = 0;
};

// False, with the reason in *error, when a handed-over descriptor does not
// qualify (then none is taken). True with no sockets when nothing was handed
// to this process.
bool TakeActivatedSockets(std::vector<InheritedSocket>* sockets, std::string* error);

}  // namespace qs_host
