# Cross-compiles for 64-bit Windows with mingw-w64 (GCC, POSIX threading
# variant: the win32 variant has no std::thread). Programs are linked
# statically, so an .exe imports only system DLLs.
#
# Libraries that Debian does not package for mingw (JsonCpp, ICU's common
# library, lcms2, the codec libraries, FFmpeg, GoogleTest) are cross-built by
# scripts/build-windows.sh into
# TESSERA_WINDOWS_DEPS (default: <build dir>/deps/prefix) and found there,
# through pkg-config and CMake's package search alike.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TESSERA_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TESSERA_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TESSERA_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${TESSERA_MINGW_TRIPLE}-windres)

if(NOT TESSERA_WINDOWS_DEPS)
  set(TESSERA_WINDOWS_DEPS "${CMAKE_BINARY_DIR}/deps/prefix")
endif()
set(TESSERA_WINDOWS_DEPS "${TESSERA_WINDOWS_DEPS}" CACHE PATH "Prefix of the cross-built dependencies")
# try_compile projects re-read this file; hand them the same prefix.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSERA_WINDOWS_DEPS)

set(CMAKE_FIND_ROOT_PATH /usr/${TESSERA_MINGW_TRIPLE} ${TESSERA_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers only from the cross-built prefix, never from the host,
# and with what static linking needs (the libraries a library links itself).
set(ENV{PKG_CONFIG_LIBDIR} "${TESSERA_WINDOWS_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
set(PKG_CONFIG_ARGN --static CACHE STRING "Arguments given to every pkg-config call")

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test executables run under Wine (see scripts/windows/wine-run.sh).
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/windows/wine-run.sh")
endif()
