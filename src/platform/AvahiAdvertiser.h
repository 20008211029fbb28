#pragma once

#include <cstdint>
#include <string>

#include "platform/Advertiser.h"
#include "platform/Console.h"

// Avahi's handles, declared here so that users of this header need no Avahi headers.
struct AvahiThreadedPoll;
struct AvahiClient;
struct AvahiEntryGroup;
struct AvahiTimeout;

namespace parlavox::platform {

// DNS-SD advertisement through the Avahi daemon (avahi-client over D-Bus). Everything Avahi does
// runs on Avahi's own thread; the server keeps serving whatever happens here. A daemon (or system
// bus) that is missing at start-up or goes away later is waited for with one warning, and the
// service is registered again as soon as it is back; whoever asked hears of each change.
class AvahiAdvertiser final : public Advertiser {
 public:
  // Any thread. Prints nothing and starts nothing until advertise().
  explicit AvahiAdvertiser(Console& console);
  // The owner's thread, never Avahi's. Stops Avahi's thread, then withdraws the service.
  ~AvahiAdvertiser() override;

  AvahiAdvertiser(const AvahiAdvertiser&) = delete;
  AvahiAdvertiser& operator=(const AvahiAdvertiser&) = delete;

  // Main thread or loop thread, once; later calls are ignored. Advertises `name` (the instance
  // name) under `type` in the default domain on every interface and protocol, without TXT data.
  // Never throws; problems are reported on the console.
  void advertise(const std::string& name, const std::string& type, std::uint16_t port,
                 StateHandler onChange) override;

 private:
  struct Callbacks;  // the C callbacks that Avahi calls, with access to the members below
  friend struct Callbacks;

  // The members below are touched by Avahi's thread, or by another thread holding the poll lock.
  void connect();
  void onRunning(AvahiClient* client);
  void onEstablished();
  void onDisconnected(AvahiClient* client, int error);
  void registerService(AvahiClient* client);
  void renameAfterCollision();
  void scheduleRetry();
  void reportOutage(int error);
  void reportFailure(int error);
  void advertised(bool now);

  Console& console_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;  // belongs to client_, freed with it
  AvahiTimeout* retry_ = nullptr;     // re-creates the client while the system bus is missing
  bool started_ = false;
  bool outageReported_ = false;  // one warning per outage, not one per retry
  bool advertised_ = false;      // as last told to onChange_
  StateHandler onChange_;
  std::string name_;  // the name currently wanted; changes after a collision
  std::string type_;
  std::uint16_t port_ = 0;
};

}  // namespace parlavox::platform
