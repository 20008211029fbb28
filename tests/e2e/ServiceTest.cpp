// The real parlavox started as systemd starts the service: a notification socket (played here by
// the test), a watchdog, a state directory, and /etc/parlavox/roles.json absent.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "devkit/ChildProcess.h"
#include "devkit/TempDir.h"
#include "support/Programs.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
using devkit::readFile;
using devkit::TempDir;

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What systemd listens on: a datagram socket, one notification per datagram.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
  }
  ~NotifySocket() { ::close(fd_); }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next notification within `timeout`; the watchdog's are passed over unless `watchdog`.
  std::optional<std::string> next(std::chrono::milliseconds timeout, bool watchdog = false) {
    const auto deadline = Clock::now() + timeout;
    pollfd ready{fd_, POLLIN, 0};
    while (
        ::poll(
            &ready, 1,
            static_cast<int>(
                std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count())) ==
        1) {
      std::string message(4096, '\0');
      message.resize(static_cast<std::size_t>(std::max(::recv(fd_, message.data(), 4096, 0), 0L)));
      if (watchdog || message != "WATCHDOG=1") {
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
  EXPECT_EQ(crew.hi().value_or(nlohmann::json::object()).value("t", ""), "config");
  // With /etc read-only to the service, its roles file is kept in its state directory.
  // Printed before the notice, but read from the server's output on a thread of its own.
  EXPECT_EQ(server.waitForLine("📝 Wrote default roles to "),
            "📝 Wrote default roles to " + (dir / "state/roles.json") +
                ". Edit it and restart the server to customize.");
  EXPECT_TRUE(server.lines().front().starts_with("📝 Wrote default roles")) << "and first";
  EXPECT_EQ(readFile(dir / "state/roles.json"), encodeConfig(defaultConfig()));

  ASSERT_EQ(crew.join("Ada", "Sound").value_or(nlohmann::json::object()).value("t", ""), "welcome");
  EXPECT_EQ(systemd.next(3s), "STATUS=1 crew joined, 0 talking");
  // Talking while its frames come (the status is sampled each second), and not once they stop.
  std::optional<std::string> talking;
  for (std::uint16_t seq = 0; seq < 150 && !talking; ++seq) {
    crew.sendAudio(0, 1, seq, std::vector<std::uint8_t>(640));
    talking = systemd.next(20ms);
  }
  EXPECT_EQ(talking, "STATUS=1 crew joined, 1 talking");
  EXPECT_EQ(systemd.next(3s), "STATUS=1 crew joined, 0 talking");

  // Fed at half the watchdog's timeout: on average that often, and each time before systemd would
  // act. (The loop's ticks keep their schedule, so one late tick makes the next one early.)
  std::vector<Clock::time_point> fed;
  while (fed.size() < 5) {
    ASSERT_EQ(systemd.next(2s, true), "WATCHDOG=1") << "the watchdog went hungry";
    fed.push_back(Clock::now());
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
  EXPECT_EQ(systemd.next(5s), "STOPPING=1");
  EXPECT_EQ(server.waitForExit(), 0);
  EXPECT_EQ(server.standardError(), "");
}

}  // namespace
}  // namespace parlavox::test
