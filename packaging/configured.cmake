# Installs the files with paths in them. It runs at installation, when the prefix is known for good.
# SYSCONFDIR in the environment: another place for the configuration than <prefix>/etc.

set(prefix "${CMAKE_INSTALL_PREFIX}")
if(NOT "$ENV{SYSCONFDIR}" STREQUAL "")
  set(sysconfdir "$ENV{SYSCONFDIR}")
elseif(prefix STREQUAL "/usr")
  set(sysconfdir /etc)
else()
  set(sysconfdir "${prefix}/etc")
endif()

# What may have been edited since the last time stays as it is.
function(install_configuration file directory)
  if(EXISTS "$ENV{DESTDIR}${directory}/${file}")
    message(STATUS "Kept: $ENV{DESTDIR}${directory}/${file}")
  else()
    file(INSTALL "${build_dir}/${file}" DESTINATION "${directory}")
  endif()
endfunction()

foreach(file tavlo.json systemd/tavlo.path systemd/tavlo.service)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/${file}.in" "${build_dir}/${file}" @ONLY)
endforeach()
configure_file("${CMAKE_CURRENT_LIST_DIR}/tavlo.logrotate" "${build_dir}/tavlo" COPYONLY)

file(INSTALL "${build_dir}/systemd/tavlo.path" "${build_dir}/systemd/tavlo.service"
  DESTINATION "${prefix}/lib/systemd/system")
install_configuration(tavlo.json "${sysconfdir}/tavlo")
install_configuration(tavlo "${sysconfdir}/logrotate.d")
file(INSTALL TYPE DIRECTORY FILES "" DESTINATION "${sysconfdir}/tavlo/agent")
file(INSTALL TYPE DIRECTORY FILES "" DESTINATION "${sysconfdir}/tavlo/hooks/agent")
