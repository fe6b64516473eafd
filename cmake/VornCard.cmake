# Chooses what the target exanic::exanic is: the card maker's library or the software card.
#
# exanic::headers  the three headers only, enough to compile the feed
# exanic::exanic   headers and an implementation of the calls, enough to link it
#
# The feed's object files are the same with either.
if(NOT VORN_CARD MATCHES "^(softcard|exanic)$")
  message(FATAL_ERROR "VORN_CARD is '${VORN_CARD}'; it must be softcard or exanic")
endif()

set(VORN_CARD_IN_USE softcard)
if(VORN_CARD STREQUAL "exanic")
  find_path(EXANIC_INCLUDE_DIR exanic/exanic.h)
  find_library(EXANIC_LIBRARY NAMES libexanic.a exanic)
  if(EXANIC_INCLUDE_DIR AND EXANIC_LIBRARY)
    set(VORN_CARD_IN_USE exanic)
    add_library(exanic_real STATIC IMPORTED)
    set_target_properties(exanic_real PROPERTIES
      IMPORTED_LOCATION ${EXANIC_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${EXANIC_INCLUDE_DIR})
    add_library(exanic_real_headers INTERFACE)
    target_include_directories(exanic_real_headers SYSTEM INTERFACE ${EXANIC_INCLUDE_DIR})
    add_library(exanic::exanic ALIAS exanic_real)
    add_library(exanic::headers ALIAS exanic_real_headers)
    message(STATUS "Card: real libexanic, ${EXANIC_LIBRARY}")
  else()
    message(WARNING "VORN_CARD=exanic, but libexanic was not found (headers: "
      "'${EXANIC_INCLUDE_DIR}', library: '${EXANIC_LIBRARY}'). Install the card maker's software "
      "package or set EXANIC_INCLUDE_DIR and EXANIC_LIBRARY. Using the software card instead.")
  endif()
endif()
if(VORN_CARD_IN_USE STREQUAL "softcard")
  # softcard/CMakeLists.txt defines the aliases exanic::exanic and exanic::headers.
  message(STATUS "Card: software card (softcard)")
endif()
