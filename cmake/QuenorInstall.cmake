# What is installed, in components: quenor_runtime (the shared library), quenor_dev (archives,
# headers, packages for CMake and pkg-config), quenor_tools, quenor_python, and tests.
include(CMakePackageConfigHelpers)
set(cmake_folder ${CMAKE_INSTALL_LIBDIR}/cmake/quenor)
set(dev COMPONENT quenor_dev ${QUENOR_IF_ASKED})

install(EXPORT quenorTargets NAMESPACE quenor:: DESTINATION ${cmake_folder} ${dev})
if(QUENOR_BUILD_SHARED)
  install(EXPORT quenorSharedTargets NAMESPACE quenor:: DESTINATION ${cmake_folder} ${dev})
endif()
set(QUENOR_TESTS ${CMAKE_INSTALL_DATADIR}/quenor/tests)
configure_package_config_file(cmake/quenorConfig.cmake.in ${PROJECT_BINARY_DIR}/quenorConfig.cmake
  PATH_VARS QUENOR_TESTS INSTALL_DESTINATION ${cmake_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quenorConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quenorConfig.cmake
  ${PROJECT_BINARY_DIR}/quenorConfigVersion.cmake cmake/QuenorPlatform.cmake
  DESTINATION ${cmake_folder} ${dev})
install(DIRECTORY quenor_base DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${dev}
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY c/quenor DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${dev})

# All archives as one, for who links without CMake.
get_property(archives GLOBAL PROPERTY QUENOR_ARCHIVES)
list(TRANSFORM archives REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
add_library(quenor_archive STATIC ${archives})
set_target_properties(quenor_archive PROPERTIES OUTPUT_NAME quenor LINKER_LANGUAGE CXX)
if(NOT QUENOR_INSTALL)
  set_target_properties(quenor_archive PROPERTIES EXCLUDE_FROM_ALL ON)
endif()
install(TARGETS quenor_archive ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} OPTIONAL ${dev})

# They find their folders from where they are.
file(RELATIVE_PATH QUENOR_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name quenor quenor-static)
  if(QUENOR_BUILD_SHARED OR name STREQUAL "quenor-static")
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
      DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${dev})
  endif()
endforeach()

if(QUENOR_BUILD_TOOLS)
  set(tools COMPONENT quenor_tools ${QUENOR_IF_ASKED})
  install(TARGETS quenor_report_exe quenor_collector_exe quenor_fleet_exe
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} ${tools})
  install(FILES man/quenor-report.1 man/quenor-collector.1 man/quenor-fleet.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 ${tools})
  install(DIRECTORY fleet/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/quenor ${tools})
  set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  foreach(program quenor-report quenor-collector quenor-fleet)
    install(FILES completion/quenor.bash RENAME ${program} DESTINATION ${completions} ${tools})
    install(FILES completion/quenor.fish RENAME ${program}.fish
      DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d ${tools})
  endforeach()
  set(zsh_folder site-functions)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(zsh_folder vendor-completions)  # Where a distribution's packages put theirs.
  endif()
  install(FILES completion/quenor.zsh RENAME _quenor
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder} ${tools})
endif()

# The services' contracts as sources, for who replaces one: only when asked for.
install(DIRECTORY tests/conformance DESTINATION ${QUENOR_TESTS} COMPONENT tests EXCLUDE_FROM_ALL
  PATTERN runs EXCLUDE)
install(FILES tests/support/unprivileged.h DESTINATION ${QUENOR_TESTS}/support
  COMPONENT tests EXCLUDE_FROM_ALL)
