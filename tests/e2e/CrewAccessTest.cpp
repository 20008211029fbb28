// Who may reach the crew: the crew PIN before the station's socket, and the crew's networks on the
// intercom's port and the station's. The real server, curl and a WebSocket client, on loopback
// and on addresses the test adds to its own namespace.
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
    auto lines = devkit::runToEnd("curl", args, dir.path()).lines;
    std::string text;
    for (const std::string& line : lines) {
      text += line + "\n";
    }
    return {lines.empty() ? "" : lines.back(), text};
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
  EXPECT_THROW(openCrewSocket(""), boost::system::system_error);
  EXPECT_EQ(ask({"-d", "1234", kPin}).first, "403");
  const auto [taken, answer] = ask({"-d", "4711", kPin});
  ASSERT_EQ(taken, "204");
  EXPECT_THAT(answer,
              testing::HasSubstr("; Path=/; Max-Age=86400; HttpOnly; Secure; SameSite=Strict"));
  const auto at = answer.find("parlavox-crew=");
  ASSERT_NE(at, std::string::npos);
  const std::string cookie = answer.substr(at, answer.find(';', at) - at);
  EXPECT_NO_THROW(openCrewSocket(cookie));
  EXPECT_EQ(ask({"-X", "POST", "-H", "Cookie: " + cookie, kPin}).first, "204") << "still good";
  std::string forged = cookie;
  forged.back() = forged.back() == '0' ? '1' : '0';
  EXPECT_THROW(openCrewSocket(forged), boost::system::system_error);
  EXPECT_EQ(ask({"-X", "POST", "-H", "Cookie: " + forged, kPin}).first, "401");

  // Five wrong in a row; then even the right one waits, and the operator hears of it once.
  for (const char* guess : {"0000", "0001", "0002", "0003"}) {
    EXPECT_EQ(ask({"-d", guess, kPin}).first, "403") << guess;
  }
  for (const char* guess : {"4711", "0004", "4711"}) {
    EXPECT_EQ(ask({"-d", guess, kPin}).first, "429") << guess;
  }
  EXPECT_TRUE(server->waitForLine("⚠️  Crew PIN: too many wrong tries from 127.0.0.1"));
  EXPECT_EQ(ask({"--interface", "127.0.0.2", "-d", "4711", kPin}).first, "204") << "another host";

  const auto [info, served] = ask({"https://127.0.0.1:50505/station.json"});
  EXPECT_THAT(served, testing::HasSubstr(R"("pin":true)"));
  EXPECT_THAT(server->lines(), testing::Contains("   The station asks for the crew PIN."));
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
  EXPECT_TRUE(server->waitForLine("   Crew only from: 10.20.0.0/24 (and this computer)"));
}

// A PIN or networks that cannot be read must not leave the crew open: no built-in show instead.
TEST(CrewAccessFile, AGuardedFileThatCannotBeReadStopsTheServer) {
  const std::pair<std::string, std::string> cases[] = {
      {kShow + R"(,"crewPin":"471"})", "crewPin: expected a string of 4 to 64 letters"},
      {kShow + R"(,"crewPin":4711})", "crewPin: expected"},
      {kShow + R"(,"crewPin":"47 11"})", "crewPin: expected"},
      {kShow + R"(,"crewNetworks":"10.20.0.0/24"})", "crewNetworks: expected a non-empty array"},
      {kShow + R"(,"crewNetworks":[]})", "crewNetworks: expected a non-empty array"},
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
    EXPECT_EQ(server.count("❌ Not starting: "), 1U) << roles;
    EXPECT_EQ(server.count(says), 1U) << roles;
    EXPECT_EQ(server.count("4711"), 0U) << roles;
  }
}

}  // namespace
}  // namespace parlavox::test
