#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/Config.h"
#include "platform/Console.h"

namespace parlavox {

struct DecodedConfig {
  std::optional<Config> config;  // set on success; a rejected file yields no partial result
  std::string error;             // on failure: what failed, naming the key or the position
  // On failure: the file sets a crew PIN or networks, so that an open show must not stand in.
  bool guardsTheCrew = false;
};

// Reads roles-file bytes by the file's rules: `channels` and `roles` required, `show`,
// `oscPort`, `peersPerHost`, `audioPerTalker`, `crewPin` and `crewNetworks` optional (null counts
// as missing), unknown keys ignored, anything else rejected. Any thread; pure.
DecodedConfig decodeConfig(std::string_view bytes);

// The roles-file text of `config`: pretty-printed with " : ", two-space indents, keys in field
// order, "/" unescaped, no newline after the closing brace. Empty when a string in `config` is
// not valid UTF-8. Any thread.
std::string encodeConfig(const Config& config);

// Main thread, once, before the server exists. Reads the roles file at `path` (relative to the
// working directory). Where nothing at all is at `path`, the built-in show is written there;
// whatever else is there and cannot be read or decoded (a directory, a FIFO, a device, a link to
// nothing, a file without permission or of bad content) is left alone. Either way the built-in
// show is returned with one notice that says what happened. An `oscPort` of 0 becomes 47000, with
// a warning. With a `spareDirectory` (a service's own, where /etc is read-only to it), nothing at
// `path` means the roles.json there is used instead, by the same rules. The exception: a file
// that sets a crew PIN or crew networks and cannot be decoded would leave the crew open if the
// built-in show stood in, so it yields nothing, with one error that says why; the server must not
// start.
std::optional<Config> loadConfig(const std::string& path, platform::Console& console,
                                 const std::string& spareDirectory = {});

}  // namespace parlavox
