#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "platform/WebSocket.h"

namespace parlavox::web {

// A read-only stream of texts that the server publishes (the monitor's snapshots) to every
// WebSocket opened at its path. A reader still busy with an older text gets only the newest one
// after it: its sockets are opened with a newest-only policy. Loop thread only.
class Feed {
 public:
  // An operator's monitor or two, a metrics scraper: far fewer than this. Each reader costs a
  // snapshot's copy twice a second.
  static constexpr std::size_t kReaderLimit = 16;

  Feed() = default;
  // Closes every reader still open.
  ~Feed();
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

  // A reader beyond kReaderLimit is closed at once.
  void open(std::shared_ptr<platform::WebSocket> socket);
  bool full() const { return readers_.size() >= kReaderLimit; }
  // Whether anyone reads now: the text need not be made for nobody.
  bool hasReaders() const { return !readers_.empty(); }
  void publish(std::string_view text);
  // Closes every reader: who may read has changed, and each must pass the gate again.
  void closeAll();

 private:
  std::uint64_t next_ = 1;
  std::unordered_map<std::uint64_t, std::shared_ptr<platform::WebSocket>> readers_;
};

}  // namespace parlavox::web
