#include "platform/HttpsServer.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <unordered_map>

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
using Response = http::response<http::string_body>;

// A TLS handshake and a request, or the wait for the next request on a kept-alive connection: a
// browser needs far less; an idle connection holds a descriptor.
constexpr auto kRequestTimeout = std::chrono::seconds(10);
// What a request may be: Beast's own limits for a request, named here. The pages' targets are
// short paths; a request line past kTargetLimit is answered 414, other headers past kHeaderLimit
// 431, and a body past kBodyLimit 413.
constexpr std::uint32_t kHeaderLimit = 8 * 1024;
constexpr std::size_t kTargetLimit = 2048;
constexpr std::uint64_t kBodyLimit = std::uint64_t{1024} * 1024;

// Descriptors kept for the rest of the server while the web port is full: standard streams, the
// intercom's and OSC's sockets, Avahi's D-Bus, netlink, the loop's own, an announcement's speech
// command (three pipes, its own files, the speech file) and /proc reads: some twenty, with room.
constexpr std::uint64_t kReservedDescriptors = 64;
constexpr std::size_t kConnectionLimit = HttpsServer::kConnectionLimit;
// A NAT router's phones (32 joined from one address by default), each with its WebSocket and a
// page load under way.
constexpr std::size_t kConnectionsPerHost = 64;
// Out of descriptors: the pause before accepting again.
constexpr auto kAcceptRetry = std::chrono::milliseconds(250);

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
             Clock& clock, std::weak_ptr<const bool> serving, std::shared_ptr<const void> place)
      : place_(std::move(place)),
        plain_(std::move(socket)),
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

  // Plain HTTP: what the handler serves plain is answered; everything else is sent to the same
  // place over HTTPS.
  void readPlain() {
    newParser();
    plain_.expires_after(kRequestTimeout);
    http::async_read(plain_, buffer_, *parser_,
                     [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                       if (!self->serving_.lock() || self->refused(error)) {
                         return;
                       }
                       const std::string_view target = self->parser_->get().target();
                       self->handler_.servesPlain(target.substr(0, target.find('?')))
                           ? self->serve()
                           : self->redirect();
                     });
  }

  // To the address the connection came to, never to one the request names: a forged Host header
  // must not send a browser elsewhere.
  void redirect() {
    const Request& request = parser_->get();
    if (!allowed(request)) {
      return;
    }
    ErrorCode error;
    const tcp::endpoint local = plain_.socket().local_endpoint(error);
    if (error) {
      return;
    }
    asio::ip::address address = local.address();
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
      address = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    }
    const std::string host =
        address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    const std::string_view target = request.target();
    auto response = std::make_shared<Response>(http::status::moved_permanently, request.version());
    response->set(http::field::location, "https://" + host + ":" + std::to_string(local.port()) +
                                             std::string(target.starts_with('/') ? target : "/"));
    write(std::move(response), false);
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
                       if (self->serving_.lock() && !self->refused(error)) {
                         self->serve();
                       }
                     });
  }

  // Whether the read failed; a request over the limits is answered with why.
  bool refused(ErrorCode error) {
    if (error == http::error::header_limit) {
      // The request line never came whole, or its target is the long part: 414; else 431.
      const std::string_view target = parser_->get().target();
      refuse(target.empty() || target.size() > kTargetLimit
                 ? http::status::uri_too_long
                 : http::status::request_header_fields_too_large);
    } else if (error == http::error::body_limit) {
      refuse(http::status::payload_too_large);
    }
    return static_cast<bool>(error);
  }

  // Reads everywhere (a WebSocket's upgrade is a GET); over TLS, forms too, which the handler
  // takes where it has a use for them.
  bool allowed(const Request& request) {
    const http::verb method = request.method();
    if (method == http::verb::get || method == http::verb::head ||
        (secure_ && method == http::verb::post)) {
      return true;
    }
    auto response = std::make_shared<Response>(http::status::method_not_allowed, request.version());
    response->set(http::field::allow, secure_ ? "GET, HEAD, POST" : "GET, HEAD");
    write(std::move(response), false);
    return false;
  }

  void refuse(http::status status) { write(std::make_shared<Response>(status, 11), false); }

  // Every response goes out through here, with the handler's headers; after one not kept alive,
  // the connection sends no more and reads what is left until the other side closes or the
  // timeout ends it, so that an unread request does not turn the close into a reset the answer
  // is lost in.
  void write(std::shared_ptr<Response> response, bool keepAlive) {
    for (const auto& [name, value] : handler_.headers()) {
      response->set(name, value);
    }
    response->set(http::field::server, "parlavox");
    response->set(http::field::cache_control, "no-store");
    response->set("X-Content-Type-Options", "nosniff");
    response->keep_alive(keepAlive);
    response->prepare_payload();
    Response& message = *response;  // kept alive by the handler, which holds `response`
    auto done = [self = shared_from_this(), response = std::move(response)](ErrorCode error,
                                                                            std::size_t) {
      if (error || !self->serving_.lock()) {
        return;
      }
      if (response->keep_alive()) {
        self->secure_ ? self->readSecure() : self->readPlain();
        return;
      }
      self->lowest().socket().shutdown(tcp::socket::shutdown_send, error);
      self->drain();
    };
    secure_ ? http::async_write(*secure_, message, std::move(done))
            : http::async_write(plain_, message, std::move(done));
  }

  beast::tcp_stream& lowest() { return secure_ ? beast::get_lowest_layer(*secure_) : plain_; }

  void drain() {
    lowest().expires_after(kRequestTimeout);
    lowest().async_read_some(asio::buffer(discard_),
                             [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
                               if (!error && self->serving_.lock()) {
                                 self->drain();
                               }
                             });
  }

  void serve() {
    const Request& request = parser_->get();
    const std::string_view target = request.target();
    if (target.size() > kTargetLimit) {
      refuse(http::status::uri_too_long);
      return;
    }
    if (!allowed(request)) {
      return;
    }
    const HttpRequest asked{.method = request.method_string(),
                            .path = target.substr(0, target.find('?')),
                            .from = from_,
                            .body = request.body(),
                            .cookie = request[http::field::cookie],
                            .authorization = request[http::field::authorization]};
    if (secure_ && websocket::is_upgrade(request)) {
      auto answer = handler_.upgrade(asked);
      if (auto* upgrade = std::get_if<HttpHandler::Upgrade>(&answer)) {
        std::make_shared<WebSocketSession>(std::move(*secure_), std::move(upgrade->options), clock_,
                                           from_, serving_, std::move(place_))
            ->accept(request, std::move(upgrade->onOpen));
      } else {
        reply(std::get<HttpResponse>(std::move(answer)), request, false);
      }
      return;
    }
    reply(handler_.respond(asked), request, request.keep_alive());
  }

  void reply(HttpResponse answer, const Request& request, bool keepAlive) {
    auto response =
        std::make_shared<Response>(static_cast<http::status>(answer.status), request.version());
    response->set(http::field::content_type, answer.contentType);
    for (auto& [name, value] : answer.headers) {
      response->insert(name, value);
    }
    if (request.method() != http::verb::head) {
      response->body() = std::move(answer.body);
    }
    write(std::move(response), keepAlive);
  }

  std::shared_ptr<const void> place_;  // handed on to the WebSocket it may become
  beast::tcp_stream plain_;
  const HostAddress from_;
  asio::ssl::context& tls_;
  HttpHandler& handler_;
  Clock& clock_;
  std::weak_ptr<const bool> serving_;
  std::optional<TlsStream> secure_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::array<char, 512> discard_{};
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

// Each connection's TLS takes the context's certificate and key when it is made: a new pair
// applies to the connections after it.
Result<void> useIdentity(asio::ssl::context& tls, const TlsIdentity& identity) {
  ErrorCode error;
  tls.use_certificate_chain(asio::buffer(identity.certificatePem), error);
  if (!error) {
    tls.use_private_key(asio::buffer(identity.keyPem), asio::ssl::context::pem, error);
  }
  if (error) {
    return Failure{error.message()};
  }
  return {};
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

ConnectionLimits connectionLimits(std::uint64_t descriptors) {
  const std::uint64_t spare = descriptors > kReservedDescriptors * 2
                                  ? descriptors - kReservedDescriptors
                                  : descriptors / 2;  // a tiny limit: share it
  const auto total = static_cast<std::size_t>(std::min<std::uint64_t>(spare, kConnectionLimit));
  return {std::max<std::size_t>(total, 1), std::clamp<std::size_t>(total, 1, kConnectionsPerHost)};
}

namespace {

// The soft limit raised as far as the connections and the reserve need, within the hard one: a
// terminal's usual 1,024 would cut the web port short.
ConnectionLimits processLimits() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return connectionLimits(kConnectionLimit + kReservedDescriptors);
  }
  const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, kConnectionLimit + kReservedDescriptors);
  if (limit.rlim_cur < wanted) {
    rlimit raised = limit;
    raised.rlim_cur = wanted;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
      limit = raised;
    }
  }
  return connectionLimits(limit.rlim_cur);
}

// Failures of accept that retrying at once cannot cure.
bool outOfResources(const ErrorCode& error) {
  return error == asio::error::no_descriptors || error == asio::error::no_buffer_space ||
         error == asio::error::no_memory ||
         (error.category() == asio::error::get_system_category() && error.value() == ENFILE);
}

}  // namespace

// The connections held, counted by the places handed out: a place given back (its connection or
// WebSocket gone) lets the server accept again if the total had stopped it.
struct HttpsServer::Places {
  ConnectionLimits limits;
  std::size_t total = 0;
  std::unordered_map<HostAddress, std::size_t, HostAddressHash> perHost;
  std::function<void()> freed;  // the server's, while it lives

  std::shared_ptr<const void> take(const std::shared_ptr<Places>& self, const HostAddress& host) {
    ++total;
    ++perHost[host];
    return {nullptr, [self, host](const void* /*none*/) {
              --self->total;
              if (const auto found = self->perHost.find(host); --found->second == 0) {
                self->perHost.erase(found);
              }
              if (self->freed) {
                self->freed();
              }
            }};
  }
};

HttpsServer::HttpsServer(asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
                         HttpHandler& handler, Clock& clock)
    : tls_(tlsContext(identity)),
      acceptor_(bindAcceptor(context, port)),
      handler_(handler),
      clock_(clock),
      retry_(context),
      limits_(processLimits()),
      places_(std::make_shared<Places>()) {
  places_->limits = limits_;
  places_->freed = [this] {
    if (paused_) {
      paused_ = false;
      accept();
    }
  };
}

// What is still under way (handshakes, requests, sessions) finds the server gone and stops.
HttpsServer::~HttpsServer() {
  places_->freed = nullptr;
}

void HttpsServer::start() {
  accept();
}

Result<void> HttpsServer::present(const TlsIdentity& identity) {
  return useIdentity(tls_, identity);
}

void HttpsServer::accept() {
  if (places_->total >= places_->limits.total) {
    paused_ = true;  // the listen backlog holds the rest meanwhile
    return;
  }
  acceptor_.async_accept(
      [this, serving = std::weak_ptr<const bool>(alive_)](ErrorCode error, tcp::socket socket) {
        if (!serving.lock() || error == asio::error::operation_aborted) {
          return;
        }
        if (outOfResources(error)) {
          retry_.expires_after(kAcceptRetry);
          retry_.async_wait([this, serving](ErrorCode waited) {
            if (!waited && serving.lock()) {
              accept();
            }
          });
          return;
        }
        if (!error) {
          admit(std::move(socket));
        }
        accept();  // a connection that failed before it was accepted must not stop the others
      });
}

// A host not admitted, or past its share, is closed at once, unread.
void HttpsServer::admit(tcp::socket socket) {
  ErrorCode error;
  const tcp::endpoint remote = socket.remote_endpoint(error);
  if (error) {
    return;
  }
  const HostAddress host = hostOf(remote);
  if (admitted_ && !admitted_(host)) {
    return;
  }
  if (const auto found = places_->perHost.find(host);
      found != places_->perHost.end() && found->second >= places_->limits.perHost) {
    return;
  }
  // Each message is written as soon as it comes: Nagle's wait for the previous one's
  // acknowledgement, which receivers delay by up to 40 ms, is latency a talker hears.
  socket.set_option(tcp::no_delay(true), error);
  std::make_shared<Connection>(std::move(socket), host, tls_, handler_, clock_,
                               std::weak_ptr<const bool>(alive_), places_->take(places_, host))
      ->start();
}

}  // namespace parlavox::platform
