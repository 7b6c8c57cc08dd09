# Lua 5.4 compiled as C++: its errors are exceptions, so that the objects of functions that raise one
# are destroyed. Defines the target zel_lua.
find_path(ZelLua_INCLUDE_DIR lua.h PATH_SUFFIXES lua5.4)
find_library(ZelLua_LIBRARY NAMES lua5.4-c++ lua-c++ lua54)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZelLua REQUIRED_VARS ZelLua_LIBRARY ZelLua_INCLUDE_DIR)

if(ZelLua_FOUND AND NOT TARGET zel_lua)
  add_library(zel_lua INTERFACE)
  target_include_directories(zel_lua SYSTEM INTERFACE ${ZelLua_INCLUDE_DIR})
  target_link_libraries(zel_lua INTERFACE ${ZelLua_LIBRARY})
endif()
