# SPDX-License-Identifier: Apache-2.0
# What cpack -G DEB makes: the two libraries, what is needed to build against them, and jpagent. scripts/package does it as
# Debian does, with its compiler flags and its folder of libraries.
set(CPACK_GENERATOR DEB)
set(JOINPRUNE_MAINTAINER "pimjoinprune developers <maintainers@pimjoinprune.invalid>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_PACKAGE_CONTACT ${JOINPRUNE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET jpagent)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})  # where one library finds the other
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)

set(runtime libpimjoinprune${PROJECT_VERSION_MAJOR})
set(development libpimjoinprune-dev)
set(tools pimjoinprune-tools)
foreach(component runtime development tools)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${${component}})
endforeach()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each has its own, in the first line
set(about "The library does the Join/Prune part of PIM sparse mode (RFC 7761) for a
multicast routing agent: it paces what is to be sent to each upstream
neighbor, and takes received messages apart entry by entry. A second
library is between packets and the engine: the codec, and a packet manager.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Join/Prune engine of PIM sparse mode - library\n${about}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Join/Prune engine of PIM sparse mode - development files\n${about}
.
This package has the headers, the static libraries, the CMake package and the
pkg-config files.")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Join/Prune engine of PIM sparse mode - reference agent\n${about}
.
This package has jpagent, which replays the Join/Prune messages of a capture
through the engine, performs conversations with it on a virtual clock, and
runs as a speaker on the interfaces of this machine, also as a systemd service.")

# What a program that is built against the library depends on: with an additional symbol the second number has risen.
# There is nothing to run when the library is installed but the trigger, for which cpack would otherwise write scripts;
# it refrains from that if it is told of such files, and warns that they are not there.
set(control ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${control}/shlibs "")
foreach(library libpimjoinprune libpimspeaker)
  file(APPEND ${control}/shlibs "${library} ${PROJECT_VERSION_MAJOR} ${runtime} \
(>= ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})\n")
endforeach()
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers ${control}/postinst
                                               ${control}/postrm)

# What Debian wants in every package, and what is not needed in a prefix of one's own.
configure_file(cmake/debian/changelog ${control}/changelog @ONLY)
compressed(${control}/changelog ${control}/changelog.Debian.gz)
foreach(component ${CPACK_COMPONENTS_ALL})
  install(FILES cmake/debian/copyright ${control}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)
