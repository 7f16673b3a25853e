# What ./dev package makes: a Debian package and an archive for Linux, an archive for Windows.
# The file also is what CPack reads for each kind of package.
if(CPACK_GENERATOR)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_COMPONENTS_ALL programs documents system debian)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY OFF)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  elseif(CPACK_GENERATOR STREQUAL "TGZ")
    set(CPACK_COMPONENTS_ALL static_programs documents system licence)
  else()
    set(CPACK_COMPONENTS_ALL programs documents licence)
  endif()
  return()
endif()

set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_FILE})
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
if(WIN32)
  set(CPACK_SYSTEM_NAME windows-x86_64)
else()
  set(CPACK_SYSTEM_NAME linux-${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_PACKAGE_NAME ${ORBIX_PACKAGE_NAME})
set(CPACK_PACKAGE_VENDOR "orbix_flash developers")
set(CPACK_PACKAGE_CONTACT "orbix_flash developers <orbix_flash@example.org>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The components of a kind go into one package.
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "flash firmware into GNSS receiver modules over a serial port")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A console tool for operators, production lines and graphical front ends. It
writes firmware into GNSS receiver modules through their boot loaders, and
reads flash back from those that allow it. It knows 103 models of twelve
families.
.
orbix_station flashes many modules side by side, for production.
.
orbix_sim plays each of these modules on a pseudo-terminal, so that everything
can be tried without hardware.")

# The package's version and its changelog are one.
file(STRINGS packaging/debian/changelog changelog LIMIT_COUNT 1)
set(title "${ORBIX_PACKAGE_NAME} (${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
string(FIND "${changelog}" "${title} " place)
if(NOT place EQUAL 0)
  message(FATAL_ERROR "packaging/debian/changelog begins with \"${changelog}\", not \"${title}\"")
endif()
include(CPack)
