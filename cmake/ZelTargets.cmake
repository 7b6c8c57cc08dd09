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
  if(ZEL_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC warns of fences that ThreadSanitizer does not see; Asio has some beside its locks.
    add_compile_options(-Wno-tsan)
  endif()
endif()

# Third-party headers, seen as system headers so that their warnings stay theirs.
function(zel_use_boost target)
  target_include_directories(${target} SYSTEM PRIVATE ${ZEL_HEADER_ONLY_INCLUDE})
  target_compile_definitions(${target} PRIVATE BOOST_ASIO_NO_DEPRECATED BOOST_ALL_NO_LIB)
  if(WIN32)
    target_link_libraries(${target} PRIVATE ws2_32 mswsock)
  endif()
endfunction()

function(zel_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zel_options ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
                       PROPERTIES TIMEOUT 120 LABELS ${name})
endfunction()
