#pragma once

#include <string_view>

namespace parlavox::platform {

// A file the web side serves as it is: the crew station's page and scripts, compiled in.
struct WebFile {
  std::string_view contentType;
  std::string_view bytes;
};

}  // namespace parlavox::platform
