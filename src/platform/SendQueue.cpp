#include "platform/SendQueue.h"

#include <algorithm>

namespace parlavox::platform {

void SendQueue::push(Bytes head, Bytes body, MonoTime now) {
  // What is being written stays; only what waits behind it may go.
  const auto waiting = queue_.begin() + (writing_ ? 1 : 0);
  if (policy_.newestOnly) {
    queue_.erase(waiting, queue_.end());
  }
  Message message{std::vector<std::uint8_t>(head.begin(), head.end()), false, now};
  message.bytes.insert(message.bytes.end(), body.begin(), body.end());
  message.droppable = policy_.droppable && policy_.droppable(message.bytes);
  if (message.droppable) {
    // The stale ones have been overtaken by this one; the rest always go.
    queue_.erase(std::remove_if(waiting, queue_.end(),
                                [&](const Message& m) {
                                  return m.droppable && now - m.queued > policy_.dropAfter;
                                }),
                 queue_.end());
  }
  queue_.push_back(std::move(message));
}

const std::vector<std::uint8_t>* SendQueue::next(MonoTime now) {
  if (writing_ || queue_.empty()) {
    return nullptr;
  }
  writing_ = true;
  writeStarted_ = now;
  return &queue_.front().bytes;
}

void SendQueue::written() {
  if (writing_) {
    writing_ = false;
    queue_.pop_front();
  }
}

bool SendQueue::stuck(MonoTime now) const {
  return writing_ && now - writeStarted_ >= policy_.stuckAfter;
}

void SendQueue::clear() {
  queue_.clear();
  writing_ = false;
}

}  // namespace parlavox::platform
