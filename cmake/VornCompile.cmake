# Flags that every target of the tree shares, as one interface target.
#
# -ffp-contract=off: prices and amounts are double operations in a stated order, each one rounded;
# a fused multiply-add would change their last bit.
add_library(vorn_compile INTERFACE)
target_compile_options(vorn_compile INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-psabi -ffp-contract=off)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 reports overlapping copies inside its own std::string where there are none.
  target_compile_options(vorn_compile INTERFACE -Wno-restrict)
endif()
if(VORN_WERROR)
  target_compile_options(vorn_compile INTERFACE -Werror)
endif()
if(VORN_SANITIZE)
  target_compile_options(vorn_compile INTERFACE
    -fsanitize=${VORN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vorn_compile INTERFACE -fsanitize=${VORN_SANITIZE})
endif()
if(VORN_FUZZ)
  target_compile_options(vorn_compile INTERFACE -fsanitize=fuzzer-no-link)
  # Comparisons guide a search to what is not explored yet, and cost a mass campaign a third.
  if(VORN_FUZZ STREQUAL "campaign")
    target_compile_options(vorn_compile INTERFACE -fno-sanitize-coverage=trace-cmp)
  endif()
endif()
if(VORN_COVERAGE)
  target_compile_options(vorn_compile INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(vorn_compile INTERFACE -fprofile-instr-generate)
endif()
