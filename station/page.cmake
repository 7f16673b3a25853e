# The page's files become a source of the program: ${page_files_source}.
foreach(kind html css js)
  set(file "${CMAKE_CURRENT_LIST_DIR}/page.${kind}")
  string(TOUPPER "PAGE_${kind}" variable)
  file(READ "${file}" ${variable})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
endforeach()
set(page_files_source "${CMAKE_BINARY_DIR}/generated/page_files.cpp")
configure_file("${CMAKE_CURRENT_LIST_DIR}/page_files.cpp.in" "${page_files_source}" @ONLY)
