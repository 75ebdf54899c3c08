# Warns of a libevent without the security fixes of its HTTP server that docs/porting.md names. Its
# version does not tell: distributions have added them to 2.1.12. A library for another machine cannot
# be asked here.
function(tavlo_warn_of_missing_fixes)
  if(CMAKE_CROSSCOMPILING)
    return()
  endif()
  # Another library is asked anew.
  list(FILTER LIBEVENT_LINK_LIBRARIES INCLUDE REGEX libevent_extra)
  file(TIMESTAMP ${LIBEVENT_LINK_LIBRARIES} made)
  if(NOT TAVLO_LIBEVENT_ASKED STREQUAL "${LIBEVENT_LINK_LIBRARIES} ${made}")
    try_run(status is_built
      SOURCES ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/libevent_fixes.cc
      LINK_LIBRARIES PkgConfig::LIBEVENT
      NO_CACHE RUN_OUTPUT_VARIABLE missing)
    if(NOT is_built OR NOT status MATCHES "^[01]$")
      set(missing "some that could not be looked for: ${missing}")
    endif()
    set(TAVLO_LIBEVENT_MISSING "${missing}" CACHE INTERNAL "Fixes that libevent is without")
    set(TAVLO_LIBEVENT_ASKED "${LIBEVENT_LINK_LIBRARIES} ${made}" CACHE INTERNAL "")
  endif()
  if(TAVLO_LIBEVENT_MISSING)
    message(WARNING "libevent is without security fixes: ${TAVLO_LIBEVENT_MISSING}. The daemon does "
      "not rest on them; whatever else uses this libevent does. See docs/porting.md.")
  endif()
endfunction()
