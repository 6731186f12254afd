# Warnings are errors-in-waiting: the build stays clean under these. TQ_WARNINGS_AS_ERRORS makes
# them errors (scripts/test-windows.sh turns it on for the Windows build).
option(TQ_WARNINGS_AS_ERRORS "Treat the project's compiler warnings as errors" OFF)
function(tq_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  # GCC 12 at -O3 reports overlapping copies inside std::string's own code wherever a C string is
  # added in front of a string (its bug 105329): noise that would hide a real warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
     AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(TQ_WARNINGS_AS_ERRORS)
    set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ON)
  endif()
endfunction()
