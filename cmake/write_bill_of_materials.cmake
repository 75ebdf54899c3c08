# Writes the bill of materials of a program in the form of CycloneDX. It has no time and no place in it:
# the same program has the same bill.
#
# PROGRAM, VERSION, READELF, BILL (the file to be written)
# LIBRARIES  "name|version|file" of each library that the program may be linked with
# HEADERS    "name|version|directory" of each that it is compiled with and that is nothing but headers

cmake_minimum_required(VERSION 3.25)

function(dynamic_section file tag values)
  execute_process(COMMAND ${READELF} --dynamic --wide ${file} OUTPUT_VARIABLE section
    COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "\\(${tag}\\)[^\n]*" lines "${section}")
  list(TRANSFORM lines REPLACE "^.*\\[(.*)\\]$" "\\1")
  set(${values} "${lines}" PARENT_SCOPE)
endfunction()

# The object of one file, in the list `objects`.
function(append_file objects name path)
  file(SHA256 ${path} hash)
  list(APPEND ${objects} "{\"type\": \"file\", \"name\": \"${name}\",
    \"hashes\": [{\"alg\": \"SHA-256\", \"content\": \"${hash}\"}]}")
  set(${objects} "${${objects}}" PARENT_SCOPE)
endfunction()

function(append_component name version files)
  list(JOIN files ", " files)
  list(APPEND components "{\"type\": \"library\", \"bom-ref\": \"${name}\", \"name\": \"${name}\",
    \"version\": \"${version}\", \"components\": [${files}]}")
  list(APPEND references "\"${name}\"")
  set(components "${components}" PARENT_SCOPE)
  set(references "${references}" PARENT_SCOPE)
endfunction()

set(components "")
set(references "")

# The entries of a library follow one another.
dynamic_section(${PROGRAM} NEEDED needed)
set(names ${LIBRARIES})
list(TRANSFORM names REPLACE "\\|.*" "")
list(REMOVE_DUPLICATES names)
foreach(name IN LISTS names)
  set(files "")
  foreach(library IN LISTS LIBRARIES)
    string(REGEX MATCH "^([^|]*)\\|([^|]*)\\|(.*)$" matched "${library}")
    set(path ${CMAKE_MATCH_3})
    if(NOT CMAKE_MATCH_1 STREQUAL name)
      continue()
    endif()
    set(version ${CMAKE_MATCH_2})
    dynamic_section(${path} SONAME soname)
    if(soname IN_LIST needed OR path MATCHES "\\.a$")
      file(REAL_PATH ${path} path)
      cmake_path(GET path FILENAME file)
      append_file(files ${file} ${path})
    endif()
  endforeach()
  if(files)
    append_component(${name} ${version} "${files}")
  endif()
endforeach()

foreach(library IN LISTS HEADERS)
  string(REGEX MATCH "^([^|]*)\\|([^|]*)\\|(.*)$" matched "${library}")
  set(name ${CMAKE_MATCH_1})
  set(version ${CMAKE_MATCH_2})
  set(directory ${CMAKE_MATCH_3})
  file(GLOB_RECURSE headers RELATIVE ${directory} ${directory}/*)
  list(SORT headers)
  set(files "")
  foreach(header IN LISTS headers)
    append_file(files ${header} ${directory}/${header})
  endforeach()
  append_component(${name} ${version} "${files}")
endforeach()

cmake_path(GET PROGRAM FILENAME program)
file(SHA256 ${PROGRAM} hash)
list(JOIN components ", " components)
list(JOIN references ", " references)
# As CMake writes JSON: indented, and in the order of the names.
string(JSON bill GET "[{
  \"bomFormat\": \"CycloneDX\", \"specVersion\": \"1.5\", \"version\": 1,
  \"metadata\": {\"component\": {\"type\": \"application\", \"bom-ref\": \"${program}\",
    \"name\": \"${program}\", \"version\": \"${VERSION}\",
    \"hashes\": [{\"alg\": \"SHA-256\", \"content\": \"${hash}\"}]}},
  \"components\": [${components}],
  \"dependencies\": [{\"ref\": \"${program}\", \"dependsOn\": [${references}]}]
}]" 0)
file(WRITE ${BILL} "${bill}\n")
