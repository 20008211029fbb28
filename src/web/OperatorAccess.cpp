#include "web/OperatorAccess.h"

#include <algorithm>
#include <cctype>

namespace parlavox::web {
namespace {

// A host may have the password checked 5 times at once, then once every 12 s: an operator who
// mistypes gets on, a guesser gets nowhere.
constexpr double kHostChecks = 5;
constexpr double kHostChecksPerSecond = 5.0 / 60;
constexpr std::size_t kHostsKept = 1024;
// However many hosts take part, checks take at most a small share of the loop that relays audio.
constexpr double kChecks = 10;
constexpr double kChecksPerSecond = 4;
// Operators' browsers and scrapers that got in, and wrong passwords; more than this, and the
// oldest is forgotten.
constexpr std::size_t kVerdictsKept = 32;
// The challenge's realm is what a browser's prompt shows.
constexpr const char* kChallenge = R"(Basic realm="Parlavox operator", charset="UTF-8")";

platform::HttpResponse challenge() {
  return {401,
          "text/plain",
          "The operator's password is needed here.\n",
          {{"WWW-Authenticate", kChallenge}}};
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
    text.remove_suffix(1);
  }
  return text;
}

// The password of a Basic authorization, whatever its user name; nothing when it is not one.
std::optional<std::string> basicPassword(std::string_view authorization) {
  authorization = trimmed(authorization);
  constexpr std::string_view kScheme = "basic ";
  if (authorization.size() <= kScheme.size() ||
      !std::equal(kScheme.begin(), kScheme.end(), authorization.begin(), [](char a, char b) {
        return a == std::tolower(static_cast<unsigned char>(b));
      })) {
    return std::nullopt;
  }
  auto credentials = platform::decodeBase64(trimmed(authorization.substr(kScheme.size())));
  const auto colon = credentials ? credentials->find(':') : std::string::npos;
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  return credentials->substr(colon + 1);
}

}  // namespace

OperatorAccess::OperatorAccess(platform::PasswordStore& store, platform::Clock& clock,
                               platform::Console& console)
    : store_(store),
      clock_(clock),
      console_(console),
      hostChecks_(kHostChecks, kHostChecksPerSecond, kHostsKept),
      allChecks_(kChecks, clock.now()) {
  store_.changed();
  load();
}

bool OperatorAccess::load() {
  const State before = state_;
  const std::string previous = std::move(hash_);
  hash_.clear();
  accepted_.clear();
  refused_.clear();
  auto kept = store_.read();
  if (!kept) {
    state_ = State::unusable;
    console_.warning(
        platform::EventKind::service,
        "⚠️  Operator password unusable, so the monitor and metrics refuse everyone: " +
            kept.error());
    return true;
  }
  state_ = *kept ? State::guarded : State::open;
  hash_ = kept->value_or("");
  if (state_ == State::guarded && !previous.empty() && hash_ != previous) {
    console_.info(platform::EventKind::service, "🔑 Operator password changed");
  } else if (state_ == State::guarded && before != State::guarded) {
    console_.info(platform::EventKind::service, "🔑 Operator password set");
  } else if (state_ == State::open && before != State::open) {
    console_.warning(platform::EventKind::service,
                     "⚠️  Operator password removed: the monitor and metrics are open");
  }
  return state_ == State::guarded && hash_ != previous;
}

bool OperatorAccess::refresh() {
  return store_.changed() && load();
}

std::optional<platform::HttpResponse> OperatorAccess::refuseWhileOpen() const {
  if (state_ != State::open) {
    return std::nullopt;
  }
  return platform::HttpResponse{
      403, "text/plain",
      "This needs an operator password, and none is set: run parlavox --operator-password on the "
      "server.\n"};
}

std::optional<platform::HttpResponse> OperatorAccess::check(const platform::HttpRequest& request) {
  if (state_ == State::open) {
    return std::nullopt;
  }
  if (state_ == State::unusable) {
    return platform::HttpResponse{503, "text/plain",
                                  "The operator's password cannot be read: see the console.\n"};
  }
  const platform::Sha256 digest = platform::sha256(request.authorization);
  if (std::find(accepted_.begin(), accepted_.end(), digest) != accepted_.end()) {
    return std::nullopt;
  }
  if (std::find(refused_.begin(), refused_.end(), digest) != refused_.end()) {
    return challenge();
  }
  const auto password = basicPassword(request.authorization);
  if (!password) {
    return challenge();
  }
  const platform::MonoTime now = clock_.now();
  const bool hostMayTry = hostChecks_.allow(request.from, now);
  if (!hostMayTry || !allChecks_.take(now, kChecks, kChecksPerSecond)) {
    if (!hostMayTry && std::find(named_.begin(), named_.end(), request.from) == named_.end()) {
      if (named_.size() == kVerdictsKept) {
        named_.clear();
      }
      named_.push_back(request.from);
      console_.warning(platform::EventKind::service,
                       "⚠️  Too many wrong operator passwords from " +
                           platform::toString(request.from) + ": it waits before its next try");
    }
    return platform::HttpResponse{
        429, "text/plain", "Too many tries: wait a minute.\n", {{"Retry-After", "60"}}};
  }
  const bool right = store_.verify(*password, hash_);
  std::vector<platform::Sha256>& verdicts = right ? accepted_ : refused_;
  if (verdicts.size() == kVerdictsKept) {
    verdicts.erase(verdicts.begin());
  }
  verdicts.push_back(digest);
  return right ? std::nullopt : std::optional(challenge());
}

}  // namespace parlavox::web
