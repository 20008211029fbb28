// Fuzz target: roles files as an operator may have edited them.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "config/RolesFile.h"

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size) {
  using parlavox::fuzz::require;

  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const parlavox::DecodedConfig decoded = parlavox::decodeConfig(bytes);
  if (!decoded.config) {
    require(!decoded.error.empty(), "a rejected file says why");
    return 0;
  }
  // Whatever was accepted, written out again, reads back as the same show.
  const std::string written = parlavox::encodeConfig(*decoded.config);
  const parlavox::DecodedConfig again = parlavox::decodeConfig(written);
  require(again.config.has_value(), "a written file decodes");
  require(again.config == decoded.config, "round trip");
  return 0;
}
