// The real parlavox started as systemd starts the service: a notification socket (played here by
// the test), a watchdog, a state directory, and /etc/parlavox/roles.json absent.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What systemd listens on: a datagram socket, one notification per datagram.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("notify socket: " + std::string(std::strerror(errno)));
    }
  }
  ~NotifySocket() { ::close(fd_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  std::optional<std::string> next(std::chrono::milliseconds timeout) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(timeout.count())) != 1) {
      return std::nullopt;
    }
    std::string message(4096, '\0');
    const ssize_t size = ::recv(fd_, message.data(), message.size(), 0);
    message.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return message;
  }

  // The next notification other than the watchdog's.
  std::optional<std::string> nextState(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (auto message =
               next(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()))) {
      if (*message != "WATCHDOG=1") {
        return message;
      }
    }
    return std::nullopt;
  }

 private:
  int fd_;
};

TEST(Service, TellsSystemdWhenItServesWhoIsOnAndThatItsLoopIsAlive) {
  TempDir dir;
  std::filesystem::create_directories(dir / "state");
  NotifySocket systemd(dir / "notify");
  ChildProcess server(parlavoxBinary(), {dir / "etc/roles.json"}, dir.path(),
                      {"NOTIFY_SOCKET=" + (dir / "notify"), "WATCHDOG_USEC=1000000",
                       "STATE_DIRECTORY=" + (dir / "state")});

  // Ready only once the intercom port answers: a "hi" sent the moment it arrives is answered.
  EXPECT_EQ(systemd.next(10s), "READY=1\nSTATUS=0 crew joined, 0 talking");
  client::IntercomClient crew("127.0.0.1");
  const auto config = crew.hi();
  ASSERT_TRUE(config);
  EXPECT_EQ((*config)["t"], "config");
  // With /etc read-only to the service, its roles file is kept in its state directory.
  EXPECT_EQ(server.lines().at(0), "📝 Wrote default roles to " + (dir / "state/roles.json") +
                                      ". Edit it and restart the server to customize.");
  EXPECT_EQ(readFile(dir / "state/roles.json"), encodeConfig(defaultConfig()));

  const auto welcome = crew.join("Ada", "Sound");
  ASSERT_TRUE(welcome && (*welcome)["t"] == "welcome");
  EXPECT_EQ(systemd.nextState(3s), "STATUS=1 crew joined, 0 talking");
  const std::vector<std::uint8_t> samples(640);
  crew.sendAudio(0, 1, 1, samples);
  EXPECT_EQ(systemd.nextState(3s), "STATUS=1 crew joined, 1 talking");
  EXPECT_EQ(systemd.nextState(3s), "STATUS=1 crew joined, 0 talking");

  // Fed at half the watchdog's timeout: on average that often, and each time before systemd would
  // act. (The loop's ticks keep their schedule, so one late tick makes the next one early.)
  std::vector<Clock::time_point> fed;
  while (fed.size() < 5) {
    const auto message = systemd.next(2s);
    ASSERT_TRUE(message) << "the watchdog went hungry";
    if (*message == "WATCHDOG=1") {
      fed.push_back(Clock::now());
    }
  }
  for (std::size_t i = 1; i < fed.size(); ++i) {
    EXPECT_LT(fed[i] - fed[i - 1], 1000ms);
  }
  const auto mean = (fed.back() - fed.front()) / (fed.size() - 1);
  EXPECT_GT(mean, 400ms);
  EXPECT_LT(mean, 700ms);

  EXPECT_EQ(server.count("   Stop it with: systemctl stop parlavox"), 1U);
  EXPECT_EQ(server.count("Press Ctrl-C"), 0U);

  server.signal(SIGTERM);
  EXPECT_EQ(systemd.nextState(5s), "STOPPING=1");
  EXPECT_EQ(server.waitForExit(), 0);
  EXPECT_EQ(server.standardError(), "");
}

TEST(Service, WarningsAndErrorsReachTheJournalAsSuch) {
  TempDir dir;
  std::string channels = R"("ch")";
  for (int i = 1; i < 33; ++i) {
    channels += R"(,"ch)" + std::to_string(i) + '"';
  }
  writeFile(dir / "roles.json", R"({"channels":[)" + channels + R"(],"roles":[],"oscPort":0})");
  // Standard output is a stream that JOURNAL_STREAM names, as when systemd connects the journal.
  const ChildRun run = runToEnd(
      "sh", {"-c", R"(: >out && JOURNAL_STREAM=$(stat -c %d:%i out) exec "$0" roles.json >out)",
             parlavoxBinary()},
      dir.path());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(readFile(dir / "out"), "<4>⚠️  oscPort 0 in " + (dir / "roles.json") +
                                       " would listen on a random port; using 47000\n"
                                       "<3>❌ Max 32 channels.\n");
}

}  // namespace
}  // namespace parlavox::test
