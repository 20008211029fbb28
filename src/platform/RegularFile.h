#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace parlavox::platform {

// Whole-file access for files that an operator owns and the program must never hang on, follow
// a link to nowhere with, or overwrite.

// Any thread. The bytes of the regular file at `path` (links followed); no value when nothing at
// all is at `path`. A failure says why, and is also what anything that is not a regular file (a
// FIFO, a device, a directory), a link to nothing, or a file larger than `maxSize` bytes gives:
// none of these is ever opened for a read that could block.
Result<std::optional<std::string>> readRegularFile(const std::string& path, std::size_t maxSize);

// Any thread. Creates the file `path` holding `bytes` (`mode` less the umask) only where nothing
// is at `path`, not even a dangling link; a file it could not write whole is removed again.
Result<void> createRegularFile(const std::string& path, std::string_view bytes,
                               unsigned mode = 0644);

}  // namespace parlavox::platform
