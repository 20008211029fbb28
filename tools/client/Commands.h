#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/Arguments.h"
#include "client/IntercomClient.h"
#include "platform/Clock.h"
#include "platform/Console.h"

namespace parlavox::client {

// What every command works with. `where` names the server in console lines; `stop` is set when
// the user asks to stop (Ctrl-C).
struct CommandContext {
  IntercomClient& client;
  std::string where;
  platform::Console& console;
  platform::Clock& clock;
  const std::atomic<bool>& stop;
};

// The main thread. Each returns the process's exit status: 0 done, 1 failed (after a "❌" line).

// Prints the show's channels and roles.
int runInfo(CommandContext& context);
// Joins as args.role and records what the role hears into args.out until args.seconds have
// passed or `stop` is set; the WAV file is complete either way and "bye" is sent.
int runListen(CommandContext& context, const Arguments& args);
// Joins as args.role and plays `samples` (16 kHz mono) into the intercom in real time, on the
// channels of args.mask or every channel the role may talk on.
int runTalk(CommandContext& context, const Arguments& args,
            const std::vector<std::int16_t>& samples);

// Joins as args.role, or the first role that may talk on all of args.mask's channels, calls the
// crew on them once and leaves.
int runCall(CommandContext& context, const Arguments& args);

// Any thread. The audio file at `path` as 16 kHz mono samples, or nothing after printing why.
std::optional<std::vector<std::int16_t>> loadTalkAudio(const std::string& path,
                                                       platform::Console& console);

}  // namespace parlavox::client
