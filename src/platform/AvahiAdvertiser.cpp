#include "platform/AvahiAdvertiser.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>
#include <fmt/format.h>

#include <exception>
#include <utility>

namespace parlavox::platform {

namespace {

// How long to wait before trying again while not even the system bus answers. Once the bus is
// there, avahi-client notices the daemon's arrival by itself (AVAHI_CLIENT_NO_FAIL).
constexpr unsigned kRetryMilliseconds = 3000;

// Every local name collision renames once; this only guards against a daemon that keeps
// refusing.
constexpr int kMaxRenames = 100;

constexpr const char* kUnavailable =
    "⚠️  Bonjour advertisement unavailable (no Avahi daemon): clients can still connect by "
    "address";

// Holds the poll lock for a call into Avahi from a thread other than Avahi's own.
class PollLock {
 public:
  explicit PollLock(AvahiThreadedPoll* poll) : poll_(poll) { avahi_threaded_poll_lock(poll_); }
  ~PollLock() { avahi_threaded_poll_unlock(poll_); }
  PollLock(const PollLock&) = delete;
  PollLock& operator=(const PollLock&) = delete;

 private:
  AvahiThreadedPoll* poll_;
};

bool meansNoDaemon(int error) {
  return error == AVAHI_ERR_NO_DAEMON || error == AVAHI_ERR_DISCONNECTED ||
         error == AVAHI_ERR_DBUS_ERROR;
}

}  // namespace

// Avahi calls these from C, on its own thread with the poll lock held (or from within a call we
// made holding that lock). No exception may cross back into C: the only ones possible here are
// allocation failures while formatting a console line, and losing that line is the lesser harm.
struct AvahiAdvertiser::Callbacks {
  static void clientState(AvahiClient* client, AvahiClientState state, void* self) noexcept {
    try {
      auto& advertiser = *static_cast<AvahiAdvertiser*>(self);
      // Avahi calls this from inside avahi_client_new(), before that returns the handle.
      advertiser.client_ = client;
      switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
          advertiser.onRunning(client);
          break;
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_S_REGISTERING:
          // The daemon is (re)claiming its host name; our records follow once it runs again.
          if (advertiser.group_ != nullptr) {
            avahi_entry_group_reset(advertiser.group_);
          }
          break;
        case AVAHI_CLIENT_CONNECTING:
          advertiser.reportOutage(AVAHI_ERR_NO_DAEMON);
          break;
        case AVAHI_CLIENT_FAILURE:
          advertiser.onDisconnected(client, avahi_client_errno(client));
          break;
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): see above
    }
  }

  static void groupState(AvahiEntryGroup* group, AvahiEntryGroupState state, void* self) noexcept {
    try {
      auto& advertiser = *static_cast<AvahiAdvertiser*>(self);
      switch (state) {
        case AVAHI_ENTRY_GROUP_COLLISION:
          // Another host on the network already answers to this name.
          advertiser.renameAfterCollision();
          avahi_entry_group_reset(group);
          advertiser.registerService(avahi_entry_group_get_client(group));
          break;
        case AVAHI_ENTRY_GROUP_FAILURE:
          advertiser.reportFailure(avahi_client_errno(avahi_entry_group_get_client(group)));
          break;
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
          advertiser.onEstablished();
          break;
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
          break;
      }
    } catch (...) {  // NOLINT(bugprone-empty-catch): see above
    }
  }

  static void retry(AvahiTimeout* /*timeout*/, void* self) noexcept {
    try {
      static_cast<AvahiAdvertiser*>(self)->connect();
    } catch (...) {  // NOLINT(bugprone-empty-catch): see above
    }
  }
};

AvahiAdvertiser::AvahiAdvertiser(Console& console) : console_(console) {}

AvahiAdvertiser::~AvahiAdvertiser() {
  if (poll_ == nullptr) {
    return;
  }
  // Once the thread has stopped, nothing else touches the handles.
  avahi_threaded_poll_stop(poll_);
  if (client_ != nullptr) {
    avahi_client_free(client_);  // frees the entry group too; the daemon withdraws the service
  }
  if (retry_ != nullptr) {
    avahi_threaded_poll_get(poll_)->timeout_free(retry_);
  }
  avahi_threaded_poll_free(poll_);
}

void AvahiAdvertiser::advertise(const std::string& name, const std::string& type,
                                std::uint16_t port, StateHandler onChange) {
  if (started_) {
    return;
  }
  started_ = true;
  onChange_ = std::move(onChange);
  try {
    poll_ = avahi_threaded_poll_new();
    if (poll_ == nullptr) {
      reportFailure(AVAHI_ERR_NO_MEMORY);
      return;
    }
    name_ = name;
    type_ = type;
    port_ = port;
    if (avahi_threaded_poll_start(poll_) < 0) {
      avahi_threaded_poll_free(poll_);
      poll_ = nullptr;
      reportFailure(AVAHI_ERR_FAILURE);
      return;
    }
    const PollLock lock(poll_);
    connect();
  } catch (const std::exception& e) {
    console_.warning(EventKind::service,
                     fmt::format("⚠️  Bonjour advertisement failed: {}", e.what()));
  }
}

void AvahiAdvertiser::connect() {
  int error = AVAHI_OK;
  AvahiClient* client = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                                         &Callbacks::clientState, this, &error);
  client_ = client;
  if (client == nullptr) {
    // NO_FAIL covers a missing daemon, not a missing system bus: poll for the bus ourselves.
    group_ = nullptr;
    reportOutage(error);
    scheduleRetry();
  }
}

void AvahiAdvertiser::onRunning(AvahiClient* client) {
  outageReported_ = false;
  registerService(client);
}

void AvahiAdvertiser::onEstablished() {
  advertised(true);
}

void AvahiAdvertiser::advertised(bool now) {
  if (now != advertised_) {
    advertised_ = now;
    if (onChange_) {
      onChange_(now);
    }
  }
}

void AvahiAdvertiser::onDisconnected(AvahiClient* client, int error) {
  // The client is finished either way: its bus connection is already closed. Freeing it here,
  // inside its own callback, is allowed; Avahi touches nothing of it afterwards.
  avahi_client_free(client);
  client_ = nullptr;
  group_ = nullptr;
  if (error == AVAHI_ERR_DISCONNECTED) {
    // The daemon or the bus went away: a new client waits for the daemon to come back.
    connect();
    return;
  }
  reportOutage(error);
  scheduleRetry();
}

void AvahiAdvertiser::registerService(AvahiClient* client) {
  if (group_ == nullptr) {
    group_ = avahi_entry_group_new(client, &Callbacks::groupState, this);
    if (group_ == nullptr) {
      reportFailure(avahi_client_errno(client));
      return;
    }
  }
  if (avahi_entry_group_is_empty(group_) == 0) {
    return;  // already registered on this connection
  }
  for (int renames = 0; renames <= kMaxRenames; ++renames) {
    // No TXT data: clients need only the name, host and port.
    int error = avahi_entry_group_add_service_strlst(
        group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0),
        name_.c_str(), type_.c_str(), nullptr, nullptr, port_, nullptr);
    if (error == AVAHI_ERR_COLLISION) {
      // Another program on this host has the name with other records.
      renameAfterCollision();
      continue;
    }
    if (error == AVAHI_OK) {
      error = avahi_entry_group_commit(group_);
    }
    if (error < 0) {
      reportFailure(error);
      avahi_entry_group_reset(group_);
    }
    return;
  }
  reportFailure(AVAHI_ERR_COLLISION);
}

void AvahiAdvertiser::renameAfterCollision() {
  char* alternative = avahi_alternative_service_name(name_.c_str());
  if (alternative == nullptr) {
    return;  // out of memory: try the same name again
  }
  std::string next(alternative);
  avahi_free(alternative);
  console_.warning(
      EventKind::service,
      fmt::format("⚠️  The name \"{}\" is taken on this network; advertising as \"{}\"", name_,
                  next));
  name_ = std::move(next);
}

void AvahiAdvertiser::scheduleRetry() {
  timeval when{};
  avahi_elapse_time(&when, kRetryMilliseconds, 0);
  const AvahiPoll* api = avahi_threaded_poll_get(poll_);
  if (retry_ == nullptr) {
    retry_ = api->timeout_new(api, &when, &Callbacks::retry, this);
  } else {
    api->timeout_update(retry_, &when);
  }
}

void AvahiAdvertiser::reportOutage(int error) {
  if (outageReported_) {
    return;
  }
  outageReported_ = true;
  advertised(false);
  if (meansNoDaemon(error)) {
    console_.warning(EventKind::service, kUnavailable);
  } else {
    console_.warning(
        EventKind::service,
        fmt::format(
            "⚠️  Bonjour advertisement unavailable ({}): clients can still connect by address",
            avahi_strerror(error)));
  }
}

void AvahiAdvertiser::reportFailure(int error) {
  advertised(false);
  console_.warning(
      EventKind::service,
      fmt::format("⚠️  Bonjour advertisement failed ({}): clients can still connect by address",
                  avahi_strerror(error)));
}

}  // namespace parlavox::platform
