#pragma once

#include <string>

#include "announce/Announcements.h"
#include "config/Show.h"
#include "monitor/EventLog.h"
#include "platform/Clock.h"
#include "platform/Transport.h"
#include "relay/IntercomServer.h"

namespace parlavox {

// The operator's view of the running server, read from the parts that hold it: the relay's
// registry and counts, the announcements and the event log. Loop thread only; it changes nothing.
class Monitor {
 public:
  // Everything given outlives the monitor.
  Monitor(const Show& show, const IntercomServer& relay, const Announcements& announcements,
          const EventLog& log, platform::Clock& clock);

  // The monitor page's snapshot, as JSON: the show's channels, the crew with their link health
  // (their channels as masks over those), the announcements, the log and the uptime.
  std::string snapshot() const;
  // The Prometheus text exposition (format 0.0.4). Crew members appear by id only: their names
  // are the monitor page's business, not a metrics database's.
  std::string metrics() const;

 private:
  const Show& show_;
  const IntercomServer& relay_;
  const Announcements& announcements_;
  const EventLog& log_;
  platform::Clock& clock_;
  const platform::MonoTime started_;
};

}  // namespace parlavox
