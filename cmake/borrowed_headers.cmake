# The station's libraries for the cross build: headers that serve every system are borrowed from the
# build machine, each by a link of its own, since the folder that they are in is not for Windows.
# httplib.h has to be there already, in its form of one header (./dev windows puts it there).
set(borrowed "${CMAKE_BINARY_DIR}/headers")
file(MAKE_DIRECTORY "${borrowed}")
foreach(folder boost CLI nlohmann)
  find_path(parent_of_${folder} NAMES "${folder}" PATHS /usr/include REQUIRED NO_DEFAULT_PATH
    NO_CMAKE_FIND_ROOT_PATH)
  file(CREATE_LINK "${parent_of_${folder}}/${folder}" "${borrowed}/${folder}" SYMBOLIC)
endforeach()
if(NOT EXISTS "${borrowed}/httplib.h")
  message(FATAL_ERROR "there is no ${borrowed}/httplib.h; ./dev windows makes it")
endif()

foreach(library Boost::headers CLI11::CLI11 nlohmann_json::nlohmann_json PkgConfig::HTTPLIB
    PkgConfig::GCRYPT)
  add_library(${library} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${library} INTERFACE "${borrowed}")
endforeach()
target_link_libraries(Boost::headers INTERFACE ws2_32 mswsock)
target_link_libraries(PkgConfig::HTTPLIB INTERFACE Boost::headers)
target_link_libraries(PkgConfig::GCRYPT INTERFACE gcrypt gpg-error ws2_32)
