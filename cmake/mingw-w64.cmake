# Cross build for 64-bit Windows with Debian's mingw-w64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# One self-contained program: no DLL beside it but the system's.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(ZLIB_USE_STATIC_LIBS ON)
# Debian's headers-only libraries do not depend on the system, but the other headers beside them do.
set(ORBIX_BORROWED_HEADERS ON)
