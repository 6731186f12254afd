# Warnings are errors-in-waiting: the build stays clean under these. TQ_WARNINGS_AS_ERRORS makes
# them errors (scripts/test-windows.sh turns it on for the Windows build).
option(TQ_WARNINGS_AS_ERRORS "Treat the project's compiler warnings as errors" OFF)
function(tq_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(TQ_WARNINGS_AS_ERRORS)
    set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ON)
  endif()
endfunction()
