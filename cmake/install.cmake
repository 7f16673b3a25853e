# What is installed, and where to: cmake --install build [--prefix FOLDER].
#
# Four components are for everybody: programs, documents, system (completion, udev rule) and licence.
# Two are for packages alone, and are installed only when asked for: static_programs, which run on any
# Linux, and debian, the papers that a Debian package holds in place of the licence.
set(ORBIX_PACKAGE_NAME orbix-flash)
if(WIN32)
  # A folder to be unpacked anywhere: the program lies on top.
  set(CMAKE_INSTALL_BINDIR . CACHE PATH "Where programs are installed")
  set(CMAKE_INSTALL_DOCDIR . CACHE PATH "Where documents are installed")
else()
  set(CMAKE_INSTALL_DOCDIR share/doc/${ORBIX_PACKAGE_NAME} CACHE PATH
    "Where documents are installed")
endif()
include(GNUInstallDirs)

# What a program that is linked statically takes in place of the shared library.
set(ORBIX_ZLIB ZLIB::ZLIB)
if(NOT WIN32)
  find_library(ORBIX_STATIC_ZLIB libz.a)
  set(ORBIX_ZLIB
    $<IF:$<BOOL:$<TARGET_PROPERTY:LINKED_STATICALLY>>,${ORBIX_STATIC_ZLIB},ZLIB::ZLIB>)
endif()

# What the packages hold besides the ordinary build.
add_custom_target(orbix_package_files)

# Installs a program, and keeps a second one linked statically from the same objects for the archive.
function(orbix_install_program program)
  install(TARGETS ${program} RUNTIME COMPONENT programs)
  if(NOT WIN32)
    add_executable(${program}_static EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${program}>)
    target_link_libraries(${program}_static PRIVATE
      $<TARGET_PROPERTY:${program},LINK_LIBRARIES> -static-pie)
    set_target_properties(${program}_static PROPERTIES
      OUTPUT_NAME ${program} RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/static
      LINKED_STATICALLY ON)
    add_dependencies(orbix_package_files ${program}_static)
    install(TARGETS ${program}_static RUNTIME COMPONENT static_programs EXCLUDE_FROM_ALL)
  endif()
endfunction()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
if(WIN32)
  install(FILES LICENSE DESTINATION . RENAME LICENSE.txt COMPONENT licence)
  return()
endif()
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT licence)

# Manual pages, where there is the tool that makes them.
find_program(ORBIX_SCDOC scdoc)
if(ORBIX_SCDOC)
  file(GLOB sources CONFIGURE_DEPENDS man/*.1.scd)
  foreach(source IN LISTS sources)
    get_filename_component(page ${source} NAME_WLE)
    set(page ${CMAKE_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${page}.gz DEPENDS ${source} VERBATIM
      COMMAND sh -c "\"$1\" <\"$2\" | gzip -9n >\"$3\"" - ${ORBIX_SCDOC} ${source} ${page}.gz)
    list(APPEND pages ${page}.gz)
  endforeach()
  add_custom_target(orbix_manual ALL DEPENDS ${pages})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT documents)
endif()

# Bash looks a completion up by the program's name, udev finds every rule of its folder.
file(GLOB completions CONFIGURE_DEPENDS completion/*)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  COMPONENT system)
install(FILES packaging/60-orbix-flash.rules DESTINATION lib/udev/rules.d COMPONENT system)

set(debian_changelog ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/debian)
add_custom_command(OUTPUT ${debian_changelog} DEPENDS packaging/debian/changelog VERBATIM
  COMMAND sh -c "gzip -9n <\"$1\" >\"$2\"" -
    ${PROJECT_SOURCE_DIR}/packaging/debian/changelog ${debian_changelog})
add_custom_target(orbix_debian_changelog DEPENDS ${debian_changelog})
add_dependencies(orbix_package_files orbix_debian_changelog)
install(FILES packaging/debian/copyright ${debian_changelog}
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES packaging/debian/lintian-overrides RENAME ${ORBIX_PACKAGE_NAME}
  DESTINATION share/lintian/overrides COMPONENT debian EXCLUDE_FROM_ALL)
