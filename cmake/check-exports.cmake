# cmake -DLIBRARY=<file.so> -DEXPECTED="name;name;..." -P check-exports.cmake
# The functions a shared library exports (nm -D --defined-only, code symbols) are exactly the
# expected ones: nothing internal leaks out and nothing the headers promise is missing.
execute_process(COMMAND nm -D --defined-only ${LIBRARY} OUTPUT_VARIABLE listing
                RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "nm could not read ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(exported)
foreach(line ${lines})
  if(line MATCHES "^[0-9a-f]+ T (.+)$")
    list(APPEND exported ${CMAKE_MATCH_1})
  endif()
endforeach()
list(SORT exported)
set(expected ${EXPECTED})
list(SORT expected)
if(NOT exported STREQUAL expected)
  set(extra ${exported})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${exported})
  message(FATAL_ERROR "${LIBRARY} exports what it should not: [${extra}]; "
                      "lacks: [${missing}]")
endif()
