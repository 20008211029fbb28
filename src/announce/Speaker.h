#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Bytes.h"

namespace parlavox {

// Turns text into speech for the crew, as 640-byte frames of network audio handed over at the
// pace they play. One announcement at a time, in the order asked.
class Speaker {
 public:
  using FrameHandler = std::function<void(Bytes frame)>;
  using DoneHandler = std::function<void()>;
  using Clip = std::shared_ptr<const std::vector<std::int16_t>>;
  virtual ~Speaker() = default;
  // Any thread. Queues one announcement and returns at once; `onFrame` is called with each frame
  // on the speaker's own thread, never on the caller's, and `onDone` (if set) there once when the
  // announcement is over, however it ended: spoken, failed or stopped.
  virtual void speak(std::string text, FrameHandler onFrame, DoneHandler onDone) = 0;
  // Any thread. Ends the announcement being spoken before its next frame (a speech command still
  // running is killed) and drops the ones queued; those asked for later are spoken as usual.
  virtual void stop() = 0;
  // Any thread. Queues `clip`, samples in the network audio format, to be handed over in frames
  // like an announcement's, after what is queued before it and never in the middle of it; dropped
  // when it cannot start within `maxWait` of this call. stop() leaves it be.
  virtual void play(Clip clip, std::chrono::milliseconds maxWait, FrameHandler onFrame) = 0;
};

}  // namespace parlavox
