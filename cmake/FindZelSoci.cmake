# SOCI with its backends for SQLite and PostgreSQL, linked instead of loaded by name when a database
# is opened. Their headers include those of the databases' own client libraries. Defines the target
# zel_soci.
find_path(ZelSoci_INCLUDE_DIR soci/soci.h)
find_path(ZelSoci_SQLITE_INCLUDE_DIR sqlite3.h)
find_path(ZelSoci_POSTGRESQL_INCLUDE_DIR libpq-fe.h PATH_SUFFIXES postgresql)
find_library(ZelSoci_LIBRARY NAMES soci_core)
find_library(ZelSoci_SQLITE_BACKEND NAMES soci_sqlite3)
find_library(ZelSoci_POSTGRESQL_BACKEND NAMES soci_postgresql)
find_library(ZelSoci_SQLITE_LIBRARY NAMES sqlite3)
find_library(ZelSoci_POSTGRESQL_LIBRARY NAMES pq)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZelSoci REQUIRED_VARS
  ZelSoci_LIBRARY ZelSoci_SQLITE_BACKEND ZelSoci_POSTGRESQL_BACKEND
  ZelSoci_SQLITE_LIBRARY ZelSoci_POSTGRESQL_LIBRARY
  ZelSoci_INCLUDE_DIR ZelSoci_SQLITE_INCLUDE_DIR ZelSoci_POSTGRESQL_INCLUDE_DIR)

if(ZelSoci_FOUND AND NOT TARGET zel_soci)
  add_library(zel_soci INTERFACE)
  target_include_directories(zel_soci SYSTEM INTERFACE
    ${ZelSoci_INCLUDE_DIR} ${ZelSoci_SQLITE_INCLUDE_DIR} ${ZelSoci_POSTGRESQL_INCLUDE_DIR})
  target_link_libraries(zel_soci INTERFACE
    ${ZelSoci_SQLITE_BACKEND} ${ZelSoci_POSTGRESQL_BACKEND} ${ZelSoci_LIBRARY}
    ${ZelSoci_SQLITE_LIBRARY} ${ZelSoci_POSTGRESQL_LIBRARY})
  if(ZEL_SANITIZE MATCHES undefined)
    # SOCI keeps the type information of its classes to itself, which this check would need.
    target_compile_options(zel_soci INTERFACE -fno-sanitize=vptr)
  endif()
endif()
