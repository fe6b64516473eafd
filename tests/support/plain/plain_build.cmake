# cmake -DCXX=<compiler> -DCC=<compiler> -DSOURCE_DIR=<tree> -DWORK_DIR=<scratch> -P plain_build.cmake
#
# The feed needs no build system: its sources compile with one plain command line each, against the
# three headers of the card's library, and link with any stand-in for its seven calls.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
file(GLOB_RECURSE sources ${SOURCE_DIR}/exchange/exanic_shfe_md/src/*.cpp
                          ${SOURCE_DIR}/public/*.cpp)
if(NOT sources)
  message(FATAL_ERROR "no sources below ${SOURCE_DIR}")
endif()

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK_DIR} RESULT_VARIABLE result
                  OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nended with ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(flags -std=c++20 -pthread -Wall -Wextra -Werror
          -I ${SOURCE_DIR}/exchange/exanic_shfe_md/src -I ${SOURCE_DIR}/public
          -I ${SOURCE_DIR}/public/log -isystem ${SOURCE_DIR}/softcard/include)
set(objects)
foreach(source IN LISTS sources ITEMS ${SOURCE_DIR}/tests/support/plain/plain_main.cpp)
  string(MAKE_C_IDENTIFIER "${source}" object)
  set(object ${WORK_DIR}/${object}.o)
  run(${CXX} ${flags} -c ${source} -o ${object})
  list(APPEND objects ${object})
endforeach()
run(${CC} -Wall -Wextra -Werror -c ${SOURCE_DIR}/tests/support/plain/plain_card.c
    -o ${WORK_DIR}/plain_card.o)
run(${CXX} -pthread ${objects} ${WORK_DIR}/plain_card.o -o ${WORK_DIR}/plain)

run(${WORK_DIR}/plain)
if(NOT output MATCHES "software version: Aug 18 2026 15:02:36 Shfe V2.1.1.12")
  message(FATAL_ERROR "the program did not say its version:\n${output}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
