# The API reference (Doxygen, Debian package doxygen): cmake --build build --target docs writes
# build/docs/html/index.html. It covers the headers that declare what the libraries export, and
# warns on every exported name without a comment. The Windows SDK subset in platform/ keeps the
# SDK's names and meanings and is not repeated here.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
  return()
endif()

file(GLOB TQ_DOCS_CANDIDATES ${PROJECT_SOURCE_DIR}/net/*/*.h ${PROJECT_SOURCE_DIR}/tqutil/*.h)
set(TQ_DOCS_HEADERS ${PROJECT_SOURCE_DIR}/README.md)
foreach(header ${TQ_DOCS_CANDIDATES})
  file(STRINGS ${header} exports REGEX "TQNET_EXPORT|TQUTIL_API")
  if(exports)
    list(APPEND TQ_DOCS_HEADERS ${header})
  endif()
endforeach()

set(DOXYGEN_PROJECT_NAME tqnetwork)
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_PROJECT_BRIEF "HTTP networking for desktop host applications")
set(DOXYGEN_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/docs)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/README.md)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_FULL_PATH_NAMES YES)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_EXTRACT_PRIVATE NO)
set(DOXYGEN_EXTRACT_STATIC NO)
set(DOXYGEN_HIDE_UNDOC_CLASSES NO)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_IF_DOC_ERROR YES)
set(DOXYGEN_WARN_NO_PARAMDOC NO)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_SORT_MEMBER_DOCS NO)
# One comment over a member group (copy and move, a family of queries) documents each member.
set(DOXYGEN_DISTRIBUTE_GROUP_DOC YES)
set(DOXYGEN_ENABLE_PREPROCESSING YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED TQNET_EXPORT= TQNET_EXPORT_CONSTANT= TQUTIL_API= TQUTIL_EXPORT_CONSTANT=)
# Internals that a header must show but a host never calls.
set(DOXYGEN_EXCLUDE_SYMBOLS detail *::detail *::Impl Impl)
doxygen_add_docs(docs ${TQ_DOCS_HEADERS}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference: ${CMAKE_BINARY_DIR}/docs/html/index.html")
