# zrv_embed_resource(<target> <file> <symbol>)
# Compiles <file> into <target> as `extern const std::string_view <symbol>` (namespace zrv::resources),
# so that the library's default texts and data need no installed files.
function(zrv_embed_resource target file symbol)
  get_filename_component(input "${file}" ABSOLUTE)
  set(output "${CMAKE_CURRENT_BINARY_DIR}/embedded/${symbol}.cpp")
  file(READ "${input}" hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  file(CONFIGURE OUTPUT "${output}" CONTENT
"// Generated from ${file}; do not edit.
#include <string_view>
namespace zrv::resources {
static const char ${symbol}_bytes[] = {${bytes} '\\0'};
extern const std::string_view ${symbol};
const std::string_view ${symbol}(${symbol}_bytes, ${size});
}
" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${input}")
  target_sources(${target} PRIVATE "${output}")
endfunction()
