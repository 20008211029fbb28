# Writes OUTPUT, a C++ source holding the files FILES (paths below ROOT) as string literals, and
# webFiles() to list them. Run at build time, so an edited page is rebuilt.
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_svg "image/svg+xml")
set(types_png "image/png")

set(literals "")
set(entries "")
set(index 0)
foreach(name IN LISTS FILES)
  get_filename_component(extension "${name}" LAST_EXT)
  string(SUBSTRING "${extension}" 1 -1 extension)
  if(NOT DEFINED types_${extension})
    message(FATAL_ERROR "No content type for ${name}")
  endif()
  file(READ "${ROOT}/${name}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  # Every byte as an escape: binary-safe, and no escape can run into the next character.
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" escaped "${hex}")
  string(APPEND literals "constexpr std::string_view file${index}{\"${escaped}\", ${size}};\n")
  string(APPEND entries "    {\"${name}\", \"${types_${extension}}\", file${index}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(WRITE "${OUTPUT}.new" "// Generated from src/web by embed.cmake: edit the files there, not this.
#include \"web/WebFiles.h\"

#include <array>

namespace parlavox::web {
namespace {

${literals}
constexpr std::array<WebFile, ${index}> files{{
${entries}}};

}  // namespace

std::span<const WebFile> webFiles() {
  return files;
}

}  // namespace parlavox::web
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
