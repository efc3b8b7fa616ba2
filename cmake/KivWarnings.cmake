# The warnings every target of the project is compiled with.
add_library(kiv_warnings INTERFACE)
target_compile_options(kiv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KIV_WARNINGS_AS_ERRORS)
  target_compile_options(kiv_warnings INTERFACE -Werror)
endif()
