# libdeflate. Defines the target zel_deflate.
find_path(ZelDeflate_INCLUDE_DIR libdeflate.h)
find_library(ZelDeflate_LIBRARY NAMES deflate)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZelDeflate REQUIRED_VARS ZelDeflate_LIBRARY ZelDeflate_INCLUDE_DIR)

if(ZelDeflate_FOUND AND NOT TARGET zel_deflate)
  add_library(zel_deflate INTERFACE)
  target_include_directories(zel_deflate SYSTEM INTERFACE ${ZelDeflate_INCLUDE_DIR})
  target_link_libraries(zel_deflate INTERFACE ${ZelDeflate_LIBRARY})
endif()
