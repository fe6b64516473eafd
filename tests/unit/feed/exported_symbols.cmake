# cmake -DNM=<nm> -DLIBRARY=<libvorn_md.so> -P exported_symbols.cmake
#
# The shared library exports its five plain names and the monitor's three, and nothing else: no C++
# symbol, nothing of the card's library.
execute_process(
  COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
  OUTPUT_VARIABLE output
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${result}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(found)
foreach(line IN LISTS lines)
  # "name type value size"; functions must be text, the callback pointer a variable.
  string(REGEX REPLACE "^([^ ]+) ([A-Za-z]) .*$" "\\1:\\2" symbol "${line}")
  string(REGEX REPLACE ":D$" ":B" symbol "${symbol}") # initialised or not: a variable
  list(APPEND found "${symbol}")
endforeach()
list(SORT found)
set(expected create_shm:T free_shm:T set_update_md_callback:T update_md:B
             vorn_md_counters:T vorn_md_set_event_callback:T vorn_md_table:T vorn_recv:T)
if(NOT "${found}" STREQUAL "${expected}")
  message(FATAL_ERROR "exported: ${found}\nexpected: ${expected}")
endif()
