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
  find_package(Exanic MODULE)
  if(Exanic_FOUND)
    set(VORN_CARD_IN_USE exanic)
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
