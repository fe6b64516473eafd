# Where things are installed, relative to the prefix. Everything that is installed finds the rest by
# its place relative to itself, so that the prefix may be chosen when installing.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  # Below /usr and /usr/local alike, so that packages can be made of any build folder.
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Libraries")
endif()
include(GNUInstallDirs)

set(VORN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)
set(VORN_INSTALL_SHAREDIR ${CMAKE_INSTALL_DATADIR}/vorn)
set(VORN_INSTALL_PYTHONDIR lib/python3/dist-packages CACHE PATH "Python packages")
set(VORN_INSTALL_UNITDIR lib/systemd/system CACHE PATH "Units of systemd")

# The build tree has the same shape where a program looks for its files.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/share/vorn)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/web/dist ${CMAKE_BINARY_DIR}/share/vorn/web SYMBOLIC)
