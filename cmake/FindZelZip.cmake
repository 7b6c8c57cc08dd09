# libzip with its headers, without the programs that its own CMake package insists on. Defines the
# target zel_zip.
find_path(ZelZip_INCLUDE_DIR zip.h)
find_library(ZelZip_LIBRARY NAMES zip)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZelZip REQUIRED_VARS ZelZip_LIBRARY ZelZip_INCLUDE_DIR)

if(ZelZip_FOUND AND NOT TARGET zel_zip)
  add_library(zel_zip INTERFACE)
  target_include_directories(zel_zip SYSTEM INTERFACE ${ZelZip_INCLUDE_DIR})
  target_link_libraries(zel_zip INTERFACE ${ZelZip_LIBRARY})
endif()
