#include "web/OperatorActions.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <nlohmann/json.hpp>

#include "config/Printable.h"
#include "web/Paths.h"

namespace parlavox::web {
namespace {

using platform::HttpRequest;
using platform::HttpResponse;
using Json = nlohmann::json;

HttpResponse plain(unsigned status, std::string text) {
  return {status, "text/plain; charset=utf-8", std::move(text) + "\n"};
}

HttpResponse json(unsigned status, const Json& body) {
  return {status, "application/json; charset=utf-8",
          body.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

// A refusal's reason as the first words of an answer.
HttpResponse badRequest(std::string reason) {
  if (!reason.empty() && reason[0] >= 'a' && reason[0] <= 'z') {
    reason[0] = static_cast<char>(reason[0] - 'a' + 'A');
  }
  return plain(400, std::move(reason));
}

// The body as a JSON object; an empty body is an empty object. Nothing when it is neither.
std::optional<Json> objectOf(std::string_view body) {
  if (body.find_first_not_of(" \t\r\n") == std::string_view::npos) {
    return Json::object();
  }
  Json parsed = Json::parse(body, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    return std::nullopt;
  }
  return parsed;
}

// The optional string `key` of `object`: absent and null alike are empty. Nothing when it is
// there but no string.
std::optional<std::string> optionalText(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) {
    return std::string();
  }
  if (!found->is_string()) {
    return std::nullopt;
  }
  return found->get<std::string>();
}

// Where a channel's name goes in the operator's line and the answer.
std::string whereTo(const std::string& channel, std::string_view everyone) {
  return channel.empty() ? std::string(everyone) : printable(channel);
}

}  // namespace

std::vector<std::pair<std::string, Routes::Action>> OperatorActions::actions() {
  using Handler = HttpResponse (OperatorActions::*)(const HttpRequest&);
  const std::pair<std::string_view, Handler> table[] = {
      {kOperatorAnnounce, &OperatorActions::announce},
      {kOperatorStop, &OperatorActions::stop},
      {kOperatorCall, &OperatorActions::call},
      {kOperatorRemove, &OperatorActions::remove},
  };
  std::vector<std::pair<std::string, Routes::Action>> actions;
  for (const auto& [path, handler] : table) {
    actions.emplace_back(path, Routes::Action{[this, handler](const HttpRequest& request) {
                                                if (auto refused = refusal(request)) {
                                                  return std::move(*refused);
                                                }
                                                return (this->*handler)(request);
                                              },
                                              true});
  }
  return actions;
}

// The operator's gate has let the request through: with no password set, that is anyone, and
// no one may act for the operator then.
std::optional<HttpResponse> OperatorActions::refusal(const HttpRequest& request) const {
  if (auto open = access_.refuseWhileOpen()) {
    return open;
  }
  if (request.body.size() > kBodyLimit) {
    return plain(413, fmt::format("At most {} bytes, please", kBodyLimit));
  }
  return std::nullopt;
}

void OperatorActions::print(const HttpRequest& request, std::string_view what) {
  console_.info(platform::EventKind::operatorAction,
                fmt::format("🎛️  Operator at {}{}", platform::toString(request.from), what));
}

HttpResponse OperatorActions::announce(const HttpRequest& request) {
  const auto body = objectOf(request.body);
  if (!body) {
    return badRequest("Expected a JSON object: {\"text\": \"…\", \"channel\": \"…\"}");
  }
  const auto text = optionalText(*body, "text");
  const auto channel = optionalText(*body, "channel");
  if (!text || !channel) {
    return badRequest("\"text\" and \"channel\" are strings");
  }
  if (auto refused = announcements_.announce(*text, *channel)) {
    return badRequest(std::move(*refused));
  }
  print(request, fmt::format(": announce \"{}\" on {}", printable(*text),
                             whereTo(*channel, "all channels")));
  return json(202, {{"announced", *text}, {"channel", channel->empty() ? Json() : Json(*channel)}});
}

HttpResponse OperatorActions::stop(const HttpRequest& request) {
  announcements_.stop();
  print(request, ": stop the announcements");
  return json(202, {{"stopped", true}});
}

HttpResponse OperatorActions::call(const HttpRequest& request) {
  const auto body = objectOf(request.body);
  const auto channel = body ? optionalText(*body, "channel") : std::nullopt;
  if (!channel) {
    return badRequest("Expected a JSON object, with \"channel\" a string if given");
  }
  if (auto refused = announcements_.call(*channel)) {
    return badRequest(std::move(*refused));
  }
  print(request, ": call " + whereTo(*channel, "everyone"));
  return json(202, {{"called", channel->empty() ? Json() : Json(*channel)}});
}

HttpResponse OperatorActions::remove(const HttpRequest& request) {
  const auto body = objectOf(request.body);
  const auto id = body ? body->find("id") : Json::const_iterator();
  if (!body || id == body->end() || !id->is_number_unsigned() ||
      id->get<std::uint64_t>() > 0xFFFF) {
    return badRequest("Expected a JSON object: {\"id\": N, \"refuse\": true}");
  }
  const auto refuse = body->find("refuse");
  if (refuse != body->end() && !refuse->is_boolean() && !refuse->is_null()) {
    return badRequest("\"refuse\" is true or false");
  }
  const bool refusing = refuse != body->end() && refuse->is_boolean() && refuse->get<bool>();
  const auto removal = relay_.removeMember(id->get<std::uint16_t>(), refusing);
  if (!removal) {
    return plain(404, fmt::format("No crew member has id {}", id->get<std::uint64_t>()));
  }
  const std::string who =
      fmt::format("{} ({})", printable(removal->name), printable(removal->role));
  const std::string host = platform::toString(removal->host);
  std::string what = " removed " + who;
  if (!removal->others.empty()) {
    what += fmt::format(" and {}", fmt::join(removal->others, ", "));
  }
  if (refusing) {
    what += fmt::format("{} refused {}", removal->others.empty() ? " and" : ", and", host);
  }
  print(request, what);
  Json removed = Json::array({who});
  for (const std::string& other : removal->others) {
    removed.push_back(other);
  }
  return json(200, {{"removed", std::move(removed)}, {"refused", refusing ? Json(host) : Json()}});
}

}  // namespace parlavox::web
