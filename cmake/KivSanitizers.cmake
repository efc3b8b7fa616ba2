# KIV_SANITIZE: a list for -fsanitize=, for example "address,undefined".
set(KIV_SANITIZE "" CACHE STRING "Sanitizers to build everything with")
if(KIV_SANITIZE)
  add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KIV_SANITIZE})
endif()

# The thread sanitizer's instrumentation of the atomics alone, without its runtime: a library of the
# tests answers it and tells helgrind what it must know.
option(KIV_HELGRIND "Build everything for valgrind's helgrind (needs clang)" OFF)
if(KIV_HELGRIND)
  add_compile_options(-fno-omit-frame-pointer -gdwarf-4) # valgrind cannot read clang's later ones
  add_library(kiv_helgrind SHARED tests/support/helgrind.cpp)
  target_link_libraries(kiv_helgrind PRIVATE ${CMAKE_DL_LIBS})
  link_libraries(kiv_helgrind)
  add_compile_options(
    -fsanitize=thread "SHELL:-mllvm -tsan-instrument-memory-accesses=0"
    "SHELL:-mllvm -tsan-instrument-func-entry-exit=0"
    "SHELL:-mllvm -tsan-instrument-memintrinsics=0")
endif()

# The library alone; which of their own lines the tests run tells nothing.
option(KIV_COVERAGE "Instrument the library for coverage measurement" OFF)
