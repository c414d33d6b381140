# zrv_component(<name> SOURCES <file>... [PUBLIC_HEADERS <header>...] [DEPENDS <component>...]
#               [LIBRARIES <imported target>...])
#
# Makes one component of the library: an OBJECT library `zrv_<name>` built from the sources of the calling
# folder. The installed product is still the one ZRVKit library; it is made of the objects of every
# component (see zrv_link_components below).
#
# Why the include roots look the way they do: a component may include only its own headers and those of the
# components it DEPENDS on, and an include across any other edge must fail to compile. So no target sees the
# repository root or include/ as a whole. Each component gets two folders of its own in the build tree:
#   components/<name>/internal/<folder>    a link to the component's source folder ("update", "update/bzip2"),
#                                          so "update/InstallPath.h" resolves only where `update` is linked;
#   components/<name>/public/ZRVKit/<h>    a link to each public header the component owns (PUBLIC_HEADERS),
#                                          so <ZRVKit/ZRVPatcher.h> resolves only where `update` is linked.
# Both are PUBLIC include folders of `zrv_<name>`, so they travel along the DEPENDS edges and nowhere else.
# The spellings stay the ones the whole project uses ("foundation/X.h", "update/X.h", <ZRVKit/X.h>).
#
# LIBRARIES names the outside libraries whose headers the component uses; their objects are linked into
# ZRVKit itself.
function(zrv_component name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC_HEADERS;DEPENDS;LIBRARIES")
  set(target zrv_${name})
  add_library(${target} OBJECT ${arg_SOURCES})

  set(root ${PROJECT_BINARY_DIR}/components/${name})
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  get_filename_component(parent ${root}/internal/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${parent} ${root}/public/ZRVKit)
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/internal/${folder} SYMBOLIC)
  foreach(header ${arg_PUBLIC_HEADERS})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/include/ZRVKit/${header} ${root}/public/ZRVKit/${header} SYMBOLIC)
  endforeach()
  target_include_directories(${target} PUBLIC ${root}/internal ${root}/public)

  list(TRANSFORM arg_DEPENDS PREPEND zrv_ OUTPUT_VARIABLE dependencies)
  target_link_libraries(${target} PUBLIC ${dependencies} PRIVATE ${arg_LIBRARIES})
  # The library's objects: position independent for the shared build, hidden unless marked ZRVKIT_EXPORT.
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON
                                             CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  zrv_apply_compiler_settings(${target})
  set_property(GLOBAL APPEND PROPERTY ZRV_COMPONENTS ${target})
endfunction()

# zrv_component_probe(<name> <component> <source>): a target outside `all` that compiles <source> with exactly
# the include folders of <component>, so a test can show which includes that component reaches.
function(zrv_component_probe name component source)
  add_library(${name} OBJECT EXCLUDE_FROM_ALL ${source})
  target_link_libraries(${name} PRIVATE zrv_${component})
endfunction()

# Every component's objects go into ZRVKit. Object libraries pass on no objects through their own links, so
# ZRVKit takes each component's objects directly.
function(zrv_link_components library)
  get_property(components GLOBAL PROPERTY ZRV_COMPONENTS)
  foreach(component ${components})
    target_sources(${library} PRIVATE $<TARGET_OBJECTS:${component}>)
    add_dependencies(${library} ${component})
  endforeach()
endfunction()

# An include folder for the programs that need the library's internals (tests, benchmarks, fuzz targets): the
# internal folders of the given components, as their own code sees them.
function(zrv_use_component_internals target)
  foreach(component ${ARGN})
    target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:zrv_${component},INTERFACE_INCLUDE_DIRECTORIES>)
  endforeach()
endfunction()
