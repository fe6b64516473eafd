# What is installed, in five components:
#
# runtime        the shared library
# development    headers, static libraries, CMake package, pkg-config files, manual of the calls
# tools          programs and what belongs to them
# python         the Python package
# documentation  documents and examples
include(CMakePackageConfigHelpers)

# The software card as one archive, beside the feed's own: what a program links that tests a strategy
# without a card.
add_library(vorn_softcard STATIC
  $<TARGET_OBJECTS:exanic_softcard> $<TARGET_OBJECTS:softcard_rounds> $<TARGET_OBJECTS:faults>
  $<TARGET_OBJECTS:exchange_sim> $<TARGET_OBJECTS:wirekit>)
target_link_libraries(vorn_softcard PUBLIC Threads::Threads PRIVATE $<INSTALL_INTERFACE:pcap>)

# A program in C links these too: the libraries are C++ inside.
add_library(vorn_md_softcard INTERFACE)
target_link_libraries(vorn_md_softcard INTERFACE vorn_md_static vorn_softcard)

# The bus is read by headers alone.
add_library(vorn_bus_headers INTERFACE)
target_compile_features(vorn_bus_headers INTERFACE cxx_std_20)

set(vorn_includes ${CMAKE_INSTALL_INCLUDEDIR} ${CMAKE_INSTALL_INCLUDEDIR}/vorn)
set_target_properties(vorn_md_shared PROPERTIES EXPORT_NAME md)
set_target_properties(vorn_md_static PROPERTIES EXPORT_NAME md_static)
set_target_properties(vorn_softcard PROPERTIES EXPORT_NAME softcard)
set_target_properties(vorn_md_softcard PROPERTIES EXPORT_NAME md_softcard)
set_target_properties(vorn_bus_headers PROPERTIES EXPORT_NAME bus)
install(TARGETS vorn_md_shared vorn_md_static vorn_softcard vorn_md_softcard vorn_bus_headers
  EXPORT vorn
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${vorn_includes})
install(EXPORT vorn NAMESPACE vorn:: FILE vornTargets.cmake
  DESTINATION ${VORN_INSTALL_CMAKEDIR} COMPONENT development)

configure_package_config_file(cmake/vornConfig.cmake.in ${CMAKE_BINARY_DIR}/packaging/vornConfig.cmake
  INSTALL_DESTINATION ${VORN_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/vornConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/vornConfig.cmake
              ${CMAKE_BINARY_DIR}/packaging/vornConfigVersion.cmake cmake/FindExanic.cmake
  DESTINATION ${VORN_INSTALL_CMAKEDIR} COMPONENT development)

file(RELATIVE_PATH VORN_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name vorn-md vorn-md-softcard vorn-bus)
  configure_file(packaging/pkgconfig/${name}.pc.in ${CMAKE_BINARY_DIR}/packaging/${name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

set(feed_headers exchange/exanic_shfe_md/src)
install(FILES ${feed_headers}/ExanicMdImpl.h ${feed_headers}/ExanicMdTypes.h
              ${feed_headers}/ExanicMdMonitor.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn COMPONENT development)
install(FILES bus/bus_layout.h bus/bus_process.h bus/bus_reader.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn/bus COMPONENT development)

install(TARGETS vorn ApiDemoCallback DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES sample-code/vorn.ini DESTINATION ${VORN_INSTALL_SHAREDIR} COMPONENT tools)
# Built by ./dev web; without it `vorn serve` answers programs only.
install(DIRECTORY web/dist/ DESTINATION ${VORN_INSTALL_SHAREDIR}/web COMPONENT tools OPTIONAL)
install(DIRECTORY ops/prometheus DESTINATION ${VORN_INSTALL_SHAREDIR} COMPONENT tools)
# Wireshark reads its folder for plugins at every start.
install(FILES tools/wireshark/vorn.lua
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)

install(DIRECTORY python/vorn DESTINATION ${VORN_INSTALL_PYTHONDIR} COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)

install(FILES packaging/systemd/vorn@.service packaging/systemd/vorn-serve@.service
  DESTINATION ${VORN_INSTALL_UNITDIR} COMPONENT tools)
install(FILES packaging/systemd/vorn.sysusers RENAME vorn.conf
  DESTINATION lib/sysusers.d COMPONENT tools)

set(vorn_documents ${CMAKE_INSTALL_DATADIR}/doc/vorn)
install(FILES README.md ARCHITECTURE.md CHANGELOG.md
  DESTINATION ${vorn_documents} COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${vorn_documents} COMPONENT documentation)
foreach(folder exchange_sim faults softcard)
  install(FILES ${folder}/README.md
    DESTINATION ${vorn_documents}/${folder} COMPONENT documentation)
endforeach()
install(FILES sample-code/demo/callback_a/ApiDemoCallback.cpp
  DESTINATION ${vorn_documents}/examples/recorder COMPONENT documentation)
foreach(language c cmake pkgconfig python card)
  install(DIRECTORY tests/packaging/foreign_${language}/
    DESTINATION ${vorn_documents}/examples/${language} COMPONENT documentation)
endforeach()

# Archives keep the symbols that linking needs and lose those of the debugger.
if(VORN_DEBUG_PACKAGES)
  install(CODE "
    execute_process(COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives
      \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libvorn_md.a
      \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libvorn_softcard.a)"
    COMPONENT development)
endif()
