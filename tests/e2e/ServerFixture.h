#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "devkit/ChildProcess.h"
#include "devkit/TempDir.h"
#include "support/Programs.h"

namespace parlavox::test {

// The real server, started by the test in a scratch directory of its own, and crew clients that
// join it over loopback. For the test's thread only.
class ServerFixture : public testing::Test {
 protected:
  // Writes `config` as the roles file and starts the server (or `program`, a copy of it) with
  // `env` ("NAME=value") added to its environment; returns once it listens.
  void startWith(const Config& config, const std::string& program = parlavoxBinary(),
                 const std::vector<std::string>& env = {});
  // A crew client that has joined as `role`, understanding `features`, with its welcome and the
  // rosters so far read.
  std::unique_ptr<client::IntercomClient> member(const std::string& name, const std::string& role,
                                                 wire::Features features = {});
  // Every audio datagram that reaches `client`, waiting `first` for the first and then until
  // `quiet` passes without one.
  static std::vector<client::Audio> audioUntilQuiet(
      client::IntercomClient& client, std::chrono::milliseconds first = std::chrono::seconds(10),
      std::chrono::milliseconds quiet = std::chrono::milliseconds(1500));

  devkit::TempDir dir;
  std::unique_ptr<devkit::ChildProcess> server;
};

}  // namespace parlavox::test
