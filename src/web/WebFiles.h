#pragma once

#include <span>
#include <string_view>

namespace parlavox::web {

// A file of the pages, compiled in as it is: no build step.
struct WebFile {
  std::string_view path;  // below the pages' root, as served: "station/index.html"
  std::string_view contentType;
  std::string_view bytes;
};

// Any thread. Every file under src/web's shared/, station/, monitor/ and trust/, and the generated
// module
// of protocol facts, shared/constants.js.
std::span<const WebFile> webFiles();

}  // namespace parlavox::web
