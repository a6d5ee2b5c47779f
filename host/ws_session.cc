#include "host/ws_session.h"

#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>
#include <memory>

#include "host/answers.h"
#include "host/routes.h"

namespace qs_host {

namespace websocket = beast::websocket;

namespace {

// A message's first piece is read before it is counted; further pieces are
// counted before they are read.
constexpr std::size_t kFirstPiece = 4096;
constexpr std::size_t kPiece = 64 * 1024;

template <class Stream>
class WsSession : public AnswerSink, public Connection, public std::enable_shared_from_this<WsSession<Stream>> {
 public:
  WsSession(Stream&& stream, HostContext& host)
      : ws_(std::move(stream)), executor_(ws_.get_executor()), host_(host), lease_(host.budget) {}

  ~WsSession() override {
    if (connection_ != 0) Sinks().Remove(connection_);
    if (tableId_ != 0) host_.connections.Remove(tableId_);
  }

  void Run(Request request) {
    tableId_ = host_.connections.Add(this->shared_from_this());
    url_ = std::string(request.target());
    browserType_ = BrowserTypeFor(Header(request, http::field::user_agent));
    domain_ = DomainOf(request);
    socket_ = beast::get_lowest_layer(ws_).socket().native_handle();
    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = std::chrono::seconds(host_.limits.headSeconds);
    timeouts.idle_timeout = std::chrono::seconds(host_.limits.idleSeconds);
    timeouts.keep_alive_pings = true;  // a live page answers pings; a dead peer goes
    ws_.set_option(timeouts);
    ws_.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(http::field::server, "qs-host"); }));
    ws_.read_message_max(IsUploadTarget(url_) ? kUploadBodyLimit : kCommandBodyLimit);
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

  void Evict() override {
    net::post(executor_, [self = this->shared_from_this()] {
      self->Close(websocket::close_reason(websocket::close_code::try_again_later, "too many connections"));
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
    accepted_ = true;
    connection_ = Sinks().Add(this->shared_from_this());
    // A stop or an eviction may have come while the handshake's last bytes
    // were on their way: its close frame goes out now.
    if (closing_) return StartClose();
    if (host_.stopping) return Close(websocket::close_reason(websocket::close_code::going_away, "the service stops"));
    Read();
  }

  // A message is read piece by piece. Its bytes come out of the budget as
  // they arrive, the room for each further piece before it is read; a message
  // that does not fit closes the socket with 1013.
  void Read() {
    host_.connections.SetIdle(tableId_, true);
    ReadPiece(kFirstPiece);
  }

  void ReadPiece(std::size_t most) {
    ws_.async_read_some(buffer_, most, beast::bind_front_handler(&WsSession::OnPiece, this->shared_from_this()));
  }

  // A message over the limit fails the read; the stream has then sent the
  // close frame with 1009 itself.
  void OnPiece(beast::error_code ec, std::size_t) {
    if (ec) return;
    host_.connections.SetIdle(tableId_, false);
    const bool done = ws_.is_message_done();
    if (!lease_.Resize(buffer_.size() + (done ? 0 : kPiece))) {
      buffer_.consume(buffer_.size());
      lease_.Release();
      return Close(websocket::close_reason(websocket::close_code::try_again_later,
                                           "the service holds as many messages as it may"));
    }
    if (!done) return ReadPiece(kPiece);
    const bool text = ws_.got_text();
    const std::size_t size = buffer_.size();
    // A command goes to the module as text, ending at a 0 byte placed after
    // the message; a binary message is a body without command. Neither is
    // copied on the way.
    if (text) *static_cast<char*>(buffer_.prepare(1).data()) = '\0';
    const char* bytes = static_cast<const char*>(buffer_.data().data());
    const unsigned char* body = text || size == 0 ? nullptr : reinterpret_cast<const unsigned char*>(bytes);
    std::string failure;
    try {
      host_.module->Distribute(connection_, HandleForModule(), url_, text ? bytes : "", body,
                               text ? 0 : static_cast<unsigned int>(size), browserType_, &SendBackToSink, socket_,
                               domain_);
    } catch (const std::exception& e) {
      failure = std::string("the module raised: ") + e.what();
    } catch (...) {
      failure = "the module raised an exception";
    }
    buffer_.consume(size);
    if (buffer_.capacity() > kFirstPiece) buffer_.shrink_to_fit();
    lease_.Release();
    host_.afterModuleCall();
    if (!failure.empty()) return CloseAfterAnswers(std::move(failure));
    Read();
  }

  // Answers the module sent before it raised are posted already; the close
  // is posted behind them, so they go out first.
  void CloseAfterAnswers(std::string why) {
    if (why.size() > 120) why.resize(120);  // a close reason fits a 125-byte control frame
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
    if (!accepted_) return;  // OnAccept sends it
    if (writing_) {
      pendingClose_ = true;  // after the frame being written
      outbox_.resize(1);
      return;
    }
    outbox_.clear();
    StartClose();
  }

  void StartClose() {
    if (!ws_.is_open()) return;
    ws_.async_close(closeReason_, [self = this->shared_from_this()](beast::error_code) {});
  }

  websocket::stream<Stream> ws_;
  net::any_io_executor executor_;
  HostContext& host_;
  BodyLease lease_;  // what the message being read holds of the budget
  beast::flat_buffer buffer_;
  int connection_ = 0;
  int tableId_ = 0;
  std::string url_;
  int browserType_ = 0;
  std::string domain_;
  int socket_ = -1;
  std::deque<Frame> outbox_;
  bool accepted_ = false;  // the handshake is done; a close frame may be sent
  bool writing_ = false;
  bool closing_ = false;
  bool pendingClose_ = false;
  websocket::close_reason closeReason_;
};

}  // namespace

template <class Stream>
void StartWebSocket(Stream&& stream, Request request, HostContext& host) {
  std::make_shared<WsSession<Stream>>(std::move(stream), host)->Run(std::move(request));
}

template void StartWebSocket<PlainStream>(PlainStream&&, Request, HostContext&);
template void StartWebSocket<TlsStream>(TlsStream&&, Request, HostContext&);

}  // namespace qs_host
