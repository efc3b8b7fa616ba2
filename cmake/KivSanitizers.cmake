# KIV_SANITIZE: a list for -fsanitize=, for example "address,undefined".
set(KIV_SANITIZE "" CACHE STRING "Sanitizers to build everything with")
if(KIV_SANITIZE)
  add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KIV_SANITIZE})
endif()

option(KIV_COVERAGE "Instrument for coverage measurement" OFF)
if(KIV_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
