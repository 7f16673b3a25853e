# The two boot loaders that Teseo chips take into RAM are the chip vendor's code and not part of
# this source. Name the files to have them built in; without a file the tool carries a text of the
# same size that says what is missing.
set(ORBIX_STA9100_RAM_LOADER "" CACHE FILEPATH
  "RAM boot loader of STA9100 and STA8100 (10912 bytes)")
set(ORBIX_STA8089_RAM_LOADER "" CACHE FILEPATH
  "RAM boot loader of STA8089 (10596 bytes)")

# Sets ${prefix}_BYTES to the content of a file as a list of array elements, and
# ${prefix}_IS_PLACEHOLDER. A file that is absent or has another size ends the configuration.
function(orbix_load_ram_loader prefix option size)
  set(file "${${option}}")
  if(file STREQUAL "")
    set(placeholder TRUE)
    string(HEX "PLACEHOLDER: NO RAM BOOT LOADER " digits)
    string(REPEAT "${digits}" 400 digits)
    math(EXPR digit_count "2 * ${size}")
    string(SUBSTRING "${digits}" 0 ${digit_count} digits)
  else()
    set(placeholder FALSE)
    get_filename_component(file "${file}" ABSOLUTE BASE_DIR "${CMAKE_BINARY_DIR}")
    if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
      message(FATAL_ERROR "${option}: there is no file ${file}")
    endif()
    file(SIZE "${file}" found)
    if(NOT found EQUAL size)
      message(FATAL_ERROR "${option}: ${file} has ${found} bytes, the loader has exactly ${size}")
    endif()
    file(READ "${file}" digits HEX)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
  endif()
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${digits}")
  string(REGEX REPLACE "(................................................................................)" "\\1\n" bytes "${bytes}")
  set(${prefix}_BYTES "${bytes}" PARENT_SCOPE)
  string(TOLOWER "${placeholder}" placeholder)
  set(${prefix}_IS_PLACEHOLDER "${placeholder}" PARENT_SCOPE)
endfunction()

orbix_load_ram_loader(STA9100 ORBIX_STA9100_RAM_LOADER 10912)
orbix_load_ram_loader(STA8089 ORBIX_STA8089_RAM_LOADER 10596)
configure_file("${CMAKE_CURRENT_LIST_DIR}/ram_loaders.cpp.in"
  "${CMAKE_BINARY_DIR}/generated/ram_loaders.cpp" @ONLY)
