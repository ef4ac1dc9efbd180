# Cross build for 64-bit Windows with Debian's MinGW-w64 (posix threads flavour):
#   cmake --preset windows     (or -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake)
# Programs are linked statically (libstdc++, libgcc, winpthread), so they run without MinGW's DLLs
# next to them. Tests run through Wine when it is installed.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(_zelvanor_mingw x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_zelvanor_mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_zelvanor_mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${_zelvanor_mingw}-windres)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

# Libraries and headers for the target only; programs (the emulator, code generators) from the host.
# ZELVANOR_WINDOWS_DEPS: the prefix scripts/windows-deps prints (googletest, simdjson, curl built
# for the target). The environment's wins (new versions make a new prefix); without it, the
# cache's, so that a rebuild started by the build tool finds the same one.
if(DEFINED ENV{ZELVANOR_WINDOWS_DEPS} AND
   NOT "$ENV{ZELVANOR_WINDOWS_DEPS}" STREQUAL "${ZELVANOR_WINDOWS_DEPS}")
  # Packages found in the previous prefix are looked for again in the new one.
  foreach(found IN ITEMS simdjson_DIR CURL_DIR GTest_DIR)
    unset(${found} CACHE)
  endforeach()
  set(ZELVANOR_WINDOWS_DEPS "$ENV{ZELVANOR_WINDOWS_DEPS}" CACHE PATH "Dependencies built for Windows" FORCE)
endif()
set(CMAKE_FIND_ROOT_PATH /usr/${_zelvanor_mingw} ${ZELVANOR_WINDOWS_DEPS})
if(ZELVANOR_WINDOWS_DEPS)
  list(APPEND CMAKE_PREFIX_PATH ${ZELVANOR_WINDOWS_DEPS})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(ZELVANOR_WINE wine)
if(ZELVANOR_WINE AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZELVANOR_WINE})
endif()
