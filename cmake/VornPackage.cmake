# Debian packages, one for each component of VornInstall.cmake. ./dev package makes them.
set(vorn_runtime_package libvorn-md${PROJECT_VERSION_MAJOR})
set(vorn_development_package libvorn-md-dev)
set(vorn_tools_package vorn-tools)
set(vorn_python_package python3-vorn)
set(vorn_documentation_package vorn-doc)

set(debian ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian)
file(STRINGS ${debian}/changelog vorn_changelog_line LIMIT_COUNT 1)
if(NOT vorn_changelog_line MATCHES "^vorn \\((${PROJECT_VERSION}-([0-9a-z]+))\\) ")
  message(FATAL_ERROR "packaging/debian/changelog begins with '${vorn_changelog_line}'; the project "
    "has version ${PROJECT_VERSION}")
endif()
set(vorn_package_version ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})

# What every package of Debian carries; of no use elsewhere.
set(vorn_changelog ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${debian}/changelog)
execute_process(COMMAND gzip -9n INPUT_FILE ${debian}/changelog OUTPUT_FILE ${vorn_changelog})
foreach(component runtime development tools python documentation)
  install(FILES ${debian}/copyright ${vorn_changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${vorn_${component}_package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(EXISTS ${debian}/${component}/lintian-overrides)
    install(FILES ${debian}/${component}/lintian-overrides RENAME ${vorn_${component}_package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endforeach()

# All that is installed, and nothing else.
add_custom_target(packaged DEPENDS
  vorn ApiDemoCallback vorn_md_shared vorn_md_static vorn_softcard)
if(TARGET manual)
  add_dependencies(packaged manual)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development tools python documentation)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME vorn)
set(CPACK_PACKAGE_CONTACT "Vorn maintainers <maintainers@vorn.example>")
# The summary that CPack takes for none, so that the packages have their own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Debug symbols apart, where the build has some.
option(VORN_DEBUG_PACKAGES "Put the debug symbols into packages of their own" OFF)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ${VORN_DEBUG_PACKAGES})
if(NOT VORN_DEBUG_PACKAGES)
  set(CPACK_STRIP_FILES ON) # otherwise they are stripped as their symbols are taken out
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${vorn_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
file(WRITE ${CMAKE_BINARY_DIR}/packaging/shlibs
  "libvorn_md ${PROJECT_VERSION_MAJOR} ${vorn_runtime_package} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_BINARY_DIR}/packaging/shlibs ${debian}/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "level-2 feed of SHFE and INE, shared library
Rebuilds the books of the futures exchanges SHFE and INE from a network card
and hands every update to a callback, without a copy, a lock or a sleep.

This package has the library that programs are linked to.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${vorn_development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${vorn_runtime_package} (= ${vorn_package_version}), libpcap0.8-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "level-2 feed of SHFE and INE, development files
Headers, static libraries, a CMake package and pkg-config files for programs
in C and C++ that use the feed. A software card comes with it, so that such
programs can be tested without a network card.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${vorn_tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "${vorn_python_package}, ${vorn_documentation_package}, wireshark, prometheus")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${debian}/tools/postinst)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "level-2 feed of SHFE and INE, programs
Simulates, records and replays sessions of the exchanges, checks the feed
against them, and shows a running feed to other processes, on the screen and
as a web page. With a service for systemd and a dissector for Wireshark.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${vorn_python_package})
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, python3-numpy")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${debian}/python/postinst ${debian}/python/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "level-2 feed of SHFE and INE, reader in Python
Reads a running feed as numpy arrays: the newest record of every instrument,
every update and event in order, and the counters of the feed.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME ${vorn_documentation_package})
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION "level-2 feed of SHFE and INE, documentation
How to use the feed and its programs, the formats of their files, and complete
projects in C, C++ and Python that use the feed.")
include(CPack)
