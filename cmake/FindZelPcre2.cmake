# PCRE2 for texts of bytes. Defines the target zel_pcre2.
find_path(ZelPcre2_INCLUDE_DIR pcre2.h)
find_library(ZelPcre2_LIBRARY NAMES pcre2-8)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZelPcre2 REQUIRED_VARS ZelPcre2_LIBRARY ZelPcre2_INCLUDE_DIR)

if(ZelPcre2_FOUND AND NOT TARGET zel_pcre2)
  add_library(zel_pcre2 INTERFACE)
  target_include_directories(zel_pcre2 SYSTEM INTERFACE ${ZelPcre2_INCLUDE_DIR})
  target_compile_definitions(zel_pcre2 INTERFACE PCRE2_CODE_UNIT_WIDTH=8)
  target_link_libraries(zel_pcre2 INTERFACE ${ZelPcre2_LIBRARY})
endif()
