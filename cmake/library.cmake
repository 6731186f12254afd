# tq_add_library(name SOURCES ... [DLL_SOURCES ...] PUBLIC_DEPS ... PRIVATE_DEPS ...
#                [HIDDEN] EXPORT_DEFINE <macro> STATIC_DEFINE <macro>)
# Builds <name>_obj (an object library that tests link statically, internals included) and
# <name> (the shared library). HIDDEN exports only what carries the library's export macro.
# Those of PUBLIC_DEPS that are libraries of this project are used as their objects by
# <name>_obj, and STATIC_DEFINE is set for every user of <name>_obj, so that everything linked
# from objects refers to everything else directly.
# On Windows, a library that uses another of this project's DLLs is compiled a second time for
# its DLL, with the other library's declarations as imports; elsewhere (and for a library with
# no such dependency) the shared library is made of the objects. DLL_SOURCES go into the shared
# library only (e.g. its DllMain).
# tq_set_install_rpath(target dir): where the installed target finds this project's libraries,
# relative to itself (e.g. "$ORIGIN"), so that a package installed anywhere runs without
# LD_LIBRARY_PATH. RUNPATH rather than RPATH, so that LD_LIBRARY_PATH can still override it.
function(tq_set_install_rpath target dir)
  if(NOT WIN32)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${dir}")
    target_link_options(${target} PRIVATE "LINKER:--enable-new-dtags")
  endif()
endfunction()

function(tq_add_library name)
  cmake_parse_arguments(ARG "HIDDEN" "EXPORT_DEFINE;STATIC_DEFINE"
                        "SOURCES;DLL_SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  set(obj_deps)
  set(uses_own_library FALSE)
  foreach(dep ${ARG_PUBLIC_DEPS})
    if(TARGET ${dep}_obj)
      list(APPEND obj_deps ${dep}_obj)
      set(uses_own_library TRUE)
    else()
      list(APPEND obj_deps ${dep})
    endif()
  endforeach()

  add_library(${name}_obj OBJECT ${ARG_SOURCES})
  target_include_directories(${name}_obj PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name}_obj PUBLIC ${obj_deps} PRIVATE ${ARG_PRIVATE_DEPS})
  if(ARG_STATIC_DEFINE)
    target_compile_definitions(${name}_obj INTERFACE ${ARG_STATIC_DEFINE})
  endif()
  set(separate_dll FALSE)
  if(WIN32 AND uses_own_library)
    set(separate_dll TRUE)
  endif()
  if(separate_dll)
    # These objects are for static linking only.
    target_compile_definitions(${name}_obj PRIVATE ${ARG_STATIC_DEFINE})
    add_library(${name} SHARED ${ARG_SOURCES} ${ARG_DLL_SOURCES})
    target_compile_definitions(${name} PRIVATE ${ARG_EXPORT_DEFINE})
    tq_set_warnings(${name})
  else()
    if(ARG_EXPORT_DEFINE)
      target_compile_definitions(${name}_obj PRIVATE ${ARG_EXPORT_DEFINE})
    endif()
    add_library(${name} SHARED $<TARGET_OBJECTS:${name}_obj> ${ARG_DLL_SOURCES})
    if(ARG_DLL_SOURCES)
      tq_set_warnings(${name})
    endif()
  endif()
  foreach(target ${name}_obj ${name})
    if(ARG_HIDDEN)
      set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden
                                                 VISIBILITY_INLINES_HIDDEN ON)
    endif()
  endforeach()
  tq_set_warnings(${name}_obj)

  add_library(tqnetwork::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tqnetwork>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  # The headers are C++20: a host that links the package gets the standard it needs.
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  tq_set_install_rpath(${name} "$ORIGIN")
  if(WIN32)
    # tqutil.dll, tqnetwork.dll: the names the host loads. The import library keeps MinGW's
    # usual name (lib<name>.dll.a), which -l<name> finds.
    set_target_properties(${name} PROPERTIES PREFIX "")
  endif()
endfunction()
