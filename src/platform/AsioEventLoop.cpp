#include "platform/AsioEventLoop.h"

#include <boost/asio/post.hpp>
#include <csignal>
#include <memory>

namespace parlavox::platform {

void AsioEventLoop::post(Task task) {
  boost::asio::post(context_, std::move(task));
}

void AsioEventLoop::every(std::chrono::milliseconds period, Task tick) {
  auto& repeating =
      timers_.emplace_back(Repeating{boost::asio::steady_timer(context_), period, std::move(tick)});
  repeating.timer.expires_after(period);
  arm(repeating);
}

void AsioEventLoop::after(std::chrono::milliseconds delay, Task task) {
  auto timer = std::make_shared<boost::asio::steady_timer>(context_, delay);
  timer->async_wait([timer, task = std::move(task)](const boost::system::error_code& error) {
    if (!error) {
      task();
    }
  });
}

void AsioEventLoop::arm(Repeating& repeating) {
  repeating.timer.async_wait([this, &repeating](const boost::system::error_code& error) {
    if (error) {
      return;  // cancelled: the loop is going away
    }
    // Deadlines advance from the previous deadline, not from now, so ticks do not drift.
    repeating.timer.expires_at(repeating.timer.expiry() + repeating.period);
    repeating.tick();
    arm(repeating);
  });
}

void AsioEventLoop::onStopSignals(Task onSignal) {
  onSignal_ = std::move(onSignal);
  signals_.emplace(context_, SIGINT, SIGTERM);
  awaitSignal();
}

void AsioEventLoop::awaitSignal() {
  signals_->async_wait([this](const boost::system::error_code& error, int /*signal*/) {
    if (error) {
      return;  // cancelled: the loop is going away
    }
    onSignal_();
    awaitSignal();
  });
}

void AsioEventLoop::run() {
  auto guard = boost::asio::make_work_guard(context_);
  context_.run();
}

void AsioEventLoop::stop() {
  context_.stop();
}

}  // namespace parlavox::platform
