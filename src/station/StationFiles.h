#pragma once

#include <optional>
#include <string_view>

#include "platform/WebFile.h"

namespace parlavox::station {

// Any thread. The crew station's file at the URL path `path` ("/" is the station's page,
// "/monitor" the operator's), or nothing. The files are this directory's, compiled in as they are:
// no build step.
std::optional<platform::WebFile> stationFile(std::string_view path);

}  // namespace parlavox::station
