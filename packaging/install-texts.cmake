# Run by cmake --install: the prefix that its texts name is known only then.
foreach(folder sbin libexec man)
  cmake_path(ABSOLUTE_PATH ${folder}_dir BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
endforeach()
set(CMAKE_INSTALL_FULL_SBINDIR "${sbin_dir}")
set(CMAKE_INSTALL_FULL_LIBEXECDIR "${libexec_dir}")

# A page in the tree names the paths of the prefix /usr, so that it can be read there; a unit names
# variables.
function(install_text source folder name)
  file(READ "${texts}/${source}" text)
  string(REPLACE "/usr/sbin/" "${sbin_dir}/" text "${text}")
  string(REPLACE "/usr/libexec/" "${libexec_dir}/" text "${text}")
  string(CONFIGURE "${text}" text @ONLY)
  file(WRITE "${workplace}/${name}" "${text}")
  file(INSTALL "${workplace}/${name}" DESTINATION "${folder}")
endfunction()

foreach(page msgbusctl.1 lumd.conf.5 lumctl.8 lumd.8 msgbusd.8)
  string(REGEX MATCH "[0-9]$" section ${page})
  install_text(man/${page} "${man_dir}/man${section}" ${page})
endforeach()

if(unit_dir)
  cmake_path(ABSOLUTE_PATH unit_dir BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
  install_text(systemd/hostapd.conf.in "${unit_dir}/hostapd.service.d" lumd.conf)
  install_text(systemd/lumd.service.in "${unit_dir}" lumd.service)
  install_text(systemd/msgbusd.service.in "${unit_dir}" msgbusd.service)
endif()
