# Debian packages, one per install component (cpack -G DEB in the build tree;
# scripts/package.sh does it and checks the result):
#   libvel0     libvel.so.0                                    section libs
#   libvel-dev  headers, libvel.so, libvel.a, CMake, vel.pc    section libdevel
#   vel-tools   vel, velfileagent, manual pages, the agent's   section utils
#               unit, user and environment file
# In a cross build the architecture comes from the toolchain, and the
# dependencies are named explicitly: dpkg-shlibdeps only knows the packages
# installed for the build machine's own architecture.
set(VEL_DEB_MAINTAINER "vel maintainers <maintainers@vel.example.org>" CACHE STRING
    "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "vel maintainers")
set(CPACK_PACKAGE_CONTACT "${VEL_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VEL_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL runtime dev)
if(VEL_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
  else()
    message(FATAL_ERROR "no Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}")
  endif()
  # What dpkg-shlibdeps finds for the native build on Debian 12.
  set(VEL_DEB_CROSS_TOOLS_DEPENDS
      "libc6 (>= 2.34), libcurl4 (>= 7.16.2), libgcc-s1 (>= 3.0), libhiredis0.14 (>= 0.14.0), libjsoncpp25 (>= 1.9.5), libpugixml1v5 (>= 1.6), libsqlite3-0 (>= 3.7.9), libssl3 (>= 3.0.0), libstdc++6 (>= 11), libxxhash0 (>= 0.8.0)"
      CACHE STRING "Depends of vel-tools (besides libvel0) in a cross build")
  set(VEL_DEB_CROSS_RUNTIME_DEPENDS
      "libace-7.0.8 (>= 7.0.8+dfsg), libc6 (>= 2.33), libgcc-s1 (>= 3.0), libhiredis0.14 (>= 0.14.0), libjsoncpp25 (>= 1.9.5), libstdc++6 (>= 11)"
      CACHE STRING "Depends of libvel0 in a cross build")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${VEL_DEB_CROSS_RUNTIME_DEPENDS}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${VEL_DEB_CROSS_TOOLS_DEPENDS}")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  # libvel.so.0 of this build is not an installed package yet.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvel0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# shlibs for packages linking libvel.so.0; the ldconfig trigger instead of
# a maintainer script call (CPack still adds one, lintian warns about it).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "vel mirror client library - shared library
vel keeps a local mirror directory consistent with a remote hierarchical
file service. Applications call POSIX-like functions and file streams with
paths relative to the mirror root; files are pulled into the mirror before
reading and pushed back after writing, through a local file agent reached
over a Unix-domain socket.
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
# The headers include jsoncpp's and ACE's; the static archive and vel.pc
# need hiredis; velConfig.cmake and vel.pc need pkg-config.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libjsoncpp-dev, libace-dev, libhiredis-dev, pkgconf | pkg-config")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "vel mirror client library - development files
vel keeps a local mirror directory consistent with a remote hierarchical
file service through a local file agent.
.
This package contains the headers, the static library, the CMake package
(find_package(vel)) and the pkg-config module (vel).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The agent's user and group and its default folders (postinst), and its
# environment file kept across upgrades (conffiles).
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/vel-tools/postinst
                                             ${PROJECT_SOURCE_DIR}/cmake/debian/vel-tools/conffiles)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "vel mirror client library - maintenance tool and reference agent
vel keeps a local mirror directory consistent with a remote hierarchical
file service through a local file agent.
.
This package contains the maintenance tool vel (list, remove, update and
commit mirror paths) and velfileagent, a reference file agent that serves a
plain directory as the service, with its systemd unit: it runs as the system
user velfileagent, whose group an application's user joins to reach it.")

# copyright and changelog in each package's documentation folder. They
# belong to the packages only, not to a plain cmake --install.
set(VEL_DEB_CHANGELOG ${PROJECT_BINARY_DIR}/debian/changelog.gz)
vel_gzip(${PROJECT_SOURCE_DIR}/cmake/debian/changelog ${VEL_DEB_CHANGELOG})
add_custom_target(vel_debian_changelog ALL DEPENDS ${VEL_DEB_CHANGELOG})
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${VEL_DEB_CHANGELOG}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
cpack_add_component(runtime DISPLAY_NAME "libvel0")
cpack_add_component(dev DISPLAY_NAME "libvel-dev" DEPENDS runtime)
if(VEL_BUILD_TOOLS)
  cpack_add_component(tools DISPLAY_NAME "vel-tools" DEPENDS runtime)
endif()
