#pragma once

#include <string>
#include <string_view>

namespace parlavox::platform {

// A file the web side serves as it is: the crew station's page and scripts, compiled in.
struct WebFile {
  std::string_view contentType;
  std::string_view bytes;
};

// What the web side answers a GET with: a file as it is, or a document made for the request.
struct WebDocument {
  std::string contentType;
  std::string body;
};

}  // namespace parlavox::platform
