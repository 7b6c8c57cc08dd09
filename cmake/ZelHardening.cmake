# What makes a mistake with memory harder to use for others, in every program and library.
# tests/scripts/test_hardening.py looks at what was built.

# These watch the memory by themselves, and better without the C library's own checks.
if(ZEL_SANITIZE)
  return()
endif()

if(WIN32)
  # Programs and libraries anywhere in 64 bits of addresses, and no code on the stack. Guarded stacks would
  # need a further library of the compiler's.
  add_link_options(-Wl,--dynamicbase,--nxcompat,--high-entropy-va)
else()
  # Programs anywhere in memory, as libraries are.
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  # A function with a buffer that was written past its end ends the program in place of returning.
  add_compile_options(-fstack-protector-strong)
  # Calls of the C library end it already there, where the optimiser knows how large the buffer is.
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                      $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  # All addresses of other libraries are looked up at the start, and their table cannot be written then.
  add_link_options(-Wl,-z,relro,-z,now)
endif()
