# Warnings are errors-in-waiting: the build stays clean under these.
function(tq_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
endfunction()
