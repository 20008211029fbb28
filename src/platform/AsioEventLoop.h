#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <optional>

#include "platform/EventLoop.h"

namespace parlavox::platform {

// The server loop over an Asio io_context, run by the main thread for the life of the process.
class AsioEventLoop final : public EventLoop {
 public:
  AsioEventLoop() = default;

  // Any thread.
  void post(Task task) override;
  // Main thread before run(), or the loop thread.
  void every(std::chrono::milliseconds period, Task tick) override;
  // Loop thread.
  void after(std::chrono::milliseconds delay, Task task) override;
  // Main thread, before run(). From now on SIGINT and SIGTERM do not end the process by
  // themselves: each runs `onSignal` on the loop thread, which decides how to end.
  void onStopSignals(Task onSignal);
  // Main thread. Runs the loop until stop().
  void run();
  // Any thread.
  void stop();

  boost::asio::io_context& context() { return context_; }

 private:
  struct Repeating {
    boost::asio::steady_timer timer;
    std::chrono::milliseconds period;
    Task tick;
  };
  void arm(Repeating& repeating);
  void awaitSignal();

  boost::asio::io_context context_{1};  // run by one thread; other threads only post
  std::list<Repeating> timers_;         // stable addresses for the pending waits
  std::optional<boost::asio::signal_set> signals_;
  Task onSignal_;
};

}  // namespace parlavox::platform
