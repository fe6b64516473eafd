# Finds the card maker's library and its headers.
#
#   find_package(Exanic [REQUIRED])
#
# Looks where the maker's package installs them, below CMAKE_PREFIX_PATH, and below Exanic_ROOT.
# EXANIC_INCLUDE_DIR (the folder that holds exanic/exanic.h) and EXANIC_LIBRARY name them outright.
# A static library is taken before a shared one.
#
# Defines, when both are found:
#   exanic::headers  the headers only, enough to compile against
#   exanic::exanic   headers and library
find_path(EXANIC_INCLUDE_DIR exanic/exanic.h
  DOC "Folder that holds exanic/exanic.h of the card maker's package")
find_library(EXANIC_LIBRARY NAMES libexanic.a exanic
  DOC "The card maker's library")
mark_as_advanced(EXANIC_INCLUDE_DIR EXANIC_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Exanic
  REQUIRED_VARS EXANIC_LIBRARY EXANIC_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "Install the card maker's software package, or set EXANIC_INCLUDE_DIR and \
EXANIC_LIBRARY.")

if(Exanic_FOUND AND NOT TARGET exanic::headers)
  add_library(exanic::headers INTERFACE IMPORTED)
  set_target_properties(exanic::headers PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${EXANIC_INCLUDE_DIR}"
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${EXANIC_INCLUDE_DIR}")
  add_library(exanic::exanic UNKNOWN IMPORTED)
  set_target_properties(exanic::exanic PROPERTIES
    IMPORTED_LOCATION "${EXANIC_LIBRARY}"
    INTERFACE_LINK_LIBRARIES exanic::headers)
endif()
