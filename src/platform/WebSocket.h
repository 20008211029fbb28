#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

#include "platform/Bytes.h"
#include "platform/HostAddress.h"

namespace parlavox::platform {

// What a WebSocket's send queue may shed when the connection cannot keep up, and when it gives
// up on the connection altogether. Whoever opens the socket decides; the socket knows nothing of
// what its messages mean.
struct SendPolicy {
  // Messages this says yes to may go once they have waited longer than `dropAfter`: when a newer
  // one of them is queued, the older ones go, oldest first. The rest are always sent. Empty: none.
  std::function<bool(Bytes message)> droppable;
  std::chrono::milliseconds dropAfter{200};
  // Only the newest message is worth sending: a new one replaces every one not yet being written
  // (a feed of whole snapshots).
  bool newestOnly = false;
  // A write still unfinished after this long ends the connection, whatever TCP thinks of it.
  std::chrono::milliseconds stuckAfter{2000};
};

struct WebSocketOptions {
  bool binary = true;              // the kind of message it sends, and the only kind it reports
  std::size_t maxMessage = 65536;  // a larger message from the other side ends the connection
  // Nothing received for this long ends the connection (zero: never). With `keepAlivePings`, a
  // ping goes out when half of it has passed, so that a live reader who never writes answers it
  // with a pong and stays, and one who stopped reading does not.
  std::chrono::milliseconds idleTimeout{0};
  bool keepAlivePings = false;
  SendPolicy policy;
};

// One open WebSocket as the logic sees it. Loop thread only.
class WebSocket {
 public:
  struct Handlers {
    std::function<void(Bytes message)> onMessage;
    // It is gone by the other side's doing, the network's, or because it was stuck. Never
    // called after close().
    std::function<void()> onClosed;
  };

  virtual ~WebSocket() = default;
  virtual const HostAddress& remoteHost() const = 0;
  // From now on its messages and its end are reported to `handlers`.
  virtual void start(Handlers handlers) = 0;
  // `head` then `body` as one message, queued; the bytes are copied before the call returns.
  // The send policy decides what is shed when the connection falls behind.
  virtual void send(Bytes head, Bytes body = {}) = 0;
  // Closes it at once; nothing more is reported.
  virtual void close() = 0;
  // Closes it once what is queued is written, with a WebSocket close, so that a last message (why
  // it ends) reaches the other side; nothing more is reported. A peer that stops reading is cut
  // off as by the send policy's stuckAfter.
  virtual void closeWhenSent() = 0;
};

}  // namespace parlavox::platform
