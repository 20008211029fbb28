#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/Http.h"
#include "platform/PasswordFile.h"
#include "platform/PasswordHash.h"
#include "relay/RateLimiter.h"
#include "relay/TokenBucket.h"

namespace parlavox::web {

// The operator's password: the gate before the monitor, its feed, the metrics and the operator's
// actions. HTTP Basic authentication, any user name, so that a browser's own prompt and a
// Prometheus scrape both get in. Without a password kept, everything passes, as before there was
// one; with one that cannot be read, nothing does. The password is checked by a slow hash, on the
// loop: an Authorization that passed once is remembered (its SHA-256) until the password changes,
// and so is one that failed; the hash runs at most a few times a minute for each host and a few
// times a second in all.
// Loop thread only.
class OperatorAccess {
 public:
  // The file the hash is kept in, beside the roles file or in the service's state directory.
  static constexpr const char* kFileName = "parlavox-operator";

  enum class State {
    open,      // no password
    guarded,   // a password
    unusable,  // a password that cannot be read: nobody gets in
  };

  // Reads what `store` keeps. `store`, `clock` and `console` outlive this.
  OperatorAccess(platform::PasswordStore& store, platform::Clock& clock,
                 platform::Console& console);

  // Re-reads the password if it changed since, and says so on the console. Once a second. True
  // when someone let in before may no longer be.
  bool refresh();
  State state() const { return state_; }

  // The gate: nothing lets `request` through; else the answer that refuses it.
  std::optional<platform::HttpResponse> check(const platform::HttpRequest& request);
  // For what is never open to all (the show's log): without a password, the 403 that says how to
  // set one; else nothing, and check() decides.
  std::optional<platform::HttpResponse> refuseWhileOpen() const;

 private:
  // Whether the password is other than it was.
  bool load();

  platform::PasswordStore& store_;
  platform::Clock& clock_;
  platform::Console& console_;
  State state_ = State::open;
  std::string hash_;
  std::vector<platform::Sha256> accepted_;  // Authorization values that passed
  // And those that failed: a monitor left open across a change of password retries with the old
  // one, which must cost neither a check nor its host's share of them.
  std::vector<platform::Sha256> refused_;
  // Hosts the console has named for guessing, each once (a few, then forgotten).
  std::vector<platform::HostAddress> named_;
  RateLimiter hostChecks_;
  TokenBucket allChecks_;
};

}  // namespace parlavox::web
