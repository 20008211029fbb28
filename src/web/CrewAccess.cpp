#include "web/CrewAccess.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "platform/Hmac.h"

namespace parlavox::web {
namespace {

std::string hex(const platform::Digest& digest) {
  std::string out;
  out.reserve(digest.size() * 2);
  for (const std::uint8_t byte : digest) {
    out += fmt::format("{:02x}", byte);
  }
  return out;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

CrewAccess::CrewAccess(std::string_view pin, std::string_view secret, platform::Clock& clock,
                       std::function<std::int64_t()> unixSeconds, platform::Console& console)
    : pin_(pin),
      key_([&] {
        const platform::Digest key =
            platform::hmacSha256(secret, "parlavox crew session\n" + std::string(pin));
        return std::string(key.begin(), key.end());
      }()),
      clock_(clock),
      unixSeconds_(std::move(unixSeconds)),
      console_(console) {}

std::string CrewAccess::sign(std::int64_t expiry) const {
  const std::string stamp = std::to_string(expiry);
  return stamp + "." + hex(platform::hmacSha256(key_, stamp));
}

bool CrewAccess::holdsSession(std::string_view cookieHeader) const {
  const std::int64_t now = unixSeconds_();
  while (!cookieHeader.empty()) {
    const auto end = cookieHeader.find(';');
    const std::string_view each = trimmed(cookieHeader.substr(0, end));
    cookieHeader = end == std::string_view::npos ? "" : cookieHeader.substr(end + 1);
    if (!each.starts_with(kCookie) || each.substr(kCookie.size(), 1) != "=") {
      continue;
    }
    const std::string_view value = each.substr(kCookie.size() + 1);
    std::int64_t expiry = 0;
    const auto [stop, error] = std::from_chars(value.data(), value.data() + value.size(), expiry);
    if (error == std::errc() && expiry > now && platform::sameBytes(value, sign(expiry))) {
      return true;
    }
  }
  return false;
}

CrewAccess::Tries& CrewAccess::triesOf(const platform::HostAddress& host, platform::MonoTime now) {
  auto found = tries_.find(host);
  if (found == tries_.end()) {
    if (tries_.size() >= kHostsKept) {
      tries_.erase(
          std::ranges::min_element(tries_, {}, [](const auto& entry) { return entry.second.at; }));
    }
    found = tries_.emplace(host, Tries{kWrongTries, now, false}).first;
  }
  Tries& tries = found->second;
  const double elapsed = std::chrono::duration<double>(now - tries.at).count();
  tries.left = std::min(kWrongTries, tries.left + elapsed * kWrongTriesPerSecond);
  tries.at = now;
  if (tries.left >= kWrongTries) {
    tries.warned = false;  // a new round: worth a word again
  }
  return tries;
}

platform::HttpResponse CrewAccess::post(const platform::HttpRequest& request) {
  const std::string_view pin = trimmed(request.body);
  if (pin.empty()) {
    if (holdsSession(request.cookie)) {
      return {204, "text/plain", ""};
    }
    return {401, "text/plain", "The crew PIN is needed\n"};
  }
  Tries& tries = triesOf(request.from, clock_.now());
  if (tries.left < 1) {
    // A right PIN too: otherwise the limit would not stop guessing.
    if (!tries.warned) {
      tries.warned = true;
      console_.warning(
          platform::EventKind::service,
          "⚠️  Crew PIN: too many wrong tries from " + platform::toString(request.from));
    }
    return {429, "text/plain", "Too many tries: wait a minute\n"};
  }
  if (!platform::sameBytes(pin, pin_)) {
    tries.left -= 1;
    return {403, "text/plain", "Wrong PIN\n"};
  }
  const std::string cookie =
      fmt::format("{}={}; Path=/; Max-Age={}; HttpOnly; Secure; SameSite=Strict", kCookie,
                  sign(unixSeconds_() + kSessionSeconds), kSessionSeconds);
  return {204, "text/plain", "", {{"Set-Cookie", cookie}}};
}

std::optional<platform::HttpResponse> CrewAccess::gate(const platform::HttpRequest& request) const {
  if (holdsSession(request.cookie)) {
    return std::nullopt;
  }
  return platform::HttpResponse{401, "text/plain", "The crew PIN is needed\n"};
}

}  // namespace parlavox::web
