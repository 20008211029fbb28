// Once warm, relaying an audio datagram allocates nothing anywhere in the server: not the relay,
// not the receive path, not the sockets' batching. The whole server runs over real UDP sockets on
// loopback; this executable replaces the global operator new to count.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "fakes/FakeServerPlatform.h"
#include "platform/AsioEventLoop.h"
#include "platform/UdpNetwork.h"
#include "relay/IntercomServer.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<std::size_t> allocations{0};

void* allocate(std::size_t size, std::size_t alignment) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  const std::size_t bytes = size == 0 ? 1 : size;
  void* memory =
      alignment <= alignof(std::max_align_t)
          ? std::malloc(bytes)
          : std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size, 0);
}
void* operator new[](std::size_t size) {
  return allocate(size, 0);
}
void* operator new(std::size_t size, std::align_val_t align) {
  return allocate(size, static_cast<std::size_t>(align));
}
void* operator new[](std::size_t size, std::align_val_t align) {
  return allocate(size, static_cast<std::size_t>(align));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size, 0);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size, 0);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}

namespace parlavox {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kDatagrams = 10'000;

// Counts allocations made anywhere in the process between construction and stop().
class AllocationWindow {
 public:
  AllocationWindow() {
    allocations = 0;
    counting = true;
  }
  ~AllocationWindow() { counting = false; }
  std::size_t stop() {
    counting = false;
    return allocations.load();
  }
};

Config crewShow() {
  return Config{"Alloc", {"Main", "Tech"}, {Role{"Crew", {"Main"}, {"Main"}}}, 47000};
}

std::vector<std::uint8_t> controlDatagram(const std::string& json) {
  std::vector<std::uint8_t> datagram{0x01};
  datagram.insert(datagram.end(), json.begin(), json.end());
  return datagram;
}

std::vector<std::uint8_t> audioDatagram() {
  std::vector<std::uint8_t> datagram(649, 0x5A);
  datagram[0] = 0x02;
  datagram[3] = 0x01;  // Main
  datagram[4] = datagram[5] = datagram[6] = 0;
  return datagram;
}

// A crew client over a real loopback socket, with buffers made before the count starts.
class Client {
 public:
  Client() : buffer_(2048) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(50505);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<const sockaddr*>(&server), sizeof server), 0);
    const int size = 1 << 20;
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void send(const std::vector<std::uint8_t>& datagram) {
    (void)::send(fd_, datagram.data(), datagram.size(), 0);
  }
  // The length of the next datagram, or -1 after `timeoutMs` without one.
  ssize_t receive(int timeoutMs) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, timeoutMs) != 1) {
      return -1;
    }
    return ::recv(fd_, buffer_.data(), buffer_.size(), 0);
  }
  const std::uint8_t* data() const { return buffer_.data(); }
  // Audio copies that arrive within `timeoutMs` of each other, up to `wanted`.
  std::size_t receiveAudio(std::size_t wanted, int timeoutMs) {
    std::size_t got = 0;
    while (got < wanted) {
      const ssize_t n = receive(timeoutMs);
      if (n < 0) {
        break;
      }
      got += n == 649 && buffer_[0] == 0x02 ? 1U : 0U;
    }
    return got;
  }

 private:
  int fd_ = -1;
  std::vector<std::uint8_t> buffer_;
};

TEST(RelayAllocation, WholeServerOverLoopbackAllocatesNothingPerDatagramOnceWarm) {
  constexpr std::size_t kClients = 8;
  constexpr std::size_t kChunk = 50;
  platform::AsioEventLoop loop;
  platform::UdpNetwork network(loop.context());
  test::FakeAdvertiser advertiser;
  platform::SteadyClock clock;
  test::FakeConsole console;
  auto server = IntercomServer::create(crewShow(), ServerPlatform{
                                                       .loop = loop,
                                                       .network = network,
                                                       .advertiser = advertiser,
                                                       .clock = clock,
                                                       .console = console,
                                                       .sayCommand = "/nonexistent/say",
                                                       .exit = [](int) {},
                                                   });
  server->start(50505);
  std::thread serving([&] { loop.run(); });

  std::vector<std::unique_ptr<Client>> clients;
  for (std::size_t i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<Client>());
    clients.back()->send(controlDatagram(R"({"t":"join","name":"crew","role":"Crew"})"));
    bool welcomed = false;
    while (!welcomed && clients.back()->receive(2000) > 0) {
      welcomed =
          std::string(reinterpret_cast<const char*>(clients.back()->data()), 20).find("welcome") !=
          std::string::npos;
    }
    ASSERT_TRUE(welcomed) << "client " << i;
  }
  for (auto& client : clients) {
    while (client->receive(100) >= 0) {  // the rosters
    }
  }
  const std::vector<std::uint8_t> audio = audioDatagram();
  Client& talker = *clients[0];
  auto relayChunk = [&] {
    for (std::size_t i = 0; i < kChunk; ++i) {
      talker.send(audio);
    }
    std::size_t copies = 0;
    for (std::size_t c = 1; c < kClients; ++c) {
      copies += clients[c]->receiveAudio(kChunk, 2000);
    }
    return copies;
  };
  for (int i = 0; i < 4; ++i) {
    relayChunk();  // warm-up: the count is about a running show, not its first datagrams
  }

  AllocationWindow window;
  std::size_t copies = 0;
  for (std::size_t sent = 0; sent < kDatagrams; sent += kChunk) {
    copies += relayChunk();
  }
  const std::size_t allocated = window.stop();
  loop.stop();
  serving.join();

  EXPECT_EQ(allocated, 0U) << "allocations while relaying " << kDatagrams << " datagrams";
  EXPECT_EQ(copies, kDatagrams * (kClients - 1)) << "every copy must have arrived";
}

}  // namespace
}  // namespace parlavox
