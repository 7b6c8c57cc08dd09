# Options that every target of the tree shares.

set(ZEL_PLATFORM posix)
if(WIN32)
  set(ZEL_PLATFORM windows)
endif()

add_library(zel_options INTERFACE)
target_compile_options(zel_options INTERFACE -Wall -Wextra -Wpedantic -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 sees overlapping copies in std::string's own assignment (GCC bug 105651).
  target_compile_options(zel_options INTERFACE -Wno-restrict)
endif()
if(ZEL_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Types of an unnamed namespace in classes of one source file: harmless, but no longer seen as such.
  target_compile_options(zel_options INTERFACE -Wno-subobject-linkage)
endif()
target_include_directories(zel_options INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/host)
target_link_libraries(zel_options INTERFACE Threads::Threads)
if(WIN32)
  # Symbols of the static helper libraries stay inside the DLL that links them.
  target_link_options(zel_options INTERFACE -Wl,--exclude-libs,ALL)
endif()

if(ZEL_SANITIZE)
  add_compile_options(-fsanitize=${ZEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
                      -g1)
  add_link_options(-fsanitize=${ZEL_SANITIZE})
endif()

# Third-party headers, seen as system headers so that their warnings stay theirs.
function(zel_use_boost target)
  target_include_directories(${target} SYSTEM PRIVATE ${ZEL_HEADER_ONLY_INCLUDE})
  target_compile_definitions(${target} PRIVATE BOOST_ASIO_NO_DEPRECATED BOOST_ALL_NO_LIB)
  if(WIN32)
    target_link_libraries(${target} PRIVATE ws2_32 mswsock)
    # Asio has threads of its own for its timers. Left alone it makes them with what the headers before its own have
    # declared, in one source with pthreads and in the next with Windows' threads, and takes one for the other.
    target_compile_definitions(${target} PRIVATE BOOST_ASIO_HAS_PTHREADS=1)
  endif()
endfunction()

# A test program, run as a whole, or in so many shards side by side. What became of its tests is then in
# test-results/ of the build, in JUnit's format.
function(zel_add_test name)
  cmake_parse_arguments(ARG "" "SHARDS" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zel_options ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)

  set(results ${CMAKE_BINARY_DIR}/test-results)
  file(MAKE_DIRECTORY ${results})
  if(NOT ARG_SHARDS)
    set(ARG_SHARDS 1)
  endif()
  math(EXPR last "${ARG_SHARDS} - 1")
  foreach(shard RANGE ${last})
    add_test(NAME ${name}-${shard} COMMAND ${name} --gtest_output=xml:${name}-${shard}.xml
             WORKING_DIRECTORY ${results})
    set_tests_properties(${name}-${shard} PROPERTIES TIMEOUT 600 LABELS ${name}
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${ARG_SHARDS};GTEST_SHARD_INDEX=${shard}")
  endforeach()
endfunction()

# Gives a program or library of the Windows build its version resource. The resource compiler is kept
# away from the target's own options, which it would not understand.
function(zel_add_version ZEL_TARGET ZEL_DESCRIPTION)
  if(NOT WIN32)
    return()
  endif()
  get_target_property(type ${ZEL_TARGET} TYPE)
  set(ZEL_FILE_TYPE 2)
  if(type STREQUAL "EXECUTABLE")
    set(ZEL_FILE_TYPE 1)
  endif()
  set(ZEL_VERSION_TEXT ${PROJECT_VERSION}.0)
  string(REPLACE "." "," ZEL_VERSION_WORDS ${ZEL_VERSION_TEXT})
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${ZEL_TARGET}_version)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${file}.rc.in @ONLY)
  file(GENERATE OUTPUT ${file}.rc INPUT ${file}.rc.in)
  add_library(${ZEL_TARGET}_version OBJECT ${file}.rc)
  target_sources(${ZEL_TARGET} PRIVATE $<TARGET_OBJECTS:${ZEL_TARGET}_version>)
endfunction()
