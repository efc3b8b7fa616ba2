# What library and programs of a release build are hardened with. A compiler or linker that does not
# know a flag goes without it. Sanitizers and coverage bring instrumentation that it would fight.
add_library(kiv_hardening INTERFACE)
if(KIV_SANITIZE OR KIV_COVERAGE)
  return()
endif()

include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
set(released "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")

# An option rather than a definition: it has to come after a level that the user's flags set.
target_compile_options(kiv_hardening
                       INTERFACE "$<${released}:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>")
foreach(flag -fstack-protector-strong -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "KIV_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(kiv_hardening INTERFACE "$<${released}:${flag}>")
  endif()
endforeach()
foreach(keyword relro now noexecstack)
  check_linker_flag(CXX LINKER:-z,${keyword} KIV_HAS_z_${keyword})
  if(KIV_HAS_z_${keyword})
    target_link_options(kiv_hardening INTERFACE "$<${released}:LINKER:-z,${keyword}>")
  endif()
endforeach()
