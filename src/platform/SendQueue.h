#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/WebSocket.h"

namespace parlavox::platform {

// One connection's messages waiting to be written, one write at a time, shed by a SendPolicy:
// the policy's rules apart from the socket, so that time can be played by a test. The first
// message is the one being written from the moment next() hands it out until written().
// Not thread-safe; one owner.
class SendQueue {
 public:
  explicit SendQueue(SendPolicy policy) : policy_(std::move(policy)) {}

  // Queues `head` then `body` as one message at `now`, after shedding what the policy says the
  // new message makes worthless.
  void push(Bytes head, Bytes body, MonoTime now);
  // The message to write now, or nothing when a write is under way or nothing waits. Its bytes
  // stay put until written().
  const std::vector<std::uint8_t>* next(MonoTime now);
  // The write that next() started is done.
  void written();
  // Whether the write under way has taken longer than the policy allows.
  bool stuck(MonoTime now) const;

  bool writing() const { return writing_; }
  std::size_t size() const { return queue_.size(); }
  void clear();

 private:
  struct Message {
    std::vector<std::uint8_t> bytes;
    bool droppable = false;
    MonoTime queued;
  };

  SendPolicy policy_;
  std::deque<Message> queue_;
  bool writing_ = false;  // queue_.front() is being written
  MonoTime writeStarted_;
};

}  // namespace parlavox::platform
