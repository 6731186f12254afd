# tq_add_library(name SOURCES ... DEPS ...)
# Builds <name>_obj (an object library that tests link statically, internals included) and
# <name> (the shared library made of those objects). HIDDEN exports only what carries the
# library's export macro.
function(tq_add_library name)
  cmake_parse_arguments(ARG "HIDDEN" "EXPORT_DEFINE" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name}_obj OBJECT ${ARG_SOURCES})
  target_include_directories(${name}_obj PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name}_obj PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  if(ARG_HIDDEN)
    set_target_properties(${name}_obj PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  endif()
  if(ARG_EXPORT_DEFINE)
    target_compile_definitions(${name}_obj PRIVATE ${ARG_EXPORT_DEFINE})
  endif()
  tq_set_warnings(${name}_obj)

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_obj>)
  add_library(tqnetwork::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
