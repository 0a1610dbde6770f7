# Install rules, grouped in the components the Debian packages are made of:
#   runtime  libvel.so.0 (package libvel0)
#   dev      headers, libvel.so, libvel.a, CMake package, vel.pc (libvel-dev)
#   tools    vel, velfileagent, manual pages, the agent's unit (vel-tools)
include(CMakePackageConfigHelpers)

set(VEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vel)

install(TARGETS vel_shared vel_static EXPORT velTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
# A stripping install (cpack, cmake --install --strip) also drops the debug
# information of the static archive, as Debian's tools do.
install(CODE "if(CMAKE_INSTALL_DO_STRIP)
  execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug --remove-section=.comment
                          --enable-deterministic-archives
                          \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libvel.a\"
                  RESULT_VARIABLE vel_strip_result)
  if(NOT vel_strip_result EQUAL 0)
    message(FATAL_ERROR \"stripping libvel.a failed: \${vel_strip_result}\")
  endif()
endif()" COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT dev)

install(EXPORT velTargets NAMESPACE vel:: DESTINATION ${VEL_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/velConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/velConfig.cmake
                              INSTALL_DESTINATION ${VEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velConfig.cmake ${PROJECT_BINARY_DIR}/velConfigVersion.cmake
        DESTINATION ${VEL_CMAKE_DIR} COMPONENT dev)

# vel.pc finds its prefix from its own folder, so the same file serves /usr,
# any --prefix and a package unpacked somewhere else.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(VEL_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(VEL_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  set(VEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH VEL_PC_UP "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" VEL_PC_UP "${VEL_PC_UP}")
  set(VEL_PC_PREFIX "\${pcfiledir}/${VEL_PC_UP}")
  set(VEL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(VEL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# Static linking of libvel.a needs the thread library where libc lacks it.
set(VEL_PC_LIBS_PRIVATE "")
if(CMAKE_THREAD_LIBS_INIT)
  set(VEL_PC_LIBS_PRIVATE "Libs.private: ${CMAKE_THREAD_LIBS_INIT}\n")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/vel.pc.in ${PROJECT_BINARY_DIR}/vel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

# Debian wants manual pages and changelogs compressed without a time stamp.
find_program(VEL_GZIP gzip REQUIRED)
function(vel_gzip source output)
  get_filename_component(folder ${output} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  add_custom_command(OUTPUT ${output}
                     COMMAND ${VEL_GZIP} -9nc ${source} > ${output}
                     DEPENDS ${source} VERBATIM)
endfunction()
set(VEL_GZIPPED "")

if(VEL_BUILD_TOOLS)
  install(TARGETS vel_tool velfileagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT tools)
  foreach(page vel.1 velfileagent.1)
    vel_gzip(${PROJECT_SOURCE_DIR}/man/${page} ${PROJECT_BINARY_DIR}/man/${page}.gz)
    list(APPEND VEL_GZIPPED ${PROJECT_BINARY_DIR}/man/${page}.gz)
    install(FILES ${PROJECT_BINARY_DIR}/man/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT tools)
  endforeach()
  # The agent's service: its unit, its system user (systemd-sysusers) and
  # the environment file the unit reads. The package installs the latter as
  # the conffile /etc/velfileagent/velfileagent.env; a plain install puts
  # the example with the documentation, never into the system's /etc.
  install(FILES ${PROJECT_SOURCE_DIR}/tools/fileagent/velfileagent.service
          DESTINATION lib/systemd/system COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/fileagent/velfileagent.sysusers
          DESTINATION lib/sysusers.d RENAME velfileagent.conf COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/fileagent/velfileagent.env
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/vel-tools/examples COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/fileagent/velfileagent.env
          DESTINATION /etc/velfileagent COMPONENT tools EXCLUDE_FROM_ALL)
endif()
if(VEL_GZIPPED)
  add_custom_target(vel_manual_pages ALL DEPENDS ${VEL_GZIPPED})
endif()
