#include "host/listener.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>

#include <chrono>

#include "host/http_session.h"

namespace qs_host {

Listener::Listener(net::io_context& ioc, HostContext& host, ssl::context* tls)
    : ioc_(ioc), acceptor_(net::make_strand(ioc)), backoff_(acceptor_.get_executor()), host_(host), tls_(tls) {}

int Listener::Bind(const std::string& address, int port, beast::error_code& ec) {
  const tcp::endpoint endpoint(net::ip::make_address(address, ec), static_cast<unsigned short>(port));
  if (ec) return -1;
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec && endpoint.address().is_v6()) acceptor_.set_option(net::ip::v6_only(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    beast::error_code ignored;
    acceptor_.close(ignored);
    return -1;
  }
  return acceptor_.local_endpoint().port();
}

bool Listener::Adopt(int fd, beast::error_code& ec) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ec = beast::error_code(errno, boost::system::system_category());
    return false;
  }
  acceptor_.assign(address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), fd, ec);
  return !ec;
}

void Listener::Accept() {
  acceptor_.async_accept(net::make_strand(ioc_), beast::bind_front_handler(&Listener::OnAccept, shared_from_this()));
}

void Listener::Close() {
  net::post(acceptor_.get_executor(), [self = shared_from_this()] {
    beast::error_code ignored;
    self->acceptor_.close(ignored);
    self->backoff_.cancel();
  });
}

void Listener::OnAccept(beast::error_code ec, tcp::socket socket) {
  if (ec == net::error::operation_aborted || !acceptor_.is_open()) return;
  if (ec) {
    // Out of descriptors or memory: the failure repeats at once until a
    // connection closes, so wait instead of spinning.
    const bool exhausted = ec == net::error::no_descriptors || ec == net::error::no_buffer_space ||
                           ec == net::error::no_memory || ec.value() == ENFILE;
    if (!exhausted) return Accept();
    backoff_.expires_after(std::chrono::milliseconds(100));
    backoff_.async_wait([self = shared_from_this()](beast::error_code waited) {
      if (!waited && self->acceptor_.is_open()) self->Accept();
    });
    return;
  }
  const auto cap = static_cast<std::size_t>(host_.limits.maxConnections);
  if (host_.connections.Size() >= cap) {
    if (auto victim = host_.connections.VictimAtCap(cap)) {
      victim->Evict();
    } else {
      // Every connection is in the middle of a request: this one waits no
      // better than it would in the backlog.
      beast::error_code ignored;
      socket.close(ignored);
      return Accept();
    }
  }
  if (tls_ != nullptr) {
    StartTlsSession(std::move(socket), *tls_, host_);
  } else {
    StartPlainSession(std::move(socket), host_);
  }
  Accept();
}

int BindLoopback(const std::vector<std::shared_ptr<Listener>>& pair, const std::vector<int>& ports, std::string* why) {
  for (int port : ports) {
    beast::error_code ec;
    const int bound = pair[0]->Bind("127.0.0.1", port, ec);
    if (bound >= 0) {
      beast::error_code ignored;
      if (pair.size() > 1) pair[1]->Bind("::1", bound, ignored);  // best effort: IPv6 may be off
      return bound;
    }
    *why += (why->empty() ? "" : "; ") + std::string("port ") + std::to_string(port) + ": " + ec.message();
    if (ec != net::error::address_in_use) break;
  }
  return -1;
}

long RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return -1;
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  return static_cast<long>(limit.rlim_cur);
}

}  // namespace qs_host
