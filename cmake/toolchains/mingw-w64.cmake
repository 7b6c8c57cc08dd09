# Cross-builds for 64-bit Windows with Debian's mingw-w64, run-time libraries with POSIX threads.
#
# The libraries come from the directory that scripts/windows-deps builds. Another such directory
# can be named in the cache variable or the environment variable ZEL_WINDOWS_DEPS.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 10.0)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

get_filename_component(_zelScripts "${CMAKE_CURRENT_LIST_DIR}/../../scripts" ABSOLUTE)

if(NOT ZEL_WINDOWS_DEPS AND DEFINED ENV{ZEL_WINDOWS_DEPS})
  set(ZEL_WINDOWS_DEPS "$ENV{ZEL_WINDOWS_DEPS}" CACHE PATH "Libraries of the Windows build")
endif()
if(NOT ZEL_WINDOWS_DEPS)
  execute_process(COMMAND "${_zelScripts}/windows-deps" RESULT_VARIABLE _zelResult
    OUTPUT_VARIABLE _zelDeps OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT _zelResult EQUAL 0)
    message(FATAL_ERROR "scripts/windows-deps failed (${_zelResult})")
  endif()
  set(ZEL_WINDOWS_DEPS "${_zelDeps}" CACHE PATH "Libraries of the Windows build")
endif()
if(NOT EXISTS "${ZEL_WINDOWS_DEPS}/versions")
  message(FATAL_ERROR "ZEL_WINDOWS_DEPS names '${ZEL_WINDOWS_DEPS}', which is not a directory that "
    "scripts/windows-deps made")
endif()
# Compile checks configure projects of their own, which must see the same directory.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEL_WINDOWS_DEPS)

# Only what is made for Windows may be found; programs (generators, Python) are the machine's.
set(CMAKE_FIND_ROOT_PATH "${ZEL_WINDOWS_DEPS}" /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${ZEL_WINDOWS_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Header-only libraries: found by find_package, and seen by sources that just include them.
set(CMAKE_INCLUDE_PATH "${ZEL_WINDOWS_DEPS}/headers")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${ZEL_WINDOWS_DEPS}/headers")
set(ZEL_HEADER_ONLY_INCLUDE "${ZEL_WINDOWS_DEPS}/headers")

# Windows 10 or later; the wide calls; no more of the system's headers than is asked for.
set(_zelDefinitions
  "-DUNICODE -D_UNICODE -D_WIN32_WINNT=0x0A00 -DWIN32_LEAN_AND_MEAN -DNOMINMAX")
set(CMAKE_C_FLAGS_INIT "${_zelDefinitions}")
# Beast's templates exceed the number of sections that a plain COFF object can hold.
set(CMAKE_CXX_FLAGS_INIT "${_zelDefinitions} -Wa,-mbig-obj")

# The usual set, and the sockets that Asio asks other compilers for with a pragma.
set(CMAKE_CXX_STANDARD_LIBRARIES "-lws2_32 -lmswsock -lkernel32 -luser32 -lgdi32 -lwinspool \
-lshell32 -lole32 -loleaut32 -luuid -lcomdlg32 -ladvapi32" CACHE STRING "Libraries linked always")

set(CMAKE_CROSSCOMPILING_EMULATOR "${_zelScripts}/wine-run")
