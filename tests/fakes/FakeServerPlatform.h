#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakeDatagramReceiver.h"
#include "platform/Advertiser.h"
#include "platform/Clock.h"
#include "platform/Datagram.h"
#include "platform/EventLoop.h"

namespace parlavox::test {

using Datagram = std::vector<std::uint8_t>;

// A client flow driven by the test: deliver() plays a datagram from the client; sent holds what
// the server sent to it.
class FakeFlow final : public platform::Flow {
 public:
  explicit FakeFlow(std::uint64_t key) : key_(key) {}
  std::uint64_t key() const override { return key_; }
  void start(Handlers handlers) override { handlers_ = std::move(handlers); }
  void send(Bytes head, Bytes body) override {
    Datagram datagram(head.begin(), head.end());
    datagram.insert(datagram.end(), body.begin(), body.end());
    sent.push_back(std::move(datagram));
  }
  void cancel() override { cancelled = true; }

  void deliver(const Datagram& datagram) {
    if (!cancelled && handlers_.onDatagram) {
      handlers_.onDatagram(datagram);
    }
  }
  void end(End how) {
    if (handlers_.onEnd) {
      handlers_.onEnd(how, "gone");
    }
  }

  std::vector<Datagram> sent;
  bool cancelled = false;

 private:
  std::uint64_t key_;
  Handlers handlers_;
};

class FakeFlowListener final : public platform::FlowListener {
 public:
  void start(Handlers handlers) override { handlers_ = std::move(handlers); }
  // A new client: the listener hands its flow to the server, as on its first datagram.
  std::shared_ptr<FakeFlow> connect() {
    auto flow = std::make_shared<FakeFlow>(nextKey_++);
    handlers_.onFlow(flow);
    return flow;
  }
  void ready() { handlers_.onReady(); }
  void fail(std::string_view error) { handlers_.onFailed(error); }

 private:
  Handlers handlers_;
  std::uint64_t nextKey_ = 1;
};

class FakeNetwork final : public platform::Network {
 public:
  std::unique_ptr<platform::FlowListener> listenFlows(std::uint16_t port) override {
    flowPort = port;
    auto listener = std::make_unique<FakeFlowListener>();
    flows = listener.get();
    return listener;
  }
  std::unique_ptr<platform::DatagramReceiver> listenDatagrams(std::uint16_t port) override {
    return datagrams.listenDatagrams(port);
  }

  std::uint16_t flowPort = 0;
  FakeFlowListener* flows = nullptr;  // owned by the server
  FakeDatagramNetwork datagrams;
};

// Keeps posted tasks without running them; remembers repeating ticks for the test to run.
class FakeEventLoop final : public platform::EventLoop {
 public:
  void post(Task task) override {
    std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
  }
  void every(std::chrono::milliseconds period, Task tick) override {
    periods.push_back(period);
    ticks.push_back(std::move(tick));
  }

  std::vector<std::chrono::milliseconds> periods;
  std::vector<Task> ticks;

 private:
  std::mutex mutex_;
  std::vector<Task> posted_;
};

class FakeAdvertiser final : public platform::Advertiser {
 public:
  void advertise(const std::string& name, const std::string& type, std::uint16_t port) override {
    advertised.push_back({name, type, port});
  }
  struct Service {
    std::string name;
    std::string type;
    std::uint16_t port;
  };
  std::vector<Service> advertised;
};

// An older name of the same clock, still used by some tests.
using ManualClock = FakeClock;

}  // namespace parlavox::test
