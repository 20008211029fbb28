// Who may reach the crew: the crew PIN before the station's socket, and the crew's networks on the
// intercom's port and the station's. The real server, curl and a WebSocket client, on loopback
// and on addresses the test adds to its own namespace.
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/system/system_error.hpp>

#include "devkit/StationSession.h"
#include "e2e/ServerFixture.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
using namespace std::chrono_literals;

const std::string kShow =
    R"({"channels":["Main"],"roles":[{"name":"SM","talk":["Main"],"listen":[]}])";
const std::string kPin = "https://127.0.0.1:50505/pin";

class CrewAccess : public ServerFixture {
 protected:
  void start(const std::string& keys) {
    devkit::writeFile(dir / "roles.json", kShow + "," + keys + "}");
    server =
        std::make_unique<ChildProcess>(parlavoxBinary(), std::vector<std::string>{}, dir.path());
    ASSERT_TRUE(server->waitForLine("✅ Listening on UDP port 50505"));
  }
  // The answer's status code, then its headers and body.
  std::pair<std::string, std::string> ask(std::vector<std::string> args) {
    args.insert(args.begin(), {"-sk", "-D", "-", "-w", "\n%{http_code}\n"});
    const auto lines = devkit::runToEnd("curl", args, dir.path()).lines;
    return {lines.back(), fmt::format("{}", fmt::join(lines, "\n"))};
  }
  // Throws when the server refuses the socket.
  void openCrewSocket(const std::string& cookie) {
    boost::asio::io_context io;
    boost::asio::ssl::context tls(boost::asio::ssl::context::tls_client);
    devkit::StationSession(io, tls, "127.0.0.1", 50505, "", "/intercom", cookie);
  }
};

TEST_F(CrewAccess, ThePinGetsASessionWrongOnesAreLimitedAndItIsNeverShown) {
  start(R"("crewPin":"4711")");
  EXPECT_EQ(ask({"-H", "Connection: Upgrade", "-H", "Upgrade: websocket", "-H",
                 "Sec-WebSocket-Version: 13", "-H",
                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==", "https://127.0.0.1:50505/intercom"})
                .first,
            "401");
  EXPECT_EQ(ask({"-d", "1234", kPin}).first, "403");
  const auto [taken, answer] = ask({"-d", "4711", kPin});
  ASSERT_EQ(taken, "204");
  EXPECT_THAT(answer,
              testing::HasSubstr("; Path=/; Max-Age=86400; HttpOnly; Secure; SameSite=Strict"));
  const auto at = answer.find("parlavox-crew=");
  ASSERT_NE(at, std::string::npos);
  const std::string cookie = answer.substr(at, answer.find(';', at) - at);
  EXPECT_NO_THROW(openCrewSocket(cookie));

  // Five wrong in a row; then even the right one waits, and the operator hears of it once.
  const std::string guesses[] = {"0000", "0001", "0002", "0003", "4711", "0004"};
  for (std::size_t i = 0; i < std::size(guesses); ++i) {
    EXPECT_EQ(ask({"-d", guesses[i], kPin}).first, i < 4 ? "403" : "429") << guesses[i];
  }
  EXPECT_TRUE(server->waitForLine("⚠️  Crew PIN: too many wrong tries from 127.0.0.1"));
  EXPECT_EQ(ask({"--interface", "127.0.0.2", "-d", "4711", kPin}).first, "204") << "another host";

  const auto [info, served] = ask({"https://127.0.0.1:50505/station.json"});
  server->stop();
  EXPECT_EQ(server->count("too many wrong tries"), 1U);
  EXPECT_EQ(server->count("4711"), 0U);
  EXPECT_EQ(served.find("4711"), std::string::npos);

  // A session outlives a restart, not a new PIN.
  start(R"("crewPin":"4711")");
  EXPECT_NO_THROW(openCrewSocket(cookie));
  server->stop();
  start(R"("crewPin":"4712")");
  EXPECT_THROW(openCrewSocket(cookie), boost::system::system_error);
}

TEST_F(CrewAccess, OnlyTheCrewsNetworksAndThisComputerAreAnswered) {
  for (const char* address : {"10.9.0.1/32", "10.20.0.5/32"}) {
    ASSERT_EQ(devkit::runProgram({"ip", "address", "add", address, "dev", "lo"}), 0);
  }
  start(R"("crewNetworks":["10.20.0.0/24"])");
  for (const auto& [from, served] :
       {std::pair{"10.9.0.1", false}, {"10.20.0.5", true}, {"127.0.0.1", true}}) {
    // To its own address: replies come from the address nearest the sender.
    client::IntercomClient crew(from, wire::kIntercomPort, from);
    EXPECT_EQ(crew.hi(1s).has_value(), served) << from;
    EXPECT_EQ(ask({"--interface", from, "https://10.20.0.5:50505/station.json"}).first,
              served ? "200" : "000")
        << from;
  }
}

// A PIN or networks that cannot be read must not leave the crew open: no built-in show instead.
TEST(CrewAccessFile, AGuardedFileThatCannotBeReadStopsTheServer) {
  const std::pair<std::string, std::string> cases[] = {
      {kShow + R"(,"crewPin":"471"})", "crewPin: expected a string of 4 to 64 letters"},
      {kShow + R"(,"crewNetworks":"10.20.0.0/24"})", "crewNetworks: expected a non-empty array"},
      {kShow + R"(,"crewNetworks":["10.20.0.0/33"]})", "crewNetworks[0]: expected a network"},
      {kShow + R"(,"crewNetworks":["::/0","10.20.0/24"]})", "crewNetworks[1]: expected a network"},
      {R"({"channels":"Main","crewPin":"4711"})", "channels: expected an array"},
      {R"({"channels":[],"crewPin":"4711\q"})", "parse error"},
  };
  for (const auto& [roles, says] : cases) {
    devkit::TempDir dir;
    devkit::writeFile(dir / "roles.json", roles);
    ChildProcess server(parlavoxBinary(), {}, dir.path());
    EXPECT_EQ(server.waitForExit(), 1) << roles;
    EXPECT_EQ(server.count("❌ Not starting: " + says), 1U) << roles;
    EXPECT_EQ(server.count("4711"), 0U) << roles;
  }
}

}  // namespace
}  // namespace parlavox::test
