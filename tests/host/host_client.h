// What the host's tests share: a qs-host process started in a folder of its
// own (the module's work folder is the executable's folder), and small
// HTTP(S) and WebSocket clients on Boost.Beast whose every operation has a
// time limit.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/common/temp_dir.h"

extern char** environ;

namespace qs_host_test {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
using namespace std::chrono_literals;

// Sanitizer builds run several times slower; every wait allows for that.
constexpr auto kLimit = std::chrono::seconds(60);
constexpr char kAgent[] = "Mozilla/5.0 (X11; Linux x86_64) qs-host-test";

// The styled result document of the module, with the command id the module
// inserts before its closing brace.
inline std::string Document(const std::string& members, const std::string& cmdId) {
  return "{\n" + members + ",\n\t\"cmdId\" : \"" + cmdId + "\"\n}\n";
}
inline std::string VersionInfoAnswer(const std::string& id, const std::string& cmdId) {
  return Document("   \"id\" : \"" + id +
                      "\",\n"
                      "   \"method\" : \"VersionInfo\",\n"
                      "   \"result\" : [\n"
                      "      \"14, 3, 3, 1212\",\n"
                      "      \"Quintaris Service Manager Module\",\n"
                      "      \"0\",\n"
                      "      \"false\",\n"
                      "      \"32\"\n"
                      "   ]",
                  cmdId);
}
inline std::string QSVersionAnswer(const std::string& id, const std::string& cmdId, const std::string& version) {
  return Document("   \"id\" : \"" + id +
                      "\",\n"
                      "   \"method\" : \"QSVersion\",\n"
                      "   \"result\" : [ \"" +
                      version + "\", \"Quintaris Service\" ]",
                  cmdId);
}
inline std::string NotFoundAnswer(const std::string& id, const std::string& method, const std::string& cmdId) {
  return Document("   \"description\" : \"Function not found\",\n"
                  "   \"exception\" : -2200,\n"
                  "   \"id\" : \"" +
                      id + "\",\n   \"method\" : \"" + method + "\",\n   \"result\" : [ false ]",
                  cmdId);
}

// ---------------------------------------------------------------------------

// qs-host, copied with a module into a fresh folder and started there; its
// standard output and error are collected as they come.
class HostProcess {
 public:
  // `module` is copied as `moduleName` beside the executable.
  explicit HostProcess(const std::string& module = QS_MODULE_FILE,
                       const std::string& moduleName = "libFVASManager.so") {
    std::filesystem::copy_file(QS_HOST_EXE, dir_ / "qs-host");
    std::filesystem::copy_file(module, dir_ / moduleName);
  }
  ~HostProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (reader_.joinable()) reader_.join();
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  const std::string& folder() const { return dir_.path(); }
  std::string operator/(const std::string& name) const { return dir_ / name; }

  // Starts qs-host with `args` (and `env` added to the environment); with
  // `waitForPort`, waits for its "listening on http://127.0.0.1:PORT/" line.
  bool Start(const std::vector<std::string>& args = {"--port", "0"}, const std::vector<std::string>& env = {},
             bool waitForPort = true) {
    int out[2];
    if (pipe(out) != 0) return false;
    std::vector<std::string> argStrings{dir_ / "qs-host"};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    // qs-host refuses root unless told; test machines often run as root.
    if (geteuid() == 0) {
      const bool call = args.size() > 0 && args[0] == "call";
      argStrings.insert(argStrings.begin() + (call ? 2 : 1), "--allow-root");
    }
    std::vector<char*> argv;
    for (auto& arg : argStrings) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    std::string tsanOptions;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (strncmp(*entry, "TSAN_OPTIONS=", 13) == 0) {
        tsanOptions = *entry + 13;
      } else {
        envStrings.emplace_back(*entry);
      }
    }
#if defined(__SANITIZE_THREAD__)
    // This toolchain's ThreadSanitizer runtime mis-sizes the thread-local
    // blocks of a dlopen()ed library (the module's) and crashes now and then
    // while clearing their shadow memory on first use in a thread. Without
    // that step it can only report too much (a reused block), never miss a
    // race in the host.
    tsanOptions += (tsanOptions.empty() ? "" : ":") + std::string("intercept_tls_get_addr=0");
#endif
    if (!tsanOptions.empty()) envStrings.push_back("TSAN_OPTIONS=" + tsanOptions);
    envStrings.insert(envStrings.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& entry : envStrings) envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, out[1]);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (spawned != 0) {
      close(out[0]);
      pid_ = -1;
      return false;
    }
    reader_ = std::thread([this, fd = out[0]] {
      char chunk[4096];
      ssize_t got;
      while ((got = read(fd, chunk, sizeof(chunk))) > 0) {
        std::lock_guard<std::mutex> hold(lock_);
        output_.append(chunk, static_cast<size_t>(got));
        changed_.notify_all();
      }
      close(fd);
      std::lock_guard<std::mutex> hold(lock_);
      ended_ = true;
      changed_.notify_all();
    });
    if (!waitForPort) return true;
    port_ = PortAfter("listening on http://127.0.0.1:");
    return port_ > 0;
  }

  int port() const { return port_; }
  // The TLS port, once its line is out; -1 when it never comes.
  int TlsPort() { return PortAfter("listening on https://127.0.0.1:"); }

  // Waits until the output holds `text` (or the output ends).
  bool WaitFor(const std::string& text, std::chrono::steady_clock::duration limit = kLimit) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, limit, [&] { return output_.find(text) != std::string::npos || ended_; }) &&
           output_.find(text) != std::string::npos;
  }

  std::string Output() {
    std::lock_guard<std::mutex> hold(lock_);
    return output_;
  }

  void Signal(int signal) {
    if (pid_ > 0) kill(pid_, signal);
  }

  // Waits for the process to end: its exit status, 128 + the signal that
  // ended it, or -1 when it was still running after `limit` (then killed).
  int Wait(std::chrono::steady_clock::duration limit = kLimit) {
    if (pid_ <= 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    pid_t done = 0;
    while ((done = waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(10ms);
    }
    if (done == 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      status = -1;
    } else {
      status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_ = -1;
    if (reader_.joinable()) reader_.join();
    return status;
  }

  // SIGTERM (or `signal`) and the exit status.
  int Stop(int signal = SIGTERM) {
    Signal(signal);
    return Wait();
  }

 private:
  int PortAfter(const std::string& prefix) {
    if (!WaitFor(prefix)) return -1;
    std::lock_guard<std::mutex> hold(lock_);
    const size_t at = output_.find(prefix) + prefix.size();
    return atoi(output_.c_str() + at);
  }

  qs_test::TempDir dir_;
  pid_t pid_ = -1;
  int port_ = -1;
  std::thread reader_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::string output_;
  bool ended_ = false;
};

// ---------------------------------------------------------------------------

using PlainTcp = beast::tcp_stream;
using TlsTcp = beast::ssl_stream<beast::tcp_stream>;

inline ssl::context& ClientTls() {
  static ssl::context context = [] {
    ssl::context made(ssl::context::tls_client);
    made.set_verify_mode(ssl::verify_none);  // the test's own self-signed certificate
    return made;
  }();
  return context;
}

// Runs asynchronous operations on an io_context of its own, each with a time
// limit, so a host that does not answer fails the test instead of hanging it.
class Io {
 protected:
  template <class Start, class Cancel>
  beast::error_code Await(Start&& start, Cancel&& cancel, std::chrono::steady_clock::duration limit = kLimit) {
    bool done = false;
    beast::error_code result;
    start([&done, &result](beast::error_code ec, auto&&...) {
      done = true;
      result = ec;
    });
    ioc_.restart();
    ioc_.run_for(limit);
    if (!done) {
      cancel();
      ioc_.restart();
      ioc_.run();
      return net::error::timed_out;
    }
    return result;
  }

  net::io_context ioc_;
};

struct HttpReply {
  int status = 0;  // 0: no reply
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  beast::error_code error;

  std::string Header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? std::string("<none>") : found->second;
  }
};

using Headers = std::vector<std::pair<std::string, std::string>>;

template <class Stream>
class BasicHttpClient : public Io {
 public:
  BasicHttpClient() : stream_(NewStream()) {}

  bool Connect(int port) {
    tcp::endpoint endpoint(net::ip::make_address_v4("127.0.0.1"), static_cast<unsigned short>(port));
    auto& socket = beast::get_lowest_layer(stream_);
    beast::error_code ec = Await([&](auto handler) { socket.async_connect(endpoint, std::move(handler)); },
                                 [&] { socket.cancel(); });
    if (ec) return false;
    if constexpr (std::is_same<Stream, TlsTcp>::value) {
      ec = Await([&](auto handler) { stream_.async_handshake(ssl::stream_base::client, std::move(handler)); },
                 [&] { socket.cancel(); });
    }
    return !ec;
  }

  // One request on the connection. `userAgent` empty: none is sent.
  HttpReply Send(http::verb verb, const std::string& target, const std::string& body = "",
                 const Headers& headers = {}, const std::string& userAgent = kAgent) {
    http::request<http::string_body> request{verb, target, 11};
    request.set(http::field::host, "127.0.0.1");
    if (!userAgent.empty()) request.set(http::field::user_agent, userAgent);
    for (const auto& header : headers) request.set(header.first, header.second);
    request.body() = body;
    bool chunked = false;
    for (const auto& header : headers) chunked |= beast::iequals(header.first, "Transfer-Encoding");
    if (!chunked && (verb == http::verb::post || verb == http::verb::put || !body.empty())) request.prepare_payload();
    return Write(request, verb == http::verb::head);
  }

  template <class Request>
  HttpReply Write(Request& request, bool head = false) {
    HttpReply reply;
    auto& socket = beast::get_lowest_layer(stream_);
    reply.error = Await([&](auto handler) { http::async_write(stream_, request, std::move(handler)); },
                        [&] { socket.cancel(); });
    if (reply.error) return reply;
    return Read(head);
  }

  HttpReply Read(bool head = false) {
    HttpReply reply;
    auto& socket = beast::get_lowest_layer(stream_);
    http::response_parser<http::string_body> parser;
    parser.body_limit(64 * 1024 * 1024);
    parser.skip(head);
    reply.error = Await([&](auto handler) { http::async_read(stream_, buffer_, parser, std::move(handler)); },
                        [&] { socket.cancel(); });
    if (reply.error) return reply;
    auto response = parser.release();
    reply.status = response.result_int();
    for (const auto& field : response) {
      std::string name(field.name_string());
      for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      reply.headers[name] = std::string(field.value());
    }
    reply.body = std::move(response.body());
    return reply;
  }

  // True when the server has closed the connection (a read finds its end).
  bool ClosedByServer() {
    auto& socket = beast::get_lowest_layer(stream_);
    char byte;
    beast::error_code ec = Await([&](auto handler) { stream_.async_read_some(net::buffer(&byte, 1), std::move(handler)); },
                                 [&] { socket.cancel(); }, 10s);
    return ec && ec != net::error::timed_out;
  }

  Stream& stream() { return stream_; }

 private:
  Stream NewStream() {
    if constexpr (std::is_same<Stream, TlsTcp>::value) {
      return Stream(ioc_, ClientTls());
    } else {
      return Stream(ioc_);
    }
  }

  Stream stream_;
  beast::flat_buffer buffer_;
};

using HttpClient = BasicHttpClient<PlainTcp>;
using HttpsClient = BasicHttpClient<TlsTcp>;

// One request on a connection of its own.
inline HttpReply HttpCall(int port, http::verb verb, const std::string& target, const std::string& body = "",
                          const Headers& headers = {}, const std::string& userAgent = kAgent) {
  HttpClient client;
  if (!client.Connect(port)) return HttpReply{};
  return client.Send(verb, target, body, headers, userAgent);
}

struct WsMessage {
  beast::error_code error;
  bool text = false;
  std::string payload;
};

template <class Stream>
class BasicWsClient : public Io {
 public:
  BasicWsClient() : ws_(NewStream()) {}

  bool Connect(int port, const std::string& target = "/kxp/", const std::string& userAgent = kAgent,
               const std::string& origin = "") {
    tcp::endpoint endpoint(net::ip::make_address_v4("127.0.0.1"), static_cast<unsigned short>(port));
    auto& socket = beast::get_lowest_layer(ws_);
    beast::error_code ec = Await([&](auto handler) { socket.async_connect(endpoint, std::move(handler)); },
                                 [&] { socket.cancel(); });
    if (ec) return false;
    if constexpr (std::is_same<Stream, TlsTcp>::value) {
      ec = Await([&](auto handler) { ws_.next_layer().async_handshake(ssl::stream_base::client, std::move(handler)); },
                 [&] { socket.cancel(); });
      if (ec) return false;
    }
    ws_.set_option(websocket::stream_base::decorator([userAgent, origin](websocket::request_type& request) {
      if (userAgent.empty()) {
        request.erase(http::field::user_agent);
      } else {
        request.set(http::field::user_agent, userAgent);
      }
      if (!origin.empty()) request.set(http::field::origin, origin);
    }));
    ec = Await([&](auto handler) { ws_.async_handshake("127.0.0.1", target, std::move(handler)); },
               [&] { socket.cancel(); });
    return !ec;
  }

  bool Send(const std::string& payload, bool text = true) {
    ws_.text(text);
    auto& socket = beast::get_lowest_layer(ws_);
    return !Await([&](auto handler) { ws_.async_write(net::buffer(payload), std::move(handler)); },
                  [&] { socket.cancel(); });
  }

  WsMessage Read() {
    WsMessage message;
    beast::flat_buffer buffer;
    auto& socket = beast::get_lowest_layer(ws_);
    message.error = Await([&](auto handler) { ws_.async_read(buffer, std::move(handler)); },
                          [&] { socket.cancel(); });
    message.text = ws_.got_text();
    message.payload = beast::buffers_to_string(buffer.data());
    return message;
  }

  // A text command and the text of the next frame.
  std::string Call(const std::string& command) {
    if (!Send(command)) return "<send failed>";
    WsMessage answer = Read();
    return answer.error ? "<" + answer.error.message() + ">" : answer.payload;
  }

  // The reason of the close frame the server sent, after a read ended.
  websocket::close_reason CloseReason() const { return ws_.reason(); }

 private:
  websocket::stream<Stream> NewStream() {
    if constexpr (std::is_same<Stream, TlsTcp>::value) {
      return websocket::stream<Stream>(ioc_, ClientTls());
    } else {
      return websocket::stream<Stream>(ioc_);
    }
  }

  websocket::stream<Stream> ws_;
};

using WsClient = BasicWsClient<PlainTcp>;
using WssClient = BasicWsClient<TlsTcp>;

// A port that was free a moment ago (bound to 0, then released).
inline int FreePort() {
  net::io_context ioc;
  tcp::acceptor acceptor(ioc, tcp::endpoint(net::ip::make_address_v4("127.0.0.1"), 0));
  return acceptor.local_endpoint().port();
}

}  // namespace qs_host_test
