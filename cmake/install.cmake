# SPDX-License-Identifier: Apache-2.0
# What cmake --install puts where: the libraries, their headers as they lie in the tree but those in folders named
# private, which only source files include, the CMake package, the pkg-config files, and jpagent with its manual page, the
# completion of bash, and a systemd unit with a configuration to start from. All of it can be moved together with its prefix;
# systemd itself only looks for units, and for the programs that they name, below /usr and /usr/local.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/PimJoinPrune)
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/PimJoinPrune)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set_property(TARGET joinprune_shared PROPERTY EXPORT_NAME joinprune)
set_property(TARGET speaker_shared PROPERTY EXPORT_NAME speaker)
install(TARGETS joinprune_shared joinprune_static speaker_shared speaker_static EXPORT PimJoinPruneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${include_dir})
install(CODE "if(CMAKE_INSTALL_DO_STRIP)
  foreach(library libpimjoinprune.a libpimspeaker.a)
    execute_process(COMMAND \"${CMAKE_STRIP}\" -g
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/\${library}\" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endif()" COMPONENT development)  # CMake itself strips no static libraries
install(DIRECTORY runtime pim ${PROJECT_BINARY_DIR}/include/ DESTINATION ${include_dir}
        COMPONENT development FILES_MATCHING PATTERN *.h PATTERN private EXCLUDE)

install(EXPORT PimJoinPruneTargets NAMESPACE PimJoinPrune:: DESTINATION ${cmake_dir} COMPONENT development)
configure_package_config_file(cmake/PimJoinPruneConfig.cmake.in PimJoinPruneConfig.cmake
                              INSTALL_DESTINATION ${cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(PimJoinPruneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PimJoinPruneConfig.cmake ${PROJECT_BINARY_DIR}/PimJoinPruneConfigVersion.cmake
        DESTINATION ${cmake_dir} COMPONENT development)

# What the library needs of its compiler, for a static link that the C compiler's driver does.
set(cxx_libraries ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(FILTER cxx_libraries INCLUDE REGEX "^(stdc\\+\\+|c\\+\\+|c\\+\\+abi|m)$")
list(REMOVE_DUPLICATES cxx_libraries)
list(TRANSFORM cxx_libraries PREPEND -l)
list(JOIN cxx_libraries " " cxx_libraries)
file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig_dir} /)
foreach(library pimjoinprune pimspeaker)
  configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${pkgconfig_dir} COMPONENT development)
endforeach()

# As Debian wants it: without a time stamp, so that the same input gives the same bytes.
function(compressed file result)
  execute_process(COMMAND gzip -9n INPUT_FILE ${file} OUTPUT_FILE ${result} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

if(TARGET jpagent)
  install(TARGETS jpagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  configure_file(jpagent/jpagent.1 jpagent.1 @ONLY)
  compressed(${PROJECT_BINARY_DIR}/jpagent.1 ${PROJECT_BINARY_DIR}/jpagent.1.gz)
  install(FILES ${PROJECT_BINARY_DIR}/jpagent.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES docs/trace-viewer.html packaging/jpagent.toml DESTINATION ${CMAKE_INSTALL_DATADIR}/PimJoinPrune
          COMPONENT tools)
  install(FILES packaging/jpagent.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME jpagent
          COMPONENT tools)
  install(FILES packaging/jpagent.service DESTINATION lib/systemd/system COMPONENT tools)
endif()
