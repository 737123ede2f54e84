# Debian packages, made by cpack; ./dev package runs it and lintian. Files that packages need beside
# the library's own are in packaging/debian.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "QUENOR_PACKAGES needs CMAKE_INSTALL_PREFIX=/usr")
endif()
set(soname_package libquenor${PROJECT_VERSION_MAJOR})
set(exactly "(= ${PROJECT_VERSION})")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)

if(EXISTS ${PROJECT_SOURCE_DIR}/python/quenor)
  install(DIRECTORY python/quenor DESTINATION lib/python3/dist-packages COMPONENT quenor_python
    FILES_MATCHING PATTERN "*.py" PATTERN "py.typed")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quenor)
set(CPACK_PACKAGE_CONTACT "quenor maintainers <maintainers@quenor.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # Each package has one of its own.
file(WRITE ${PROJECT_BINARY_DIR}/shlibs
  "libquenor ${PROJECT_VERSION_MAJOR} ${soname_package} (>= ${PROJECT_VERSION})\n")
string(TIMESTAMP QUENOR_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)  # That of SOURCE_DATE_EPOCH.
configure_file(${debian}/changelog.in ${PROJECT_BINARY_DIR}/changelog @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/BeforePackages.cmake)

# quenor_package(<component> <package> <section> <summary> <description> [DEPENDS text] [EXTRA files])
function(quenor_package component package section summary description)
  cmake_parse_arguments(A "" "DEPENDS" "EXTRA" ${ARGN})
  string(TOUPPER ${component} key)
  foreach(setting "PACKAGE_NAME;${package}" "PACKAGE_SECTION;${section}"
      "DESCRIPTION;${summary}\n${description}" "PACKAGE_DEPENDS;${A_DEPENDS}")
    list(POP_FRONT setting name)
    set(CPACK_DEBIAN_${key}_${name} "${setting}" PARENT_SCOPE)
  endforeach()
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${A_EXTRA} PARENT_SCOPE)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${debian}/copyright DESTINATION ${documents} COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/changelog DESTINATION ${documents} COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${documents} RENAME NEWS
    COMPONENT ${component})
  if(EXISTS ${debian}/${component}.overrides)
    install(FILES ${debian}/${component}.overrides RENAME ${package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endif()
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
endfunction()

set(CPACK_COMPONENTS_ALL "")
set(about "quenor keeps each report of a program until a collection server has answered
that it has it, across outages, restarts and kills.")
quenor_package(quenor_runtime ${soname_package} libs "reliable report channel, shared library"
  "${about}" EXTRA ${debian}/triggers ${PROJECT_BINARY_DIR}/shlibs)
set(CPACK_DEBIAN_QUENOR_RUNTIME_PACKAGE_SHLIBDEPS ON)
quenor_package(quenor_dev libquenor-dev libdevel "reliable report channel, for development"
  "${about}
Headers for C and C++, archives, and what CMake and pkg-config need." DEPENDS
  "${soname_package} ${exactly}, libcurl4-openssl-dev (>= 7.87), libidn2-dev, libssl-dev, zlib1g-dev")
quenor_package(quenor_tools quenor-tools net "reliable report channel, command line tools"
  "${about}
quenor-report delivers from a shell; quenor-collector is a server for tests;
quenor-fleet runs a fleet and its collector in virtual time.")
set(CPACK_DEBIAN_QUENOR_TOOLS_PACKAGE_SHLIBDEPS ON)
if(EXISTS ${PROJECT_SOURCE_DIR}/python/quenor)
  quenor_package(quenor_python python3-quenor python "reliable report channel, for Python"
    "${about}
The module has no compiled part; it loads the shared library." DEPENDS
    "python3:any (>= 3.9), ${soname_package} (>= ${PROJECT_VERSION})"
    EXTRA ${debian}/postinst ${debian}/prerm)
  set(CPACK_DEBIAN_QUENOR_PYTHON_PACKAGE_ARCHITECTURE all)
endif()
include(CPack)
