#include "host/activation.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace qs_host {

namespace {

constexpr int kFirstDescriptor = 3;

std::vector<std::string> Names(const char* text, int count) {
  std::vector<std::string> names(static_cast<size_t>(count));
  if (text == nullptr) return names;
  std::string all(text);
  size_t start = 0;
  for (int i = 0; i < count && start <= all.size(); ++i) {
    const size_t colon = all.find(':', start);
    names[static_cast<size_t>(i)] = all.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  return names;
}

// Why `fd` is not a listening TCP socket on the loopback; "" when it is.
std::string Unsuitable(int fd, int* port) {
  struct stat st;
  if (fstat(fd, &st) != 0) return "is not open";
  if (!S_ISSOCK(st.st_mode)) return "is not a socket";
  int value = 0;
  socklen_t length = sizeof(value);
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &value, &length) != 0 || value != SOCK_STREAM) return "is not a stream socket";
  length = sizeof(value);
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &length) != 0 || value == 0) return "is not listening";
  sockaddr_storage address{};
  length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "has no address";
  if (address.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
    if ((ntohl(v4->sin_addr.s_addr) >> 24) != 127) return "is not bound to a loopback address";
    *port = ntohs(v4->sin_port);
    return "";
  }
  if (address.ss_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
    if (!IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr)) return "is not bound to a loopback address";
    *port = ntohs(v6->sin6_port);
    return "";
  }
  return "is not a TCP socket";
}

}  // namespace

bool TakeActivatedSockets(std::vector<InheritedSocket>* sockets, std::string* error) {
  sockets->clear();
  const char* pid = getenv("LISTEN_PID");
  const char* fds = getenv("LISTEN_FDS");
  const bool ours = pid != nullptr && fds != nullptr && strtol(pid, nullptr, 10) == static_cast<long>(getpid());
  const int count = ours ? static_cast<int>(strtol(fds, nullptr, 10)) : 0;
  const std::vector<std::string> names = Names(getenv("LISTEN_FDNAMES"), count > 0 ? count : 0);
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  if (!ours) return true;
  if (count <= 0 || count > 64) {
    *error = "LISTEN_FDS names no usable count of sockets";
    return false;
  }
  std::vector<InheritedSocket> taken;
  for (int i = 0; i < count; ++i) {
    const int fd = kFirstDescriptor + i;
    const std::string& name = names[static_cast<size_t>(i)];
    InheritedSocket socket;
    socket.fd = fd;
    const std::string why = Unsuitable(fd, &socket.port);
    if (!why.empty() || (name != "http" && name != "https" && !name.empty())) {
      *error = "the socket handed over as descriptor " + std::to_string(fd) +
               (name.empty() ? "" : " (\"" + name + "\")") + " " +
               (why.empty() ? "has a name other than \"http\" or \"https\"" : why);
      return false;
    }
    socket.tls = name == "https";
    // The module's helper programs must not inherit the listening sockets.
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    taken.push_back(socket);
  }
  *sockets = std::move(taken);
  return true;
}

}  // namespace qs_host
