# cmake -DREADME=README.md -DEXAMPLE=tests/consumer/example.cc -P check-readme-example.cmake
# The README shows the example program whole; this fails when the two have drifted apart.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```cpp\n${example}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md does not show ${EXAMPLE} as it is: copy it into the README's "
                      "\"Using the library\" section")
endif()
