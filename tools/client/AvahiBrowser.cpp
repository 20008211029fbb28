#include "client/AvahiBrowser.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <avahi-common/timeval.h>
#include <fmt/format.h>
#include <net/if.h>

#include <array>
#include <exception>
#include <memory>

namespace parlavox::client {
namespace {

// The state of one findFirst() call, shared with Avahi's C callbacks. Everything runs on the
// caller's thread: a simple poll needs no locks.
struct Search {
  AvahiSimplePoll* poll = nullptr;
  std::string type;
  int pendingResolvers = 0;
  bool allForNow = false;
  bool done = false;
  std::optional<FoundService> found;
  std::string failure;  // why nothing was found

  void finish() {
    done = true;
    avahi_simple_poll_quit(poll);
  }
  void finishWith(std::string why) {
    failure = std::move(why);
    finish();
  }
  void finishNoneFound() { finishWith(fmt::format("nothing on this network advertises {}", type)); }
  void finishIfNothingPending() {
    if (allForNow && pendingResolvers == 0 && !done) {
      finishNoneFound();
    }
  }
};

std::string failureOf(int error) {
  if (error == AVAHI_ERR_NO_DAEMON || error == AVAHI_ERR_DISCONNECTED ||
      error == AVAHI_ERR_DBUS_ERROR) {
    return "there is no Avahi daemon to ask";
  }
  return fmt::format("DNS-SD browsing failed ({})", avahi_strerror(error));
}

std::string numericAddress(const AvahiAddress& address, AvahiIfIndex interface) {
  std::array<char, AVAHI_ADDRESS_STR_MAX> text{};
  avahi_address_snprint(text.data(), text.size(), &address);
  std::string out(text.data());
  // A link-local IPv6 address means nothing without the interface it was seen on.
  const bool linkLocal = address.proto == AVAHI_PROTO_INET6 &&
                         address.data.ipv6.address[0] == 0xFE &&
                         (address.data.ipv6.address[1] & 0xC0) == 0x80;
  std::array<char, IF_NAMESIZE> name{};
  if (linkLocal && interface >= 0 &&
      if_indextoname(static_cast<unsigned>(interface), name.data()) != nullptr) {
    out += '%';
    out += name.data();
  }
  return out;
}

// Avahi calls these from C; no exception may cross back into it. The only ones possible are
// allocation failures, and those end the search as a failure.
void onResolved(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol /*protocol*/,
                AvahiResolverEvent event, const char* name, const char* /*type*/,
                const char* /*domain*/, const char* hostName, const AvahiAddress* address,
                std::uint16_t port, AvahiStringList* /*txt*/, AvahiLookupResultFlags /*flags*/,
                void* self) noexcept {
  auto& search = *static_cast<Search*>(self);
  --search.pendingResolvers;
  try {
    if (event == AVAHI_RESOLVER_FOUND && address != nullptr && !search.done) {
      search.found = FoundService{name, hostName, numericAddress(*address, interface), port};
      search.finish();
    }
  } catch (const std::exception& e) {
    search.finishWith(fmt::format("DNS-SD browsing failed ({})", e.what()));
  }
  avahi_service_resolver_free(resolver);
  // A service that failed to resolve may have been the last hope.
  search.finishIfNothingPending();
}

void onBrowse(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
              AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
              AvahiLookupResultFlags /*flags*/, void* self) noexcept {
  auto& search = *static_cast<Search*>(self);
  switch (event) {
    case AVAHI_BROWSER_NEW: {
      // Resolve to an address of the family it was seen on, so each sighting gives one answer.
      AvahiServiceResolver* resolver = avahi_service_resolver_new(
          avahi_service_browser_get_client(browser), interface, protocol, name, type, domain,
          protocol, static_cast<AvahiLookupFlags>(0), &onResolved, &search);
      if (resolver != nullptr) {
        ++search.pendingResolvers;
      }
      break;
    }
    case AVAHI_BROWSER_ALL_FOR_NOW:
      search.allForNow = true;
      search.finishIfNothingPending();
      break;
    case AVAHI_BROWSER_FAILURE:
      if (!search.done) {
        search.finishWith(failureOf(avahi_client_errno(avahi_service_browser_get_client(browser))));
      }
      break;
    case AVAHI_BROWSER_REMOVE:
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
      break;
  }
}

void onClientState(AvahiClient* client, AvahiClientState state, void* self) noexcept {
  auto& search = *static_cast<Search*>(self);
  if (state == AVAHI_CLIENT_FAILURE && !search.done) {
    search.finishWith(failureOf(avahi_client_errno(client)));
  }
}

void onTimeout(AvahiTimeout* /*timeout*/, void* self) noexcept {
  auto& search = *static_cast<Search*>(self);
  if (!search.done) {
    search.finishNoneFound();
  }
}

struct PollFree {
  void operator()(AvahiSimplePoll* poll) const { avahi_simple_poll_free(poll); }
};
struct ClientFree {
  void operator()(AvahiClient* client) const { avahi_client_free(client); }
};

}  // namespace

platform::Result<FoundService> AvahiBrowser::findFirst(const std::string& type,
                                                       std::chrono::milliseconds timeout) {
  Search search;
  search.type = type;
  const std::unique_ptr<AvahiSimplePoll, PollFree> poll(avahi_simple_poll_new());
  if (!poll) {
    return platform::Failure{failureOf(AVAHI_ERR_NO_MEMORY)};
  }
  search.poll = poll.get();
  const AvahiPoll* api = avahi_simple_poll_get(poll.get());

  int error = AVAHI_OK;
  // Freeing the client frees its browser and any resolver still running, and their timeouts; the
  // poll goes last.
  const std::unique_ptr<AvahiClient, ClientFree> client(
      avahi_client_new(api, static_cast<AvahiClientFlags>(0), &onClientState, &search, &error));
  if (!client) {
    return platform::Failure{failureOf(error)};
  }
  if (!search.done && avahi_service_browser_new(
                          client.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.c_str(), nullptr,
                          static_cast<AvahiLookupFlags>(0), &onBrowse, &search) == nullptr) {
    search.failure = failureOf(avahi_client_errno(client.get()));
    search.done = true;
  }
  if (!search.done) {
    timeval when{};
    const auto milliseconds = timeout.count() > 0 ? timeout.count() : 0;
    avahi_elapse_time(&when, static_cast<unsigned>(milliseconds), 0);
    AvahiTimeout* deadline = api->timeout_new(api, &when, &onTimeout, &search);
    while (!search.done) {
      if (avahi_simple_poll_iterate(poll.get(), -1) != 0) {
        break;  // quit was asked for (1) or the poll failed (-1)
      }
    }
    if (!search.done) {
      search.failure = "DNS-SD browsing failed (polling the Avahi daemon failed)";
    }
    if (deadline != nullptr) {
      api->timeout_free(deadline);
    }
  }
  if (search.found) {
    return *search.found;
  }
  return platform::Failure{search.failure};
}

}  // namespace parlavox::client
