#include "e2e/ServerFixture.h"

#include "config/RolesFile.h"

namespace parlavox::test {

using devkit::ChildProcess;
using devkit::writeFile;

using namespace std::chrono_literals;

void ServerFixture::startWith(const Config& config, const std::string& program,
                              const std::vector<std::string>& env) {
  writeFile(dir / "roles.json", encodeConfig(config));
  server = std::make_unique<ChildProcess>(program, std::vector<std::string>{}, dir.path(), env);
  ASSERT_TRUE(server->waitForLine("✅ Listening on UDP port 50505"));
}

std::unique_ptr<client::IntercomClient> ServerFixture::member(const std::string& name,
                                                              const std::string& role,
                                                              wire::Features features) {
  auto client = std::make_unique<client::IntercomClient>("127.0.0.1");
  const auto welcome = client->join(name, role, features);
  EXPECT_TRUE(welcome && (*welcome)["t"] == "welcome") << name;
  while (client->nextControl(300ms)) {
    // the rosters
  }
  return client;
}

std::vector<client::Audio> ServerFixture::audioUntilQuiet(client::IntercomClient& client,
                                                          std::chrono::milliseconds first,
                                                          std::chrono::milliseconds quiet) {
  std::vector<client::Audio> out;
  auto wait = first;
  while (auto audio = client.nextAudio(wait)) {
    out.push_back(std::move(*audio));
    wait = quiet;
  }
  return out;
}

}  // namespace parlavox::test
