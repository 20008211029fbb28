# Writes OUTPUT, a C++ source holding the files SOURCES (a list of paths) as string literals and
# stationFile() to find them by URL path. Run at build time, so an edited page is rebuilt.
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_svg "image/svg+xml")
set(types_png "image/png")

set(literals "")
set(entries "")
set(index 0)
foreach(source IN LISTS SOURCES)
  get_filename_component(name "${source}" NAME)
  get_filename_component(extension "${source}" LAST_EXT)
  string(SUBSTRING "${extension}" 1 -1 extension)
  if(NOT DEFINED types_${extension})
    message(FATAL_ERROR "No content type for ${name}")
  endif()
  file(READ "${source}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  # Every byte as an escape: binary-safe, and no escape can run into the next character.
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" escaped "${hex}")
  string(APPEND literals "constexpr std::string_view file${index}{\"${escaped}\", ${size}};\n")
  string(APPEND entries "    {\"/${name}\", {\"${types_${extension}}\", file${index}}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(WRITE "${OUTPUT}.new" "// Generated from src/station by embed.cmake: edit the files there, not this.
#include \"station/StationFiles.h\"

#include <array>
#include <utility>

namespace parlavox::station {
namespace {

${literals}
constexpr std::array<std::pair<std::string_view, platform::WebFile>, ${index}> files{{
${entries}}};

}  // namespace

std::optional<platform::WebFile> stationFile(std::string_view path) {
  if (path == \"/\") {
    path = \"/index.html\";
  } else if (path == \"/monitor\") {
    path = \"/monitor.html\";
  }
  for (const auto& [name, file] : files) {
    if (name == path) {
      return file;
    }
  }
  return std::nullopt;
}

}  // namespace parlavox::station
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
