#include "host/server.h"

#include <malloc.h>

#include <algorithm>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <thread>

#include "host/answers.h"
#include "host/http_common.h"
#include "host/journal.h"
#include "host/listener.h"
#include "host/status_page.h"
#include "host/tls.h"

namespace qs_host {

namespace {

constexpr auto kStopGrace = std::chrono::seconds(2);
constexpr auto kStopPoll = std::chrono::milliseconds(10);
// After a call into the module, the host asks the module's wait timeout this
// much later: 100 says the module has been idle for more than 30 s, and the
// memory the requests left free goes back to the system; any other answer
// means it has been busy since, and the host asks again as much later.
constexpr auto kIdleCheck = std::chrono::seconds(32);
constexpr int kModuleIdle = 100;

std::string Joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

}  // namespace

struct Server::Impl {
  Impl(Module& module, ServerOptions options)
      : module(module),
        options(std::move(options)),
        ioc(std::max(1, this->options.threads)),
        tls(ssl::context::tls_server),
        signals(ioc, SIGINT, SIGTERM),
        idleCheck(net::make_strand(ioc)),
        graceTimer(ioc) {}

  // Binds one pair of listeners (127.0.0.1 and ::1) on the first free port.
  int Listen(ssl::context* context, const std::vector<int>& ports, std::string* why) {
    std::vector<std::shared_ptr<Listener>> pair = {std::make_shared<Listener>(ioc, host, context),
                                                   std::make_shared<Listener>(ioc, host, context)};
    const int port = ports.empty() ? -1 : BindLoopback(pair, ports, why);
    if (port < 0) return -1;
    for (auto& listener : pair) {
      if (listener->IsOpen()) listeners.push_back(listener);
    }
    return port;
  }

  // Serves the sockets the service manager handed over: the first plain one
  // and the first TLS one (TLS only when a certificate is there).
  bool Adopt(bool tlsReady, int* plainPort, int* tlsPort, std::string* error) {
    for (const InheritedSocket& socket : options.inherited) {
      if (socket.tls && !tlsReady) {
        Say(Priority::kWarning, "qs-host: the socket handed over for TLS (port " + std::to_string(socket.port) +
                                    ") is not served: there is no certificate");
        continue;
      }
      auto listener = std::make_shared<Listener>(ioc, host, socket.tls ? &tls : nullptr);
      beast::error_code ec;
      if (!listener->Adopt(socket.fd, ec)) {
        *error = "cannot serve the socket handed over as descriptor " + std::to_string(socket.fd) + ": " + ec.message();
        return false;
      }
      listeners.push_back(listener);
      int& port = socket.tls ? *tlsPort : *plainPort;
      if (port < 0) port = socket.port;
    }
    if (*plainPort < 0) {
      *error = "no plain (\"http\") socket was handed over";
      return false;
    }
    return true;
  }

  // No clock runs while nothing happens: the check is armed by a call into
  // the module, once, and disarmed when the module says it is idle.
  void WatchIdle() {
    if (!idleArmed.exchange(true)) net::post(idleCheck.get_executor(), [this] { ArmIdleCheck(); });
  }

  void ArmIdleCheck() {
    if (host.stopping) return;
    idleCheck.expires_after(kIdleCheck);
    idleCheck.async_wait([this](beast::error_code ec) {
      if (ec || host.stopping) return;
      idleArmed = false;  // a call from now on arms the check again
      if (module.WaitTimeout() < kModuleIdle) return WatchIdle();
      malloc_trim(0);
    });
  }

  void BeginStop(int signal) {
    if (host.stopping.exchange(true)) return;
    stopSignal = signal;
    Say("qs-host: stopping (signal " + std::to_string(signal) + ")");
    for (auto& listener : listeners) listener->Close();
    net::post(idleCheck.get_executor(), [this] { idleCheck.cancel(); });
    // Requests being answered finish, idle connections close, WebSockets get
    // a close frame. The workers stop when no connection is left, or after
    // the grace (a command in progress still finishes: the workers stop only
    // between handlers).
    for (auto& connection : host.connections.Live()) connection->Shutdown();
    graceEnd = std::chrono::steady_clock::now() + kStopGrace;
    WaitForConnections();
  }

  void WaitForConnections() {
    if (host.connections.Live().empty() || std::chrono::steady_clock::now() >= graceEnd) return ioc.stop();
    graceTimer.expires_after(kStopPoll);
    graceTimer.async_wait([this](beast::error_code) { WaitForConnections(); });
  }

  Module& module;
  ServerOptions options;
  net::io_context ioc;
  ssl::context tls;
  net::signal_set signals;
  net::steady_timer idleCheck;
  std::atomic<bool> idleArmed{false};
  net::steady_timer graceTimer;
  HostContext host;
  std::vector<std::shared_ptr<Listener>> listeners;
  int stopSignal = 0;
  std::chrono::steady_clock::time_point graceEnd;
};

Server::Server(Module& module, ServerOptions options) : impl_(new Impl(module, std::move(options))) {}

Server::~Server() = default;

bool Server::Start(std::string* error) {
  Impl& s = *impl_;
  const bool corsForAll = s.module.CorsForAllOrigins();
  s.host.module = &s.module;
  s.host.alias = s.module.Alias();
  s.host.policy = RequestPolicy(corsForAll, s.options.allowHosts, s.options.allowOrigins);
  s.host.limits = s.options.limits;
  s.host.benchRoute = s.options.benchRoute;
  s.host.budget.SetLimit(static_cast<std::size_t>(s.host.limits.bodyBudgetMiB) * 1024 * 1024);
  s.host.records.SetLimit(static_cast<std::size_t>(s.host.limits.maxRecords));
  s.host.afterModuleCall = [&s] { s.WatchIdle(); };
  s.host.page = StatusPage(s.host.alias, s.host.policy, s.host.limits, s.options.settingsShown);
  const long descriptors = RaiseDescriptorLimit();

  std::string certFolder = s.module.CertFolder();
  if (certFolder.empty()) certFolder = s.options.exeFolder + "cert/";
  std::string tlsOff;
  const bool tlsReady = ConfigureTls(s.tls, certFolder, &tlsOff);
  int plainPort = -1;
  int tlsPort = -1;
  if (!s.options.inherited.empty()) {
    if (!s.Adopt(tlsReady, &plainPort, &tlsPort, error)) return false;
    if (tlsPort < 0 && tlsReady) tlsOff = "no \"https\" socket was handed over";
  } else {
    // Plain HTTP and WebSocket.
    std::vector<int> plainPorts = {s.options.port};
    if (s.options.port < 0) plainPorts = s.options.portPair.empty() ? s.module.DefaultPorts(false) : s.options.portPair;
    std::string why;
    plainPort = s.Listen(nullptr, plainPorts, &why);
    if (plainPort < 0) {
      *error = "cannot listen on 127.0.0.1 (" + (why.empty() ? std::string("no port to try") : why) + ")";
      return false;
    }
  }

  // HTTPS and WSS, when the certificate folder holds the certificate and key.
  if (tlsReady && s.options.inherited.empty()) {
    std::vector<int> tlsPorts;
    if (s.options.tlsPort >= 0) {
      tlsPorts = {s.options.tlsPort};
    } else if (!s.options.tlsPortPair.empty()) {
      tlsPorts = s.options.tlsPortPair;
    } else if (s.options.port == 0) {
      tlsPorts = {0};
    } else {
      tlsPorts = s.module.DefaultPorts(true);
    }
    std::string tlsWhy;
    tlsPort = s.Listen(&s.tls, tlsPorts, &tlsWhy);
    if (tlsPort < 0) tlsOff = "cannot listen for TLS (" + tlsWhy + ")";
  }

  const Limits& limits = s.host.limits;
  Say("qs-host: module " + s.module.path() + " (alias \"" + s.host.alias + "\", " + s.module.VersionDesc() + ")");
  Say(std::string("qs-host: CORS for all origins ") +
      (s.module.HasCorsSwitch() ? (corsForAll ? "on" : "off") : "off (the module has no EnableCORSAll switch)"));
  Say("qs-host: hosts served: 127.0.0.1, localhost, [::1]" +
      (s.options.allowHosts.empty() ? std::string() : ", " + Joined(s.options.allowHosts)));
  if (!corsForAll) {
    Say("qs-host: origins served: the loopback's" +
        (s.options.allowOrigins.empty() ? std::string() : ", " + Joined(s.options.allowOrigins)));
  }
  Say("qs-host: limits: request head " + std::to_string(limits.headSeconds) + " s, idle " +
      std::to_string(limits.idleSeconds) + " s, " + std::to_string(limits.maxConnections) + " connections (" +
      std::to_string(descriptors) + " descriptors), bodies " + std::to_string(limits.bodyBudgetMiB) +
      " MiB at once, " + std::to_string(limits.maxRecords) + " image records");
  if (tlsPort < 0) Say(Priority::kNotice, "qs-host: TLS off: " + tlsOff);
  const std::string base = "http://127.0.0.1:" + std::to_string(plainPort) + "/";
  Say("listening on " + base);
  if (tlsPort >= 0) Say("listening on https://127.0.0.1:" + std::to_string(tlsPort) + "/");
  Say("qs-host: status page " + base + " ; one command from a script:");
  Say("  curl -d '{\"id\":\"1\",\"method\":\"VersionInfo\"}' " + base + s.host.alias + "/");
  Say("qs-host: Ctrl-C or SIGTERM stops it");
  return true;
}

int Server::Run() {
  Impl& s = *impl_;
  s.signals.async_wait([&s](beast::error_code ec, int signal) {
    if (!ec) s.BeginStop(signal);
  });
  for (auto& listener : s.listeners) listener->Accept();

  std::vector<std::thread> workers;
  for (int i = 1; i < s.options.threads; ++i) workers.emplace_back([&s] { s.ioc.run(); });
  s.ioc.run();
  for (auto& worker : workers) worker.join();
  return s.stopSignal;
}

}  // namespace qs_host
