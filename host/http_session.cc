#include "host/http_session.h"

#include <boost/beast/websocket/rfc6455.hpp>
#include <limits>
#include <memory>
#include <type_traits>

#include "host/answers.h"
#include "host/routes.h"
#include "host/status_page.h"
#include "host/ws_session.h"

namespace qs_host {

namespace {

// The fixed answer of the load comparison: the same path through the host as
// a module answer, without the module.
constexpr char kBenchAnswer[] =
    "{\n   \"id\" : \"bench\",\n   \"method\" : \"Bench\",\n"
    "   \"result\" : [ \"a fixed answer of the host\", \"no module call\" ]\n}\n";

// The room an idle connection reads the next request's first bytes into.
constexpr std::size_t kIdleBuffer = 4096;

template <class Stream>
constexpr bool IsTls() {
  return std::is_same<Stream, TlsStream>::value;
}

// The status a parse failure is answered with; 0 for failures of the
// connection itself (end of stream, time-out, reset), which get no answer.
http::status StatusForParseError(const beast::error_code& ec) {
  if (ec.category() != http::make_error_code(http::error::end_of_stream).category()) return http::status::unknown;
  if (ec == http::error::end_of_stream || ec == http::error::partial_message) return http::status::unknown;
  if (ec == http::error::header_limit) return http::status::request_header_fields_too_large;
  if (ec == http::error::body_limit) return http::status::payload_too_large;
  return http::status::bad_request;
}

template <class Stream>
class HttpSession : public AnswerSink, public Connection, public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  HttpSession(tcp::socket&& socket, HostContext& host)
      : stream_(std::move(socket)), executor_(stream_.get_executor()), host_(host), lease_(host.budget) {}
  HttpSession(tcp::socket&& socket, ssl::context& tls, HostContext& host)
      : stream_(std::move(socket), tls), executor_(stream_.get_executor()), host_(host), lease_(host.budget) {}

  ~HttpSession() override {
    if (exchange_ != 0) Sinks().Remove(exchange_);
    if (tableId_ != 0) host_.connections.Remove(tableId_);
  }

  void Start() {
    net::dispatch(executor_, [self = this->shared_from_this()] {
      // Registered first, then the stop flag looked at: a stop that began
      // meanwhile either finds this session or is seen here.
      self->tableId_ = self->host_.connections.Add(self);
      if (self->host_.stopping) return self->Drop();
      if constexpr (IsTls<Stream>()) {
        self->Expire(self->host_.limits.headSeconds);
        self->stream_.async_handshake(ssl::stream_base::server,
                                      beast::bind_front_handler(&HttpSession::OnHandshake, self));
      } else {
        self->WaitForRequest();
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

  void Evict() override {
    net::post(executor_, [self = this->shared_from_this()] {
      if (!self->busy_) self->Drop();
    });
  }

 private:
  void* HandleForModule() { return static_cast<void*>(static_cast<AnswerSink*>(this)); }

  void Expire(int seconds) { beast::get_lowest_layer(stream_).expires_after(std::chrono::seconds(seconds)); }

  void OnHandshake(beast::error_code ec) {
    if (ec) return Drop();
    WaitForRequest();
  }

  // Idle until the next request's first byte (bytes already buffered count),
  // then the head must be complete within the head limit.
  void WaitForRequest() {
    host_.connections.SetIdle(tableId_, true);
    if (buffer_.size() > 0) return ReadHeader();
    Expire(host_.limits.idleSeconds);
    if (buffer_.capacity() > kIdleBuffer) buffer_.shrink_to_fit();  // an idle connection keeps no room a body needed
    stream_.async_read_some(buffer_.prepare(kIdleBuffer), [self = this->shared_from_this()](beast::error_code ec,
                                                                                        std::size_t n) {
      if (ec) return self->Drop();
      self->buffer_.commit(n);
      self->ReadHeader();
    });
  }

  void ReadHeader() {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(host_.limits.headerBytes));
    // The route's limit is applied once the head names the route. (A limit
    // of none would be compared as smaller than any length here.)
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    Expire(host_.limits.headSeconds);
    http::async_read_header(stream_, buffer_, *parser_,
                            beast::bind_front_handler(&HttpSession::OnHeader, this->shared_from_this()));
  }

  void OnHeader(beast::error_code ec, std::size_t) {
    if (ec) return RefuseMalformed(ec);
    host_.connections.SetIdle(tableId_, false);
    busy_ = true;
    Request& request = parser_->get();
    keepAlive_ = request.keep_alive();
    if (auto refusal = CheckRequest(request, host_, &verdict_)) return SendAndClose(std::move(*refusal));
    // Content-Length and Transfer-Encoding together, or a transfer coding
    // other than chunked, leave the body's length in doubt.
    const bool hasLength = request.find(http::field::content_length) != request.end();
    const auto coding = request.find(http::field::transfer_encoding);
    if (coding != request.end() && (hasLength || !beast::iequals(coding->value(), "chunked"))) {
      return SendAndClose(TextResponse(request, verdict_, http::status::bad_request, "conflicting body length\n"));
    }
    if (beast::websocket::is_upgrade(request)) {
      // The WebSocket takes the connection over; this session ends here.
      StartWebSocket(std::move(stream_), parser_->release(), host_);
      return;
    }
    route_ = Classify(request.method_string(), request.target(), host_.benchRoute);
    const std::uint64_t limit = BodyLimitFor(route_, request.target());
    parser_->body_limit(limit);
    const auto length = parser_->content_length();
    if (length && *length > limit) return RefuseTooLarge(limit);
    // The body's bytes come out of the budget before any of it is read; a
    // chunked body, of unknown length, takes the route's limit.
    if (!lease_.Resize(length ? *length : parser_->chunked() ? limit : 0)) return RefuseBusy();
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
    Expire(host_.limits.idleSeconds);
    http::async_read(stream_, buffer_, *parser_,
                     beast::bind_front_handler(&HttpSession::OnBody, this->shared_from_this()));
  }

  void OnBody(beast::error_code ec, std::size_t) {
    if (ec == http::error::body_limit) return RefuseTooLarge(BodyLimitFor(route_, parser_->get().target()));
    if (ec) return Drop();
    request_ = parser_->release();
    Handle();
  }

  // A head that cannot be parsed is answered, then the connection closed;
  // a connection that failed or timed out is just closed.
  void RefuseMalformed(const beast::error_code& ec) {
    const http::status status = StatusForParseError(ec);
    if (status == http::status::unknown || !beast::get_lowest_layer(stream_).socket().is_open()) return Drop();
    busy_ = true;
    Request bare;
    bare.version(11);
    SendAndClose(TextResponse(bare, OriginVerdict::kNoOrigin, status,
                              std::string(http::obsolete_reason(status)) + "\n"));
  }

  void RefuseTooLarge(std::uint64_t limit) {
    Request& request = parser_->get();
    const std::string what = route_ == Route::kSetImage ? "an image record holds" : "this request takes";
    SendAndClose(TextResponse(request, verdict_, http::status::payload_too_large,
                              what + " at most " + std::to_string(limit) + " bytes\n"));
  }

  void RefuseBusy() {
    Response response = TextResponse(parser_->get(), verdict_, http::status::service_unavailable,
                                     "the service holds as many request bodies as it may; try again in a moment\n");
    response.set(http::field::retry_after, std::to_string(kRetryAfterSeconds));
    SendAndClose(std::move(response));
  }

  // A refusal of RecordStatus or RecordBook::Set.
  void RefuseRecord(int status, bool head) {
    switch (status) {
      case 414:
        return Send(TextResponse(request_, verdict_, http::status::uri_too_long,
                                 "an image-record GUID holds at most " + std::to_string(kMaxGuidBytes) + " bytes\n"),
                    head);
      case 507:
        return Send(TextResponse(request_, verdict_, http::status::insufficient_storage,
                                 "this service stores at most " + std::to_string(host_.limits.maxRecords) +
                                     " image records; overwrite or delete one first\n"),
                    head);
      default:
        return Send(TextResponse(request_, verdict_, http::status::bad_request, "the URL names no GUID\n"), head);
    }
  }

  // The body has been handed on: its bytes go back to the budget.
  void ReleaseBody() {
    std::string().swap(request_.body());
    lease_.Release();
  }

  void SendAndClose(Response response) {
    keepAlive_ = false;  // whatever follows on the connection is left unread
    Send(std::move(response), false);
  }

  void Handle() {
    const bool head = request_.method() == http::verb::head;
    switch (route_) {
      case Route::kPreflight:
        return Send(Preflight(request_, verdict_), false);
      case Route::kStatusPage:
        return Send(MakeResponse(request_, verdict_, http::status::ok, "text/html; charset=utf-8", host_.page), head);
      case Route::kClientScript:
        return Send(MakeResponse(request_, verdict_, http::status::ok, "text/javascript; charset=utf-8",
                                 std::string(ClientScript())),
                    head);
      case Route::kGetImage: {
        if (const int refusal = RecordStatus(RecordGuid(request_.target()).size(), false, false, 0, 0)) {
          return RefuseRecord(refusal, head);
        }
        std::string record;
        if (host_.module->GetImage(std::string(request_.target()), &record)) {
          return Send(MakeResponse(request_, verdict_, http::status::ok, "application/octet-stream",
                                   std::move(record)),
                      head);
        }
        return Send(TextResponse(request_, verdict_, http::status::not_found, "no image record under this GUID\n"),
                    head);
      }
      case Route::kSetImage:
        // An empty body deletes the record.
        if (const int refusal = host_.records.Set(*host_.module, std::string(request_.target()), request_.body())) {
          return RefuseRecord(refusal, head);
        }
        return Send(MakeResponse(request_, verdict_, http::status::no_content, "", ""), head);
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
    if (route_ == Route::kBench) {
      SendBackToSink(exchange_, HandleForModule(), kBenchAnswer, nullptr, 0, nullptr);
    } else {
      const std::string target(request_.target());
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
      host_.afterModuleCall();
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
      return Send(TextResponse(request_, verdict_, http::status::bad_request, "the module raised: " + failure + "\n"),
                  head);
    }
    if (!answer_) {
      return Send(TextResponse(request_, verdict_, http::status::internal_server_error, "the module sent no answer\n"),
                  head);
    }
    Answer answer = std::move(*answer_);
    answer_.reset();
    if (answer.data.empty()) {
      const std::string_view type = ContentTypeFor(answer.text);
      return Send(MakeResponse(request_, verdict_, http::status::ok, type, std::move(answer.text)), head);
    }
    // Text and data in one body, split as the requests are: the text, a
    // blank line, then the data.
    std::string body = std::move(answer.text);
    body += "\r\n\r\n";
    body += answer.data;
    Send(MakeResponse(request_, verdict_, http::status::ok, "application/octet-stream", std::move(body)), head);
  }

  void Send(Response response, bool head) {
    ReleaseBody();
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
    Expire(host_.limits.idleSeconds);
    http::async_write(stream_, *response_,
                      beast::bind_front_handler(&HttpSession::OnWrite, this->shared_from_this(),
                                                !response_->keep_alive()));
  }

  void OnWrite(bool close, beast::error_code ec, std::size_t) {
    response_.reset();
    busy_ = false;
    if (ec) return Drop();
    if (close || host_.stopping) return End();
    WaitForRequest();
  }

  // The orderly end after a last response. What the peer still sends (the
  // unread body of a refused request) is read and dropped for a moment before
  // the socket closes: closing with unread bytes would reset the connection
  // and could cost the peer the response.
  void End() {
    if constexpr (IsTls<Stream>()) {
      Expire(5);
      stream_.async_shutdown([self = this->shared_from_this()](beast::error_code) { self->Drop(); });
    } else {
      beast::error_code ignored;
      stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
      Expire(2);
      Linger();
    }
  }

  void Linger() {
    buffer_.clear();
    stream_.async_read_some(buffer_.prepare(16384), [self = this->shared_from_this()](beast::error_code ec,
                                                                                      std::size_t) {
      if (ec) return self->Drop();
      self->Linger();
    });
  }

  void Drop() {
    beast::error_code ignored;
    beast::get_lowest_layer(stream_).socket().close(ignored);
  }

  Stream stream_;
  net::any_io_executor executor_;
  HostContext& host_;
  BodyLease lease_;  // what the request being read or handled holds of the budget
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  Request request_;
  Route route_ = Route::kModule;
  OriginVerdict verdict_ = OriginVerdict::kNoOrigin;
  bool keepAlive_ = true;
  int exchange_ = 0;
  int tableId_ = 0;
  std::optional<Answer> answer_;
  std::shared_ptr<Response> response_;
  std::shared_ptr<http::response<http::empty_body>> continue_;
  bool busy_ = false;  // from a complete head until its response is out
};

}  // namespace

void StartPlainSession(tcp::socket&& socket, HostContext& host) {
  std::make_shared<HttpSession<PlainStream>>(std::move(socket), host)->Start();
}

void StartTlsSession(tcp::socket&& socket, ssl::context& tls, HostContext& host) {
  std::make_shared<HttpSession<TlsStream>>(std::move(socket), tls, host)->Start();
}

}  // namespace qs_host
