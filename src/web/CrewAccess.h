#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/Http.h"

namespace parlavox::web {

// The crew PIN: a browser that posts it gets a session cookie for 24 hours, and the crew's gate
// lets through only requests that carry a good one. The cookie is its expiry signed with a key
// made of a secret the server keeps (its authority's key) and the PIN, so that it outlives a
// restart but not a change of PIN, and needs no table. Wrong PINs are limited per host. Loop thread
// only.
class CrewAccess {
 public:
  static constexpr std::string_view kCookie = "parlavox-crew";
  static constexpr std::int64_t kSessionSeconds = 24 * 60 * 60;
  // Wrong PINs one host may try in a row, and how fast that allowance comes back: about five a
  // minute, hopeless against even four digits, harmless to crew who mistype.
  static constexpr double kWrongTries = 5;
  static constexpr double kWrongTriesPerSecond = 5.0 / 60;
  // Hosts whose wrong tries are remembered at once: a flood from many addresses must not grow
  // the table without end; past it the longest quiet is forgotten.
  static constexpr std::size_t kHostsKept = 4096;

  // `unixSeconds` reads the wall clock; `clock` paces the tries; both, and `console`, outlive this.
  CrewAccess(std::string_view pin, std::string_view secret, platform::Clock& clock,
             std::function<std::int64_t()> unixSeconds, platform::Console& console);

  // Loop thread. A post of the PIN: 204 with the session cookie, 403 for a wrong one, 429 while
  // the host has tried too many. An empty post only asks whether the cookie sent is good: 204 or
  // 401, and is never counted.
  platform::HttpResponse post(const platform::HttpRequest& request);
  // Loop thread. The crew's gate: nothing for a request with a good session cookie, else 401.
  std::optional<platform::HttpResponse> gate(const platform::HttpRequest& request) const;

 private:
  struct Tries {
    double left = kWrongTries;
    platform::MonoTime at;
    bool warned = false;
  };

  std::string sign(std::int64_t expiry) const;
  bool holdsSession(std::string_view cookieHeader) const;
  Tries& triesOf(const platform::HostAddress& host, platform::MonoTime now);

  std::string pin_;
  std::string key_;
  platform::Clock& clock_;
  std::function<std::int64_t()> unixSeconds_;
  platform::Console& console_;
  std::unordered_map<platform::HostAddress, Tries, platform::HostAddressHash> tries_;
};

}  // namespace parlavox::web
