// Listening sockets on the loopback and the accept loop.
//
// A listener is bound to 127.0.0.1 or ::1, never a wildcard address. Each
// accepted connection is handed to an HTTP session (plain or TLS). At the
// connection cap the connection idle the longest is told to close (or, when
// every connection is busy, the new one is closed). When accepting fails for
// want of descriptors or memory the loop waits a moment before it tries again
// instead of spinning.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>
#include <vector>

#include "host/http_common.h"

namespace qs_host {

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  // `tls` null: plain HTTP and WebSocket; otherwise HTTPS and WSS.
  Listener(net::io_context& ioc, HostContext& host, ssl::context* tls);

  // Binds `address` (a loopback address) and `port` (0: any free port);
  // returns the bound port, or -1 with `ec` set.
  int Bind(const std::string& address, int port, beast::error_code& ec);
  // Takes over a socket that is already listening (handed over by the
  // service manager); false with `ec` set when it cannot be used.
  bool Adopt(int fd, beast::error_code& ec);
  bool IsOpen() const { return acceptor_.is_open(); }
  void Accept();
  // Stops accepting (from any thread).
  void Close();

 private:
  void OnAccept(beast::error_code ec, tcp::socket socket);

  net::io_context& ioc_;
  tcp::acceptor acceptor_;
  net::steady_timer backoff_;
  HostContext& host_;
  ssl::context* tls_;
};

// Binds 127.0.0.1 on each port in turn (the next only when one is taken) and,
// on the port that was bound, ::1 as well where the machine has it. The
// bound port, or -1 with the reasons in *why.
int BindLoopback(const std::vector<std::shared_ptr<Listener>>& pair, const std::vector<int>& ports, std::string* why);

// Raises the soft limit of open descriptors as far as the hard limit allows;
// the resulting soft limit.
long RaiseDescriptorLimit();

}  // namespace qs_host
