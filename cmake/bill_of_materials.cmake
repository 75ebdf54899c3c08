# A bill of materials of a program that ships, made beside it whenever it is built: PROGRAM.cdx.json.
# HEADERS: the libraries that it has nothing but headers of, as "name|version|directory"; those that it
# is linked with it names itself.

set(bill_of_materials_script ${CMAKE_CURRENT_LIST_DIR}/write_bill_of_materials.cmake)

function(tavlo_add_bill_of_materials program)
  cmake_parse_arguments(PARSE_ARGV 1 given "" "" "LIBRARIES;HEADERS")
  set(bill ${CMAKE_BINARY_DIR}/${program}.cdx.json)
  set(files ${given_LIBRARIES})
  list(TRANSFORM files REPLACE "^.*\\|" "")
  add_custom_command(OUTPUT ${bill}
    COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${program}> -DVERSION=${PROJECT_VERSION}
      -DREADELF=${CMAKE_READELF} "-DLIBRARIES=${given_LIBRARIES}" "-DHEADERS=${given_HEADERS}"
      -DBILL=${bill} -P ${bill_of_materials_script}
    DEPENDS ${program} ${files} ${bill_of_materials_script}
    VERBATIM)
  add_custom_target(${program}_bill_of_materials ALL DEPENDS ${bill})
endfunction()
