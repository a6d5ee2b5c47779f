// Sockets handed over by the service manager: what qs-host adopts and what it
// refuses, each case in a child process of its own (descriptors 3 and 4 and
// the LISTEN_* variables are the child's).
#include "host/activation.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

// A TCP socket bound to `address` on any port, listening when asked.
int TcpSocket(const char* address, bool listening) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  inet_pton(AF_INET, address, &where.sin_addr);
  bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof(where));
  if (listening) listen(fd, 4);
  return fd;
}

// Runs `prepare` (which places descriptors at 3 and up and returns the
// LISTEN_* values to set), then the adoption, in a child; its outcome as text.
std::string Adopt(const std::function<std::vector<std::string>()>& prepare) {
  int out[2];
  if (pipe(out) != 0) return "no pipe";
  const pid_t child = fork();
  if (child == 0) {
    close(out[0]);
    if (out[1] < 10) out[1] = fcntl(out[1], F_DUPFD, 10);
    const std::vector<std::string> values = prepare();  // pid ("self" for ours), fds, names
    setenv("LISTEN_PID", values[0] == "self" ? std::to_string(getpid()).c_str() : values[0].c_str(), 1);
    setenv("LISTEN_FDS", values[1].c_str(), 1);
    if (!values[2].empty()) setenv("LISTEN_FDNAMES", values[2].c_str(), 1);
    std::vector<qs_host::InheritedSocket> sockets;
    std::string error, text;
    if (qs_host::TakeActivatedSockets(&sockets, &error)) {
      text = "adopted";
      for (const auto& s : sockets) {
        sockaddr_in where{};
        socklen_t length = sizeof(where);
        getsockname(s.fd, reinterpret_cast<sockaddr*>(&where), &length);
        text += " " + std::to_string(s.fd) + (s.tls ? "/https/" : "/http/") +
                (s.port == ntohs(where.sin_port) ? "port" : "wrong-port") +
                ((fcntl(s.fd, F_GETFD) & FD_CLOEXEC) ? "/cloexec" : "/inherited");
      }
    } else {
      text = "refused: " + error;
    }
    if (getenv("LISTEN_PID") != nullptr || getenv("LISTEN_FDS") != nullptr || getenv("LISTEN_FDNAMES") != nullptr) {
      text += " (variables left)";
    }
    if (write(out[1], text.data(), text.size()) < 0) _exit(2);
    _exit(0);
  }
  close(out[1]);
  std::string text;
  char buffer[512];
  for (ssize_t n; (n = read(out[0], buffer, sizeof(buffer))) > 0;) text.append(buffer, static_cast<size_t>(n));
  close(out[0]);
  waitpid(child, nullptr, 0);
  return text;
}

void Place(int fd, int at) {
  if (fd != at && dup2(fd, at) == at) close(fd);
}

TEST(SocketActivation, AdoptsLoopbackListenersOnlyWhenHandedToThisProcess) {
  const auto twoListeners = [](const std::string& pid) {
    return [pid] {
      Place(TcpSocket("127.0.0.1", true), 3);
      Place(TcpSocket("127.0.0.1", true), 4);
      return std::vector<std::string>{pid, "2", "http:https"};
    };
  };
  const auto one = [](int fd, const char* name) {
    return [fd, name]() mutable {
      Place(fd, 3);
      return std::vector<std::string>{"self", "1", name};
    };
  };
  int pipeFds[2];
  ASSERT_EQ(0, pipe(pipeFds));
  close(pipeFds[1]);
  const std::pair<std::function<std::vector<std::string>()>, std::string> rows[] = {
      {twoListeners("self"), "adopted 3/http/port/cloexec 4/https/port/cloexec"},
      {twoListeners("1"), "adopted"},  // another process's sockets
      {[] {
         close(3);
         return std::vector<std::string>{"self", "1", ""};
       },
       "refused: the socket handed over as descriptor 3 is not open"},
      {one(pipeFds[0], "http"), "refused: the socket handed over as descriptor 3 (\"http\") is not a socket"},
      {one(TcpSocket("127.0.0.1", false), ""), "refused: the socket handed over as descriptor 3 is not listening"},
      {one(TcpSocket("0.0.0.0", true), "http"),
       "refused: the socket handed over as descriptor 3 (\"http\") is not bound to a loopback address"},
      {one(socket(AF_INET, SOCK_DGRAM, 0), "http"),
       "refused: the socket handed over as descriptor 3 (\"http\") is not a stream socket"},
      {one(TcpSocket("127.0.0.1", true), "ftp"),
       "refused: the socket handed over as descriptor 3 (\"ftp\") has a name other than \"http\" or \"https\""},
  };
  for (const auto& row : rows) EXPECT_EQ(row.second, Adopt(row.first));
}

}  // namespace
