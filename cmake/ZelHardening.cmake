# What makes a mistake with memory harder to use for others, in every program and library.
# tests/scripts/test_hardening.py looks at what was built.

# These watch the memory by themselves, and better without the C library's own checks.
if(ZEL_SANITIZE)
  return()
endif()

if(WIN32)
  # Programs and libraries anywhere in 64 bits of addresses, and no code on the stack.
  add_link_options(-Wl,--dynamicbase,--nxcompat,--high-entropy-va)
else()
  # Programs anywhere in memory, as libraries are.
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  # All addresses of other libraries are looked up at the start, and their table cannot be written then.
  add_link_options(-Wl,-z,relro,-z,now)
endif()
