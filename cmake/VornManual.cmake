# The manual and the completions, made from what the built program says of itself.
find_package(Python3 QUIET COMPONENTS Interpreter)
if(NOT Python3_Interpreter_FOUND)
  message(STATUS "Python was not found: no manual and no completions are made")
  return()
endif()

set(VORN_MANUAL_DIR ${CMAKE_BINARY_DIR}/manual)
file(GLOB manual_sources CONFIGURE_DEPENDS
  packaging/manual/*.py packaging/manual/pages/*.md docs/*.md exchange/exanic_shfe_md/src/*.h)
add_custom_command(OUTPUT ${VORN_MANUAL_DIR}/vorn.bash
  COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/packaging/manual/manual.py
    --vorn $<TARGET_FILE:vorn> --source ${CMAKE_CURRENT_SOURCE_DIR}
    --version ${PROJECT_VERSION} --out ${VORN_MANUAL_DIR}
  DEPENDS vorn ${manual_sources} sample-code/vorn.ini
  COMMENT "Writing the manual" VERBATIM)
add_custom_target(manual ALL DEPENDS ${VORN_MANUAL_DIR}/vorn.bash)

foreach(section 1 5)
  install(DIRECTORY ${VORN_MANUAL_DIR}/man${section}
    DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
endforeach()
install(DIRECTORY ${VORN_MANUAL_DIR}/man3
  DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
install(FILES ${VORN_MANUAL_DIR}/vorn.bash RENAME vorn
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
