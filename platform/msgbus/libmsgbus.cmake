# libmsgbus: what the programs of this tree link from archives, for others as a shared library that
# has the names of the public headers alone.
add_library(libmsgbus SHARED
  $<TARGET_OBJECTS:platform_msgbus>
  $<TARGET_OBJECTS:platform_cfgtree>
  $<TARGET_OBJECTS:platform_logsink>)
set(names ${CMAKE_CURRENT_SOURCE_DIR}/src/libmsgbus.map)
set_target_properties(libmsgbus PROPERTIES
  OUTPUT_NAME msgbus
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINKER_LANGUAGE CXX
  LINK_DEPENDS ${names})
target_link_options(libmsgbus PRIVATE -Wl,--version-script=${names})
target_link_libraries(libmsgbus PRIVATE PkgConfig::JSONC Threads::Threads)
set(headers
  include/msgbus.h
  include/msgbus_modules.h
  ${PROJECT_SOURCE_DIR}/platform/cfgtree/include/cfgtree.h)

# Relative to where msgbus.pc will stand, so that it holds for every prefix.
set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH to_prefix ${pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH to_headers ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/msgbus)
configure_file(msgbus.pc.in msgbus.pc @ONLY)

install(TARGETS libmsgbus LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libmsgbus)
install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/msgbus COMPONENT libmsgbus)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/msgbus.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libmsgbus)
install(FILES examples/ask.c DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT libmsgbus)
install(PROGRAMS examples/answer.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT libmsgbus)

if(LUMD_TESTS)
  add_executable(msgbus_example examples/ask.c)
  target_include_directories(msgbus_example PRIVATE include ../cfgtree/include)
  target_link_libraries(msgbus_example PRIVATE libmsgbus)
endif()
