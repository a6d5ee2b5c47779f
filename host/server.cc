#include "host/server.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <chrono>
#include <csignal>
#include <deque>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>

#include "host/answers.h"
#include "host/routes.h"
#include "host/status_page.h"

namespace qs_host {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

void Say(const std::string& line) {
  static std::mutex lock;
  std::lock_guard<std::mutex> hold(lock);
  std::cout << line << std::endl;
}

namespace {

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// Uploads (update packages) may be large; everything else is small.
constexpr std::uint64_t kBodyLimit = 64 * 1024 * 1024;
constexpr auto kIdleLimit = std::chrono::seconds(60);
constexpr auto kHandshakeLimit = std::chrono::seconds(30);
constexpr auto kStopGrace = std::chrono::seconds(2);
constexpr auto kStopPoll = std::chrono::milliseconds(10);

// The fixed answer of the load comparison: the same path through the host as
// a module answer, without the module.
constexpr char kBenchAnswer[] =
    "{\n   \"id\" : \"bench\",\n   \"method\" : \"Bench\",\n"
    "   \"result\" : [ \"a fixed answer of the host\", \"no module call\" ]\n}\n";

// Every open session, for the stop: each is told to finish, and the workers
// stop once none is left (or the grace has run out).
SinkRegistry& Sessions() {
  static SinkRegistry sessions;
  return sessions;
}

// What every session needs to know about the host.
struct HostContext {
  Module* module = nullptr;
  std::string alias;
  std::string page;
  bool cors = false;
  bool benchRoute = false;
  std::atomic<bool> stopping{false};
};

template <class Stream>
constexpr bool IsTls() {
  return std::is_same<Stream, TlsStream>::value;
}

template <class Name>
std::string Header(const Request& request, Name name) {
  auto found = request.find(name);
  return found == request.end() ? std::string() : std::string(found->value());
}

// The requesting page's origin, as far as the request tells it.
std::string DomainOf(const Request& request) {
  std::string origin = Header(request, http::field::origin);
  return origin.empty() ? Header(request, http::field::referer) : origin;
}

void AddCors(Response& response, const HostContext& host) {
  if (host.cors) response.set(http::field::access_control_allow_origin, "*");
}

Response MakeResponse(const Request& request, http::status status, std::string_view contentType, std::string body,
                      const HostContext& host) {
  Response response{status, request.version()};
  response.set(http::field::server, "qs-host");
  if (!contentType.empty()) response.set(http::field::content_type, contentType);
  response.set(http::field::cache_control, "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  AddCors(response, host);
  response.body() = std::move(body);
  return response;
}

Response Preflight(const Request& request, const HostContext& host) {
  Response response = MakeResponse(request, http::status::no_content, "", "", host);
  response.set(http::field::allow, "GET, POST, OPTIONS");
  if (host.cors) {
    response.set(http::field::access_control_allow_methods, "GET, POST, OPTIONS");
    std::string headers = Header(request, http::field::access_control_request_headers);
    response.set(http::field::access_control_allow_headers, headers.empty() ? "Content-Type" : headers);
    response.set(http::field::access_control_max_age, "600");
    // A page on a public origin asks before it may reach a loopback address.
    if (Header(request, "Access-Control-Request-Private-Network") == "true") {
      response.set("Access-Control-Allow-Private-Network", "true");
    }
  }
  return response;
}

// ---------------------------------------------------------------------------
// WebSocket: one connection index for the socket's whole life; every message
// is one request, every answer a text frame (and a binary frame for data).

template <class Stream>
class WsSession : public AnswerSink, public std::enable_shared_from_this<WsSession<Stream>> {
 public:
  WsSession(Stream&& stream, HostContext& host)
      : ws_(std::move(stream)), executor_(ws_.get_executor()), host_(host) {}

  ~WsSession() override {
    if (connection_ != 0) Sinks().Remove(connection_);
    if (session_ != 0) Sessions().Remove(session_);
  }

  void Run(Request request) {
    session_ = Sessions().Add(this->shared_from_this());
    url_ = std::string(request.target());
    browserType_ = BrowserTypeFor(Header(request, http::field::user_agent));
    domain_ = DomainOf(request);
    socket_ = beast::get_lowest_layer(ws_).socket().native_handle();
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    ws_.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(http::field::server, "qs-host"); }));
    ws_.read_message_max(kBodyLimit);
    ws_.async_accept(request, beast::bind_front_handler(&WsSession::OnAccept, this->shared_from_this()));
  }

  void Deliver(int connection, Answer answer) override {
    net::post(executor_, [self = this->shared_from_this(), connection, answer = std::move(answer)]() mutable {
      if (connection != self->connection_ || self->closing_) return;
      self->outbox_.push_back(Frame{true, std::move(answer.text)});
      if (!answer.data.empty()) self->outbox_.push_back(Frame{false, std::move(answer.data)});
      if (!self->writing_) self->WriteNext();
    });
  }

  void Shutdown() override {
    net::post(executor_, [self = this->shared_from_this()] {
      self->Close(websocket::close_reason(websocket::close_code::going_away, "the service stops"));
    });
  }

 private:
  struct Frame {
    bool text;
    std::string payload;
  };

  void* HandleForModule() { return static_cast<void*>(static_cast<AnswerSink*>(this)); }

  void OnAccept(beast::error_code ec) {
    if (ec) return;
    connection_ = Sinks().Add(this->shared_from_this());
    if (host_.stopping) return Close(websocket::close_reason(websocket::close_code::going_away, "the service stops"));
    Read();
  }

  void Read() { ws_.async_read(buffer_, beast::bind_front_handler(&WsSession::OnRead, this->shared_from_this())); }

  void OnRead(beast::error_code ec, std::size_t) {
    if (ec) return;  // closed by the peer, by Close() or by a failure
    const bool text = ws_.got_text();
    const std::string message = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    // A text message is the command; a binary message is a body without one.
    const std::string empty;
    const std::string& request = text ? message : empty;
    const unsigned char* body = text || message.empty() ? nullptr
                                                        : reinterpret_cast<const unsigned char*>(message.data());
    const unsigned int bodyLen = text ? 0 : static_cast<unsigned int>(message.size());
    try {
      host_.module->Distribute(connection_, HandleForModule(), url_, request, body, bodyLen, browserType_,
                               &SendBackToSink, socket_, domain_);
    } catch (const std::exception& e) {
      return CloseAfterAnswers(std::string("the module raised: ") + e.what());
    } catch (...) {
      return CloseAfterAnswers("the module raised an exception");
    }
    Read();
  }

  // Answers the module sent before it raised are posted already; the close
  // is posted behind them, so they go out first.
  void CloseAfterAnswers(std::string why) {
    // A close reason travels in a control frame of at most 125 bytes.
    if (why.size() > 120) why.resize(120);
    net::post(executor_, [self = this->shared_from_this(), why = std::move(why)] {
      self->Close(websocket::close_reason(websocket::close_code::internal_error, why));
    });
  }

  void WriteNext() {
    writing_ = true;
    ws_.text(outbox_.front().text);
    ws_.async_write(net::buffer(outbox_.front().payload),
                    beast::bind_front_handler(&WsSession::OnWrite, this->shared_from_this()));
  }

  void OnWrite(beast::error_code ec, std::size_t) {
    outbox_.pop_front();
    writing_ = false;
    if (ec) {
      outbox_.clear();
      return;
    }
    if (!outbox_.empty()) return WriteNext();
    if (pendingClose_) {
      pendingClose_ = false;
      StartClose();
    }
  }

  void Close(websocket::close_reason reason) {
    if (closing_) return;
    closing_ = true;
    closeReason_ = reason;
    if (writing_) {
      pendingClose_ = true;  // after the frame being written
      outbox_.resize(1);
      return;
    }
    outbox_.clear();
    StartClose();
  }

  void StartClose() {
    ws_.async_close(closeReason_, [self = this->shared_from_this()](beast::error_code) {});
  }

  websocket::stream<Stream> ws_;
  net::any_io_executor executor_;
  HostContext& host_;
  beast::flat_buffer buffer_;
  int connection_ = 0;
  std::string url_;
  int browserType_ = 0;
  std::string domain_;
  int socket_ = -1;
  std::deque<Frame> outbox_;
  bool writing_ = false;
  bool closing_ = false;
  bool pendingClose_ = false;
  websocket::close_reason closeReason_;
  int session_ = 0;
};

// ---------------------------------------------------------------------------
// HTTP: requests one after the other on a connection; each module request is
// an exchange with a connection index of its own, so a late answer can never
// be taken for the answer to a later request.

template <class Stream>
class HttpSession : public AnswerSink, public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  // Plain connections.
  HttpSession(tcp::socket&& socket, HostContext& host)
      : stream_(std::move(socket)), executor_(stream_.get_executor()), host_(host) {}
  // TLS connections.
  HttpSession(tcp::socket&& socket, ssl::context& tls, HostContext& host)
      : stream_(std::move(socket), tls), executor_(stream_.get_executor()), host_(host) {}

  ~HttpSession() override {
    if (exchange_ != 0) Sinks().Remove(exchange_);
    if (session_ != 0) Sessions().Remove(session_);
  }

  void Start() {
    net::dispatch(executor_, [self = this->shared_from_this()] {
      // Registered first, then the stop flag looked at: a stop that began
      // meanwhile either finds this session or is seen here.
      self->session_ = Sessions().Add(self);
      if (self->host_.stopping) return self->Drop();
      if constexpr (IsTls<Stream>()) {
        beast::get_lowest_layer(self->stream_).expires_after(kHandshakeLimit);
        self->stream_.async_handshake(ssl::stream_base::server,
                                      beast::bind_front_handler(&HttpSession::OnHandshake, self));
      } else {
        self->ReadHeader();
      }
    });
  }

  void Deliver(int connection, Answer answer) override {
    net::post(executor_, [self = this->shared_from_this(), connection, answer = std::move(answer)]() mutable {
      // Only the first answer of the exchange that is still waiting counts.
      if (connection == self->exchange_ && !self->answer_) self->answer_ = std::move(answer);
    });
  }

  // A request being answered is finished first (without keep-alive); an idle
  // or half-read connection is closed.
  void Shutdown() override {
    net::post(executor_, [self = this->shared_from_this()] {
      if (!self->busy_) self->Drop();
    });
  }

 private:
  void* HandleForModule() { return static_cast<void*>(static_cast<AnswerSink*>(this)); }

  void OnHandshake(beast::error_code ec) {
    if (ec) return;
    ReadHeader();
  }

  void ReadHeader() {
    parser_.emplace();
    parser_->body_limit(kBodyLimit);
    beast::get_lowest_layer(stream_).expires_after(kIdleLimit);
    http::async_read_header(stream_, buffer_, *parser_,
                            beast::bind_front_handler(&HttpSession::OnHeader, this->shared_from_this()));
  }

  void OnHeader(beast::error_code ec, std::size_t) {
    if (ec) return Drop();
    Request& request = parser_->get();
    if (websocket::is_upgrade(request)) {
      // The WebSocket takes the connection over; this session ends here.
      std::make_shared<WsSession<Stream>>(std::move(stream_), host_)->Run(parser_->release());
      return;
    }
    keepAlive_ = request.keep_alive();
    if (Classify(request.method_string(), request.target(), host_.benchRoute) == Route::kSetImage) {
      // A record is at most kImageRecordSize bytes; the module must never see
      // more, so a longer body is refused before it is read.
      parser_->body_limit(kImageRecordSize);
      auto length = parser_->content_length();
      if (length && *length > kImageRecordSize) return RefuseTooLarge();
    }
    if (beast::iequals(Header(request, http::field::expect), "100-continue")) {
      continue_ = std::make_shared<http::response<http::empty_body>>(http::status::continue_, request.version());
      http::async_write(stream_, *continue_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
        self->continue_.reset();
        if (ec) return self->Drop();
        self->ReadBody();
      });
      return;
    }
    ReadBody();
  }

  void ReadBody() {
    http::async_read(stream_, buffer_, *parser_,
                     beast::bind_front_handler(&HttpSession::OnBody, this->shared_from_this()));
  }

  void OnBody(beast::error_code ec, std::size_t) {
    if (ec == http::error::body_limit) return RefuseTooLarge();
    if (ec) return Drop();
    request_ = parser_->release();
    busy_ = true;
    Handle();
  }

  void RefuseTooLarge() {
    keepAlive_ = false;  // the body is left unread
    busy_ = true;
    Request& request = parser_->get();
    Send(MakeResponse(request, http::status::payload_too_large, "text/plain; charset=utf-8",
                      "an image record holds at most " + std::to_string(kImageRecordSize) + " bytes\n", host_),
         request.method() == http::verb::head);
  }

  void Handle() {
    const bool head = request_.method() == http::verb::head;
    switch (Classify(request_.method_string(), request_.target(), host_.benchRoute)) {
      case Route::kPreflight:
        return Send(Preflight(request_, host_), false);
      case Route::kStatusPage:
        return Send(MakeResponse(request_, http::status::ok, "text/html; charset=utf-8", host_.page, host_), head);
      case Route::kGetImage: {
        std::string record;
        if (host_.module->GetImage(std::string(request_.target()), &record)) {
          return Send(MakeResponse(request_, http::status::ok, "application/octet-stream", std::move(record), host_),
                      head);
        }
        return Send(MakeResponse(request_, http::status::not_found, "text/plain; charset=utf-8",
                                 "no image record under this GUID\n", host_),
                    head);
      }
      case Route::kSetImage: {
        // An empty body deletes the record.
        if (host_.module->SetImage(std::string(request_.target()), request_.body())) {
          return Send(MakeResponse(request_, http::status::no_content, "", "", host_), head);
        }
        return Send(MakeResponse(request_, http::status::bad_request, "text/plain; charset=utf-8",
                                 "the URL names no GUID\n", host_),
                    head);
      }
      case Route::kBench:
      case Route::kModule:
        return Exchange();
    }
  }

  // One request into the module. The module answers through SendBackToSink,
  // which posts the answer here; Finish is posted after the call returns, so
  // it runs after every answer given during the call.
  void Exchange() {
    exchange_ = Sinks().Add(this->shared_from_this());
    answer_.reset();
    std::string failure;
    bool raised = false;
    const std::string target(request_.target());
    if (Classify(request_.method_string(), target, host_.benchRoute) == Route::kBench) {
      SendBackToSink(exchange_, HandleForModule(), kBenchAnswer, nullptr, 0, nullptr);
    } else {
      const std::string& text = request_.body();
      const bool upload = IsUploadTarget(target) && !text.empty();
      try {
        host_.module->Distribute(exchange_, HandleForModule(), target, text,
                                 upload ? reinterpret_cast<const unsigned char*>(text.data()) : nullptr,
                                 upload ? static_cast<unsigned int>(text.size()) : 0,
                                 BrowserTypeFor(Header(request_, http::field::user_agent)), &SendBackToSink,
                                 beast::get_lowest_layer(stream_).socket().native_handle(), DomainOf(request_));
      } catch (const std::exception& e) {
        raised = true;
        failure = e.what();
      } catch (...) {
        raised = true;
        failure = "an exception of unknown type";
      }
    }
    net::post(executor_, [self = this->shared_from_this(), raised, failure = std::move(failure)] {
      self->Finish(raised, failure);
    });
  }

  void Finish(bool raised, const std::string& failure) {
    Sinks().Remove(exchange_);
    exchange_ = 0;
    const bool head = request_.method() == http::verb::head;
    if (raised) {
      return Send(MakeResponse(request_, http::status::bad_request, "text/plain; charset=utf-8",
                               "the module raised: " + failure + "\n", host_),
                  head);
    }
    if (!answer_) {
      return Send(MakeResponse(request_, http::status::internal_server_error, "text/plain; charset=utf-8",
                               "the module sent no answer\n", host_),
                  head);
    }
    Answer answer = std::move(*answer_);
    answer_.reset();
    if (answer.data.empty()) {
      std::string_view type = ContentTypeFor(answer.text);
      return Send(MakeResponse(request_, http::status::ok, type, std::move(answer.text), host_), head);
    }
    // Text and data in one body, split as the requests are: the text, a
    // blank line, then the data.
    std::string body = std::move(answer.text);
    body += "\r\n\r\n";
    body += answer.data;
    Send(MakeResponse(request_, http::status::ok, "application/octet-stream", std::move(body), host_), head);
  }

  void Send(Response response, bool head) {
    response.keep_alive(keepAlive_ && !host_.stopping);
    if (head) {
      // HEAD: the length of what GET would send, without the body.
      const auto length = response.body().size();
      response.body().clear();
      response.content_length(length);
    } else {
      response.prepare_payload();
    }
    response_ = std::make_shared<Response>(std::move(response));
    http::async_write(stream_, *response_,
                      beast::bind_front_handler(&HttpSession::OnWrite, this->shared_from_this(),
                                                !response_->keep_alive()));
  }

  void OnWrite(bool close, beast::error_code ec, std::size_t) {
    response_.reset();
    busy_ = false;
    if (ec) return Drop();
    if (close || host_.stopping) return End();
    ReadHeader();
  }

  // The orderly end after a last response.
  void End() {
    if constexpr (IsTls<Stream>()) {
      beast::get_lowest_layer(stream_).expires_after(std::chrono::seconds(5));
      stream_.async_shutdown([self = this->shared_from_this()](beast::error_code) { self->Drop(); });
    } else {
      beast::error_code ignored;
      stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    }
  }

  void Drop() {
    beast::error_code ignored;
    beast::get_lowest_layer(stream_).socket().close(ignored);
  }

  Stream stream_;
  net::any_io_executor executor_;
  HostContext& host_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  Request request_;
  bool keepAlive_ = true;
  int exchange_ = 0;
  std::optional<Answer> answer_;
  std::shared_ptr<Response> response_;
  std::shared_ptr<http::response<http::empty_body>> continue_;
  bool busy_ = false;  // from a complete request until its response is out
  int session_ = 0;
};

// ---------------------------------------------------------------------------

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(net::io_context& ioc, HostContext& host, ssl::context* tls)
      : ioc_(ioc), acceptor_(net::make_strand(ioc)), host_(host), tls_(tls) {}

  // Binds 127.0.0.1:port; returns the bound port, or -1 with `ec` set.
  int Bind(int port, beast::error_code& ec) {
    const tcp::endpoint endpoint(net::ip::make_address_v4("127.0.0.1"), static_cast<unsigned short>(port));
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
      beast::error_code ignored;
      acceptor_.close(ignored);
      return -1;
    }
    return acceptor_.local_endpoint().port();
  }

  void Accept() {
    acceptor_.async_accept(net::make_strand(ioc_),
                           beast::bind_front_handler(&Listener::OnAccept, shared_from_this()));
  }

  void Close() {
    net::post(acceptor_.get_executor(), [self = shared_from_this()] {
      beast::error_code ignored;
      self->acceptor_.close(ignored);
    });
  }

 private:
  void OnAccept(beast::error_code ec, tcp::socket socket) {
    if (ec == net::error::operation_aborted || !acceptor_.is_open()) return;
    if (!ec) {
      if (tls_ != nullptr) {
        std::make_shared<HttpSession<TlsStream>>(std::move(socket), *tls_, host_)->Start();
      } else {
        std::make_shared<HttpSession<PlainStream>>(std::move(socket), host_)->Start();
      }
    }
    Accept();
  }

  net::io_context& ioc_;
  tcp::acceptor acceptor_;
  HostContext& host_;
  ssl::context* tls_;
};

// Tries each port in turn; the next is tried only when one is taken.
int BindFirstFree(Listener& listener, const std::vector<int>& ports, std::string* why) {
  for (int port : ports) {
    beast::error_code ec;
    const int bound = listener.Bind(port, ec);
    if (bound >= 0) return bound;
    *why += (why->empty() ? "" : "; ") + std::string("port ") + std::to_string(port) + ": " + ec.message();
    if (ec != net::error::address_in_use) break;
  }
  return -1;
}

bool FileExists(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

}  // namespace

struct Server::Impl {
  Impl(Module& module, ServerOptions options)
      : module(module),
        options(std::move(options)),
        ioc(std::max(1, this->options.threads)),
        tls(ssl::context::tls_server),
        signals(ioc, SIGINT, SIGTERM),
        housekeeping(net::make_strand(ioc)),
        graceTimer(ioc) {}

  void Housekeep() {
    Sinks().Sweep();
    // The module answers 1 while it is busy (or was, within 30 s) and 100
    // when idle: 10 ms or one second between rounds.
    const int wait = std::clamp(module.WaitTimeout(), 1, 1000);
    housekeeping.expires_after(std::chrono::milliseconds(wait * 10));
    housekeeping.async_wait([this](beast::error_code ec) {
      if (!ec && !host.stopping) Housekeep();
    });
  }

  void BeginStop(int signal) {
    if (host.stopping.exchange(true)) return;
    stopSignal = signal;
    Say("qs-host: stopping (signal " + std::to_string(signal) + ")");
    for (auto& listener : listeners) listener->Close();
    net::post(housekeeping.get_executor(), [this] { housekeeping.cancel(); });
    // Requests being answered finish, idle connections close, WebSockets get
    // a close frame. The workers stop when no session is left, or after the
    // grace (a command in progress still finishes: the workers stop only
    // between handlers).
    for (auto& session : Sessions().Live()) session->Shutdown();
    graceEnd = std::chrono::steady_clock::now() + kStopGrace;
    WaitForSessions();
  }

  void WaitForSessions() {
    if (Sessions().Sweep() == 0 || std::chrono::steady_clock::now() >= graceEnd) return ioc.stop();
    graceTimer.expires_after(kStopPoll);
    graceTimer.async_wait([this](beast::error_code) { WaitForSessions(); });
  }

  Module& module;
  ServerOptions options;
  net::io_context ioc;
  ssl::context tls;
  bool tlsOn = false;
  net::signal_set signals;
  net::steady_timer housekeeping;
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
  s.host.module = &s.module;
  s.host.alias = s.module.Alias();
  s.host.page = StatusPage(s.host.alias);
  s.host.cors = s.module.CorsForAllOrigins();
  s.host.benchRoute = s.options.benchRoute;

  // Plain HTTP and WebSocket.
  std::vector<int> plainPorts;
  if (s.options.port >= 0) {
    plainPorts = {s.options.port};
  } else {
    plainPorts = s.options.portPair.empty() ? s.module.DefaultPorts(false) : s.options.portPair;
  }
  auto plain = std::make_shared<Listener>(s.ioc, s.host, nullptr);
  std::string why;
  const int plainPort = plainPorts.empty() ? -1 : BindFirstFree(*plain, plainPorts, &why);
  if (plainPort < 0) {
    *error = "cannot listen on 127.0.0.1 (" + (why.empty() ? std::string("no port to try") : why) + ")";
    return false;
  }
  s.listeners.push_back(plain);

  // HTTPS and WSS, when the certificate folder holds the certificate and key.
  std::string certFolder = s.module.CertFolder();
  if (certFolder.empty()) certFolder = s.options.exeFolder + "cert/";
  const std::string certFile = certFolder + "server.pem";
  const std::string keyFile = certFolder + "server_key.pem";
  int tlsPort = -1;
  std::string tlsOff;
  if (!FileExists(certFile) || !FileExists(keyFile)) {
    tlsOff = "no server.pem and server_key.pem in " + certFolder;
  } else {
    beast::error_code ec;
    s.tls.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                      ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
    s.tls.use_certificate_chain_file(certFile, ec);
    if (!ec) s.tls.use_private_key_file(keyFile, ssl::context::pem, ec);
    if (ec) {
      tlsOff = "cannot use " + certFile + " with " + keyFile + ": " + ec.message();
    } else {
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
      auto secure = std::make_shared<Listener>(s.ioc, s.host, &s.tls);
      std::string tlsWhy;
      tlsPort = tlsPorts.empty() ? -1 : BindFirstFree(*secure, tlsPorts, &tlsWhy);
      if (tlsPort < 0) {
        tlsOff = "cannot listen for TLS (" + tlsWhy + ")";
      } else {
        s.listeners.push_back(secure);
        s.tlsOn = true;
      }
    }
  }

  Say("qs-host: module " + s.module.path() + " (alias \"" + s.host.alias + "\", " + s.module.VersionDesc() + ")");
  Say(std::string("qs-host: CORS for all origins ") +
      (s.module.HasCorsSwitch() ? (s.host.cors ? "on" : "off") : "off (the module has no EnableCORSAll switch)"));
  if (!s.tlsOn) Say("qs-host: TLS off: " + tlsOff);
  const std::string base = "http://127.0.0.1:" + std::to_string(plainPort) + "/";
  Say("listening on " + base);
  if (s.tlsOn) Say("listening on https://127.0.0.1:" + std::to_string(tlsPort) + "/");
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
  net::post(s.housekeeping.get_executor(), [&s] { s.Housekeep(); });

  std::vector<std::thread> workers;
  for (int i = 1; i < s.options.threads; ++i) workers.emplace_back([&s] { s.ioc.run(); });
  s.ioc.run();
  for (auto& worker : workers) worker.join();
  return s.stopSignal;
}

}  // namespace qs_host
