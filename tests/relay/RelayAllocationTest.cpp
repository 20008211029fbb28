// Once warm, relaying an audio datagram, or dropping one beyond its talker's rate, allocates
// nothing on the server's loop thread: not the relay, not the receive path, not the sockets'
// batching. The whole server runs over real UDP sockets on loopback; this executable replaces
// operator new.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "client/IntercomClient.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakeNetwork.h"
#include "platform/AsioEventLoop.h"
#include "platform/UdpNetwork.h"
#include "relay/IntercomServer.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<std::size_t> allocations{0};
// Only the loop's allocations count; the clients live on the test's thread and allocate freely.
thread_local bool onLoopThread = false;

void* allocate(std::size_t size, std::size_t alignment) {
  if (onLoopThread && counting.load(std::memory_order_relaxed)) {
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

// The scalar forms with their matching deletes: the array and nothrow forms call these in
// libstdc++ (under the sanitizers they are the runtime's own, and go uncounted there).
void* operator new(std::size_t size) {
  return allocate(size, 0);
}
void* operator new(std::size_t size, std::align_val_t align) {
  return allocate(size, static_cast<std::size_t>(align));
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}

namespace parlavox {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kDatagrams = 2'000;
constexpr std::size_t kClients = 8;
// Each client talks in turn, a burst of its audio rate and kOver more, which the relay drops;
// kTurn apart, so that each bucket is full again at its next turn.
constexpr std::size_t kChunk = 50;
constexpr std::size_t kOver = 10;
constexpr auto kTurn = 75ms;
static_assert(kChunk == parlavox::PeerTable::kAudioBurst);

TEST(RelayAllocation, WholeServerOverLoopbackAllocatesNothingPerDatagramOnceWarm) {
  platform::AsioEventLoop loop;
  platform::UdpNetwork network(loop.context());
  test::FakeAdvertiser advertiser;
  platform::SteadyClock clock;
  test::FakeConsole console;
  const Config show{"Alloc", {"Main", "Tech"}, {Role{"Crew", {"Main"}, {"Main"}}}, 47000};
  auto server = IntercomServer::create(Show(show), ServerPlatform{loop, advertiser, clock, console},
                                       [](int) {});
  const auto intercom = network.listenPeers(50505);
  server->start(*intercom);
  std::thread serving([&] {
    onLoopThread = true;
    loop.run();
  });

  std::vector<std::unique_ptr<client::IntercomClient>> clients;
  for (std::size_t i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<client::IntercomClient>("127.0.0.1"));
    const auto welcome = clients.back()->join("crew", "Crew");
    ASSERT_TRUE(welcome && (*welcome)["t"] == "welcome") << "client " << i;
  }
  // Rosters of a burst of joins go out together a moment later; not while counting.
  std::optional<nlohmann::json> roster;
  while ((roster = clients.back()->nextControl(2s)) && (*roster)["users"].size() != kClients) {
  }
  ASSERT_TRUE(roster) << "the whole crew's roster";
  const std::vector<std::uint8_t> samples(640, 0x5A);
  std::size_t turn = 0;
  std::size_t sent = 0;
  auto relayChunk = [&] {
    const auto next = std::chrono::steady_clock::now() + kTurn;
    const std::size_t talker = turn++ % kClients;
    for (std::size_t i = 0; i < kChunk + kOver; ++i) {
      clients[talker]->sendAudio(0, 0x1, static_cast<std::uint16_t>(i), samples);
    }
    sent += kChunk + kOver;
    std::size_t copies = 0;
    for (std::size_t c = 0; c < kClients; ++c) {
      for (std::size_t i = 0; c != talker && i < kChunk && clients[c]->nextAudio(2s); ++i) {
        ++copies;
      }
    }
    std::this_thread::sleep_until(next);
    return copies;
  };
  for (std::size_t i = 0; i < kClients; ++i) {
    relayChunk();  // warm-up: the count is about a running show, not its first datagrams
  }

  allocations = 0;
  counting = true;
  std::size_t copies = 0;
  for (std::size_t relayed = 0; relayed < kDatagrams; relayed += kChunk) {
    copies += relayChunk();
  }
  counting = false;
  loop.stop();
  serving.join();

  EXPECT_EQ(allocations.load(), 0U) << "allocations while relaying " << kDatagrams << " datagrams";
  EXPECT_EQ(copies, kDatagrams * (kClients - 1)) << "every copy must have arrived";
  EXPECT_LT(server->counts().audioReceived, sent) << "and those beyond the rate were dropped";
}

}  // namespace
}  // namespace parlavox
