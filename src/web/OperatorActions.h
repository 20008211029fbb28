#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "announce/Announcements.h"
#include "platform/Console.h"
#include "platform/Http.h"
#include "relay/IntercomServer.h"
#include "web/OperatorAccess.h"
#include "web/Routes.h"

namespace parlavox::web {

// What the operator does from the monitor page, or show control over HTTP: announce, stop the
// announcements, call the crew, remove a crew member (and refuse its address). Each is an action
// behind the operator's password, and never open: without a password set, each is refused with
// how to set one. Each prints one console line with where it came from. Loop thread only.
class OperatorActions {
 public:
  // Larger bodies are no operator's: an announcement is at most a thousand characters.
  static constexpr std::size_t kBodyLimit = 8 * 1024;

  // Everything given outlives this object.
  OperatorActions(Announcements& announcements, IntercomServer& relay, const OperatorAccess& access,
                  platform::Console& console)
      : announcements_(announcements), relay_(relay), access_(access), console_(console) {}

  // The routes' actions, each for the operator only; they hold this object.
  std::vector<std::pair<std::string, Routes::Action>> actions();

 private:
  platform::HttpResponse announce(const platform::HttpRequest& request);
  platform::HttpResponse stop(const platform::HttpRequest& request);
  platform::HttpResponse call(const platform::HttpRequest& request);
  platform::HttpResponse remove(const platform::HttpRequest& request);
  // The answer that refuses `request` before anything is done, or nothing.
  std::optional<platform::HttpResponse> refusal(const platform::HttpRequest& request) const;
  void print(const platform::HttpRequest& request, std::string_view what);

  Announcements& announcements_;
  IntercomServer& relay_;
  const OperatorAccess& access_;
  platform::Console& console_;
};

}  // namespace parlavox::web
