#include "platform/HttpsServer.h"

#include <boost/asio/ip/v6_only.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <cstring>
#include <optional>
#include <system_error>

#include "platform/WebSocketSession.h"

namespace parlavox::platform {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = beast::error_code;
using TlsStream = WebSocketSession::TlsStream;
using Request = WebSocketSession::Request;

constexpr auto kRequestTimeout = std::chrono::seconds(30);
// What a request may be: Beast's own limits for a request, named here.
constexpr std::uint32_t kHeaderLimit = 8 * 1024;
constexpr std::uint64_t kBodyLimit = std::uint64_t{1024} * 1024;

HostAddress hostOf(const tcp::endpoint& endpoint) {
  const asio::ip::address_v6 v6 =
      endpoint.address().is_v6()
          ? endpoint.address().to_v6()
          : asio::ip::make_address_v6(asio::ip::v4_mapped, endpoint.address().to_v4());
  HostAddress host;
  const auto bytes = v6.to_bytes();
  std::memcpy(host.bytes.data(), bytes.data(), host.bytes.size());
  return host;
}

// A connection until it is answered for good or taken as a WebSocket: TLS or plain HTTP, told
// apart by its first bytes.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, HostAddress from, asio::ssl::context& tls, HttpHandler& handler,
             Clock& clock, std::weak_ptr<const bool> serving)
      : plain_(std::move(socket)),
        from_(from),
        tls_(tls),
        handler_(handler),
        clock_(clock),
        serving_(std::move(serving)) {}

  void start() {
    plain_.expires_after(kRequestTimeout);
    beast::async_detect_ssl(plain_, buffer_,
                            [self = shared_from_this()](ErrorCode error, bool isTls) {
                              if (error || !self->serving_.lock()) {
                                return;
                              }
                              isTls ? self->handshake() : self->readPlain();
                            });
  }

 private:
  // A fresh parser per request: the limits are the parser's.
  void newParser() {
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(kBodyLimit);
  }

  // Plain HTTP: every request is sent to the same place over HTTPS.
  void readPlain() {
    newParser();
    http::async_read(plain_, buffer_, *parser_,
                     [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                       if (!error && self->serving_.lock()) {
                         self->redirect();
                       }
                     });
  }

  void redirect() {
    const Request& request = parser_->get();
    auto response = std::make_shared<http::response<http::empty_body>>(
        http::status::moved_permanently, request.version());
    std::string host(request[http::field::host]);
    if (host.empty()) {
      ErrorCode ignored;
      host = plain_.socket().local_endpoint(ignored).address().to_string();
    }
    response->set(http::field::location, "https://" + host + std::string(request.target()));
    response->set(http::field::server, "parlavox");
    response->set(http::field::cache_control, "no-store");
    response->keep_alive(false);
    response->prepare_payload();
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
                               if (error || !self->serving_.lock()) {
                                 return;
                               }
                               self->buffer_.consume(used);
                               self->readSecure();
                             });
  }

  void readSecure() {
    newParser();
    beast::get_lowest_layer(*secure_).expires_after(kRequestTimeout);
    http::async_read(*secure_, buffer_, *parser_,
                     [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                       if (!error && self->serving_.lock()) {
                         self->serve();
                       }
                     });
  }

  void serve() {
    const Request& request = parser_->get();
    const std::string_view target = request.target();
    const HttpRequest asked{request.method_string(), target.substr(0, target.find('?')), from_};
    if (websocket::is_upgrade(request)) {
      if (auto upgrade = handler_.upgrade(asked)) {
        std::make_shared<WebSocketSession>(std::move(*secure_), std::move(upgrade->options), clock_,
                                           from_, serving_)
            ->accept(request, std::move(upgrade->onOpen));
      }
      return;  // taken, or dropped
    }
    HttpResponse answer = handler_.respond(asked);
    auto response = std::make_shared<http::response<http::string_body>>(
        static_cast<http::status>(answer.status), request.version());
    response->set(http::field::server, "parlavox");
    response->set(http::field::cache_control, "no-store");
    response->set(http::field::content_type, answer.contentType);
    response->set("X-Content-Type-Options", "nosniff");
    if (request.method() != http::verb::head) {
      response->body() = std::move(answer.body);
    }
    response->keep_alive(request.keep_alive());
    response->prepare_payload();
    http::async_write(*secure_, *response,
                      [self = shared_from_this(), response](ErrorCode error, std::size_t) {
                        if (!error && response->keep_alive() && self->serving_.lock()) {
                          self->readSecure();
                        }
                      });
  }

  beast::tcp_stream plain_;
  const HostAddress from_;
  asio::ssl::context& tls_;
  HttpHandler& handler_;
  Clock& clock_;
  std::weak_ptr<const bool> serving_;
  std::optional<TlsStream> secure_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
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

HttpsServer::HttpsServer(asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
                         HttpHandler& handler, Clock& clock)
    : tls_(tlsContext(identity)),
      acceptor_(bindAcceptor(context, port)),
      handler_(handler),
      clock_(clock) {}

// What is still under way (handshakes, requests, sessions) finds the server gone and stops.
HttpsServer::~HttpsServer() = default;

void HttpsServer::start() {
  accept();
}

void HttpsServer::accept() {
  acceptor_.async_accept(
      [this, serving = std::weak_ptr<const bool>(alive_)](ErrorCode error, tcp::socket socket) {
        if (!serving.lock() || error == asio::error::operation_aborted) {
          return;
        }
        if (!error) {
          // Each message is written as soon as it comes: Nagle's wait for the previous one's
          // acknowledgement, which receivers delay by up to 40 ms, is latency a talker hears.
          socket.set_option(tcp::no_delay(true), error);
          const tcp::endpoint remote = socket.remote_endpoint(error);
          if (!error) {
            std::make_shared<Connection>(std::move(socket), hostOf(remote), tls_, handler_, clock_,
                                         serving)
                ->start();
          }
        }
        accept();  // a failed accept (no descriptors left, say) must not stop the others
      });
}

}  // namespace parlavox::platform
