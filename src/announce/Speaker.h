#pragma once

#include <functional>
#include <string>

#include "platform/Bytes.h"

namespace parlavox {

// Turns text into speech for the crew, as 640-byte frames of network audio handed over at the
// pace they play. One announcement at a time, in the order asked.
class Speaker {
 public:
  using FrameHandler = std::function<void(Bytes frame)>;
  using DoneHandler = std::function<void()>;
  virtual ~Speaker() = default;
  // Any thread. Queues one announcement and returns at once; `onFrame` is called with each frame
  // on the speaker's own thread, never on the caller's, and `onDone` (if set) there once when the
  // announcement is over, however it ended: spoken, failed or stopped.
  virtual void speak(std::string text, FrameHandler onFrame, DoneHandler onDone) = 0;
  // Any thread. Ends the announcement being spoken before its next frame (a speech command still
  // running is killed) and drops the ones queued; those asked for later are spoken as usual.
  virtual void stop() = 0;
};

}  // namespace parlavox
