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
};

// Reads roles-file bytes by the file's rules: `channels` and `roles` required, `show` and
// `oscPort` optional (null counts as missing), unknown keys ignored, anything else rejected.
// Any thread; pure.
DecodedConfig decodeConfig(std::string_view bytes);

// The roles-file text of `config`: pretty-printed with " : ", two-space indents, keys in field
// order, "/" unescaped, no newline after the closing brace. Empty when a string in `config` is
// not valid UTF-8. Any thread.
std::string encodeConfig(const Config& config);

// Main thread, once, before the server exists. Reads the roles file at `path` (relative to the
// working directory). A file that is missing or unreadable gets the built-in show written to it
// (only where no file exists); a file that does not decode is left alone. Either way the built-in
// show is returned and one notice is printed.
Config loadConfig(const std::string& path, platform::Console& console);

}  // namespace parlavox
