// The host's network side: HTTP/1.1 and WebSocket on the loopback (and HTTPS
// and WSS when the module's certificate folder holds a certificate and its
// key), several worker threads, the request policy of policy.h, the body
// budget and record quota of quotas.h, memory handed back once the module's
// wait timeout says it is idle, and a clean stop on SIGINT or SIGTERM.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/activation.h"
#include "host/module.h"
#include "host/policy.h"

namespace qs_host {

struct ServerOptions {
  std::string exeFolder;        // the executable's folder, ending in "/"
  int port = -1;                // -1: the module's plain pair; 0: any free port
  std::vector<int> portPair;    // replaces the module's plain pair when not empty
  int tlsPort = -1;             // -1: the module's TLS pair (any free port when port is 0)
  std::vector<int> tlsPortPair;
  int threads = 2;
  bool benchRoute = false;      // serve the fixed answer at kBenchTarget
  std::vector<std::string> allowHosts;    // Host names served beside the loopback's
  std::vector<std::string> allowOrigins;  // origins served while CORS-all is off
  Limits limits;
  // Shown read-only on the status page: the settings in force, by name.
  std::vector<std::pair<std::string, std::string>> settingsShown;
  // Sockets handed over by the service manager: served instead of binding.
  std::vector<InheritedSocket> inherited;
};

class Server {
 public:
  Server(Module& module, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the listeners and prints where they listen. False (with a message)
  // when no plain port could be bound.
  bool Start(std::string* error);
  // Serves until SIGINT or SIGTERM; returns the signal's number once every
  // worker has finished, so no module call is in flight any more.
  int Run();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qs_host
