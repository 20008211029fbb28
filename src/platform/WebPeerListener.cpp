#include "platform/WebPeerListener.h"

#include <algorithm>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <cstring>
#include <deque>
#include <system_error>
#include <vector>

namespace parlavox::platform {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = beast::error_code;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;
using Request = http::request<http::string_body>;

constexpr auto kRequestTimeout = std::chrono::seconds(30);
// A session that cannot take a message for this long is gone, whatever TCP thinks.
constexpr auto kStuckLimit = std::chrono::seconds(2);
// Audio that has waited this long to be written is worth less than the audio behind it.
constexpr auto kAudioBacklog = std::chrono::milliseconds(200);
constexpr std::size_t kMaxMessage = 65536;
constexpr std::uint8_t kAudioKind = 0x02;  // the first byte of an audio datagram

PeerAddress addressOf(Transport* transport, const tcp::endpoint& remote, std::uint64_t slot) {
  PeerAddress address;
  address.transport = transport;
  const asio::ip::address_v6 host =
      remote.address().is_v6()
          ? remote.address().to_v6()
          : asio::ip::make_address_v6(asio::ip::v4_mapped, remote.address().to_v4());
  const auto bytes = host.to_bytes();
  std::memcpy(address.host.bytes.data(), bytes.data(), address.host.bytes.size());
  address.slot = slot;
  return address;
}

template <typename Body>
void prepare(http::response<Body>& response, const Request& request) {
  response.set(http::field::server, "parlavox");
  response.set(http::field::cache_control, "no-store");
  response.keep_alive(request.keep_alive());
  response.prepare_payload();
}

}  // namespace

// One WebSocket: at /intercom a peer of the relay, at a feed a reader of what is published.
class WebPeerListener::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(WebPeerListener& owner, TlsStream stream, PeerAddress address, std::string feed)
      : owner_(&owner),
        alive_(owner.alive_),
        socket_(std::move(stream)),
        stuck_(socket_.get_executor()),
        address_(address),
        feed_(std::move(feed)) {}

  const PeerAddress& address() const { return address_; }
  const std::string& feed() const { return feed_; }
  bool reader() const { return !feed_.empty(); }

  void start(const Request& request) {
    beast::get_lowest_layer(socket_).expires_never();
    socket_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    socket_.read_message_max(kMaxMessage);
    reader() ? socket_.text(true) : socket_.binary(true);
    socket_.async_accept(request, [self = shared_from_this()](ErrorCode error) {
      if (error || !self->alive_.lock()) {
        return;  // never a peer: nothing to report
      }
      self->owner_->opened(self);
      self->read();
    });
  }

  void send(Bytes head, Bytes body) {
    if (ended_) {
      return;
    }
    const bool audio = !head.empty() && head[0] == kAudioKind;
    const auto now = std::chrono::steady_clock::now();
    if (audio) {
      // The oldest audio not already being written goes first; control messages always stay.
      std::erase_if(queue_, [&, first = writing_ ? &queue_.front() : nullptr](const Message& m) {
        return m.audio && &m != first && now - m.queued > kAudioBacklog;
      });
    }
    Message message{std::vector<std::uint8_t>(head.begin(), head.end()), audio, now};
    message.bytes.insert(message.bytes.end(), body.begin(), body.end());
    queue_.push_back(std::move(message));
    write();
  }

  // A reader wants the newest text only: what it has not begun to write is outdated.
  void publish(std::string_view text) {
    if (ended_) {
      return;
    }
    queue_.erase(queue_.begin() + (writing_ ? 1 : 0), queue_.end());
    queue_.push_back({std::vector<std::uint8_t>(text.begin(), text.end()), false, {}});
    write();
  }

  // The relay let it go, or it failed: closed without a word more to the relay.
  void close() {
    ended_ = true;
    queue_.clear();
    stuck_.cancel();
    ErrorCode ignored;
    beast::get_lowest_layer(socket_).socket().close(ignored);
  }

 private:
  struct Message {
    std::vector<std::uint8_t> bytes;
    bool audio = false;
    std::chrono::steady_clock::time_point queued;
  };

  void read() {
    socket_.async_read(in_, [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
      self->received(error);
    });
  }

  void received(ErrorCode error) {
    const auto owner = alive_.lock();
    if (!owner || ended_) {
      return;
    }
    if (error) {
      fail();
      return;
    }
    if (!reader() && socket_.got_binary()) {
      const auto data = in_.cdata();
      owner_->peers_->deliver(address_,
                              Bytes(static_cast<const std::uint8_t*>(data.data()), data.size()));
    }
    in_.consume(in_.size());
    if (!ended_) {
      read();
    }
  }

  void write() {
    if (writing_ || queue_.empty() || ended_) {
      return;
    }
    writing_ = true;
    stuck_.expires_after(kStuckLimit);
    stuck_.async_wait([self = shared_from_this()](ErrorCode error) {
      if (!error && self->writing_ && self->alive_.lock()) {
        self->fail();
      }
    });
    socket_.async_write(asio::buffer(queue_.front().bytes),
                        [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                          self->written(error);
                        });
  }

  void written(ErrorCode error) {
    writing_ = false;
    stuck_.cancel();
    if (ended_ || !alive_.lock()) {
      return;
    }
    queue_.pop_front();
    if (error) {
      fail();
      return;
    }
    write();
  }

  // Gone by its own doing (closed, reset, stuck): the relay hears of it once.
  void fail() {
    if (ended_) {
      return;
    }
    const auto self = shared_from_this();
    close();
    owner_->closed(*this);
  }

  WebPeerListener* owner_;
  std::weak_ptr<bool> alive_;
  websocket::stream<TlsStream> socket_;
  asio::steady_timer stuck_;
  PeerAddress address_;
  const std::string feed_;  // empty for a peer
  beast::flat_buffer in_;
  std::deque<Message> queue_;
  bool writing_ = false;
  bool ended_ = false;
};

namespace {

// A connection until it asks for the WebSocket: TLS or plain HTTP, told apart by its first bytes.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Takes the stream when the request asks for a WebSocket at a path it serves.
  using Upgrade = std::function<bool(TlsStream&, const Request&)>;

  Connection(tcp::socket socket, asio::ssl::context& tls, WebPeerListener::Pages pages,
             Upgrade upgrade)
      : plain_(std::move(socket)),
        tls_(tls),
        pages_(std::move(pages)),
        upgrade_(std::move(upgrade)) {}

  void start() {
    plain_.expires_after(kRequestTimeout);
    beast::async_detect_ssl(plain_, buffer_,
                            [self = shared_from_this()](ErrorCode error, bool isTls) {
                              if (error) {
                                return;
                              }
                              isTls ? self->handshake() : self->readPlain();
                            });
  }

 private:
  // Plain HTTP: every request is sent to the same place over HTTPS.
  void readPlain() {
    http::async_read(plain_, buffer_, request_,
                     [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                       if (!error) {
                         self->redirect();
                       }
                     });
  }

  void redirect() {
    auto response = std::make_shared<http::response<http::empty_body>>(
        http::status::moved_permanently, request_.version());
    std::string host(request_[http::field::host]);
    if (host.empty()) {
      ErrorCode ignored;
      host = plain_.socket().local_endpoint(ignored).address().to_string();
    }
    response->set(http::field::location, "https://" + host + std::string(request_.target()));
    prepare(*response, request_);
    response->keep_alive(false);
    http::async_write(plain_, *response,
                      [self = shared_from_this(), response](ErrorCode, std::size_t) {
                        ErrorCode ignored;
                        self->plain_.socket().shutdown(tcp::socket::shutdown_both, ignored);
                      });
  }

  void handshake() {
    secure_.emplace(std::move(plain_), tls_);
    secure_->async_handshake(asio::ssl::stream_base::server, buffer_.data(),
                             // Boost 1.81 checks this handler against the wrong signature, (error):
                             // the default argument lets it pass; it is called with both.
                             [self = shared_from_this()](ErrorCode error, std::size_t used = 0) {
                               if (error) {
                                 return;
                               }
                               self->buffer_.consume(used);
                               self->readSecure();
                             });
  }

  void readSecure() {
    request_ = {};
    beast::get_lowest_layer(*secure_).expires_after(kRequestTimeout);
    http::async_read(*secure_, buffer_, request_,
                     [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                       if (!error) {
                         self->serve();
                       }
                     });
  }

  void serve() {
    if (websocket::is_upgrade(request_)) {
      upgrade_(*secure_, request_);  // a path without a WebSocket is dropped
      return;
    }
    const std::string_view target = request_.target();
    const std::string_view path = target.substr(0, target.find('?'));
    auto file = request_.method() == http::verb::get || request_.method() == http::verb::head
                    ? pages_(path)
                    : std::nullopt;
    auto response = std::make_shared<http::response<http::string_body>>(
        file ? http::status::ok : http::status::not_found, request_.version());
    response->set(http::field::content_type, file ? file->contentType : "text/plain");
    response->set("X-Content-Type-Options", "nosniff");
    if (request_.method() != http::verb::head) {
      response->body() = file ? std::move(file->body) : "Not found\n";
    }
    prepare(*response, request_);
    http::async_write(*secure_, *response,
                      [self = shared_from_this(), response](ErrorCode error, std::size_t) {
                        if (!error && response->keep_alive()) {
                          self->readSecure();
                        }
                      });
  }

  beast::tcp_stream plain_;
  asio::ssl::context& tls_;
  WebPeerListener::Pages pages_;
  Upgrade upgrade_;
  std::optional<TlsStream> secure_;
  beast::flat_buffer buffer_;
  Request request_;
};

asio::ssl::context tlsContext(const TlsIdentity& identity) {
  asio::ssl::context tls(asio::ssl::context::tls_server);
  tls.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                  asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                  asio::ssl::context::no_tlsv1_1 | asio::ssl::context::single_dh_use);
  tls.use_certificate_chain(asio::buffer(identity.certificatePem));
  tls.use_private_key(asio::buffer(identity.keyPem), asio::ssl::context::pem);
  return tls;
}

tcp::acceptor bindAcceptor(asio::io_context& context, std::uint16_t port) {
  tcp::acceptor acceptor(context);
  ErrorCode error;
  // Both IPv6 and IPv4 on one socket, as the intercom's UDP port.
  const auto check = [&error](const char* what) {
    if (error) {
      throw std::system_error(error.value(), std::generic_category(), what);
    }
  };
  acceptor.open(tcp::v6(), error);
  check("socket");
  acceptor.set_option(asio::ip::v6_only(false), error);
  acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  check("setsockopt");
  acceptor.bind({asio::ip::address_v6::any(), port}, error);
  check("bind");
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  check("listen");
  return acceptor;
}

}  // namespace

WebPeerListener::WebPeerListener(asio::io_context& context, std::uint16_t port,
                                 const TlsIdentity& identity, Pages pages,
                                 std::vector<std::string> feeds)
    : context_(context),
      tls_(tlsContext(identity)),
      acceptor_(bindAcceptor(context, port)),
      pages_(std::move(pages)),
      feeds_(std::move(feeds)) {}

// Closing a socket and cancelling a timer throw only if the system refuses to, and then there is
// nothing better to do at shutdown than to end anyway.
// NOLINTNEXTLINE(bugprone-exception-escape)
WebPeerListener::~WebPeerListener() {
  *alive_ = false;
  alive_.reset();
  for (auto* sessions : {&sessions_, &readers_}) {
    for (auto& [slot, session] : *sessions) {
      session->close();
    }
  }
}

void WebPeerListener::start(Receiver& receiver, Handlers handlers) {
  peers_ = &receiver;
  handlers_ = std::move(handlers);
  accept();
  asio::post(context_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock() && handlers_.onReady) {
      handlers_.onReady();
    }
  });
}

void WebPeerListener::accept() {
  acceptor_.async_accept(
      [this, alive = std::weak_ptr<bool>(alive_)](ErrorCode error, tcp::socket socket) {
        if (!alive.lock()) {
          return;
        }
        if (error == asio::error::operation_aborted) {
          return;
        }
        if (!error) {
          // Each message is written as soon as it comes: Nagle's wait for the previous one's
          // acknowledgement, which receivers delay by up to 40 ms, is latency a talker hears.
          socket.set_option(tcp::no_delay(true), error);
          const tcp::endpoint remote = socket.remote_endpoint(error);
          if (!error) {
            std::make_shared<Connection>(
                std::move(socket), tls_, pages_,
                [this, alive, remote](TlsStream& stream, const Request& request) {
                  const std::string_view path = request.target();
                  if (!alive.lock() || (path != "/intercom" && !isFeed(path))) {
                    return false;
                  }
                  std::make_shared<Session>(*this, std::move(stream),
                                            addressOf(this, remote, nextSlot_++),
                                            path == "/intercom" ? "" : std::string(path))
                      ->start(request);
                  return true;
                })
                ->start();
          }
        }
        accept();  // a failed accept (no descriptors left, say) must not stop the others
      });
}

bool WebPeerListener::isFeed(std::string_view path) const {
  return std::find(feeds_.begin(), feeds_.end(), path) != feeds_.end();
}

void WebPeerListener::opened(const std::shared_ptr<Session>& session) {
  (session->reader() ? readers_ : sessions_).emplace(session->address().slot, session);
}

void WebPeerListener::closed(Session& session) {
  const PeerAddress address = session.address();
  if (session.reader()) {
    readers_.erase(address.slot);  // nobody else knew of it
    return;
  }
  sessions_.erase(address.slot);
  peers_->ended(address);
}

bool WebPeerListener::hasReaders(std::string_view feed) const {
  return std::any_of(readers_.begin(), readers_.end(),
                     [feed](const auto& item) { return item.second->feed() == feed; });
}

void WebPeerListener::publish(std::string_view feed, std::string_view text) {
  for (auto& [slot, session] : readers_) {
    if (session->feed() == feed) {
      session->publish(text);
    }
  }
}

void WebPeerListener::send(const PeerAddress& to, Bytes head, Bytes body) {
  if (const auto found = sessions_.find(to.slot); found != sessions_.end()) {
    found->second->send(head, body);
  }
}

void WebPeerListener::end(const PeerAddress& peer) {
  if (const auto found = sessions_.find(peer.slot); found != sessions_.end()) {
    found->second->close();
    sessions_.erase(found);
  }
}

}  // namespace parlavox::platform
