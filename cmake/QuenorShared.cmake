# quenor::shared, libquenor.so: the C interface, and of C++ what the version script names. The
# archives go into it, hidden as they are; what it exports is compiled once more, visible.
get_target_property(c_sources quenor_c SOURCES)
get_target_property(reporter_sources quenor_reporter SOURCES)
# Of the HTTP client, what its public functions are in. A reference from an archive would hide them.
set(http_sources quenor_base/platform/http_reason.cc services/http_client_curl/client.cc
  services/http_client_curl/thrift/spending.cc)
add_library(quenor_shared SHARED ${c_sources} ${reporter_sources} ${http_sources})
add_library(quenor::shared ALIAS quenor_shared)
quenor_library_flags(quenor_shared)
target_compile_features(quenor_shared PUBLIC cxx_std_17)
target_compile_definitions(quenor_shared PUBLIC QUENOR_SHARED
  PRIVATE QUENOR_VERSION="${PROJECT_VERSION}")
target_include_directories(quenor_shared PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/c> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(quenor_shared PRIVATE quenor_platform_default_http_rules CURL::libcurl
  OpenSSL::SSL)
quenor_link_platform(quenor_shared)

configure_file(cmake/libquenor.map.in ${PROJECT_BINARY_DIR}/libquenor.map @ONLY)
target_link_options(quenor_shared PRIVATE
  LINKER:--version-script=${PROJECT_BINARY_DIR}/libquenor.map)
# The C interface is what the number stands for: C++ names carry the whole version.
set_target_properties(quenor_shared PROPERTIES OUTPUT_NAME quenor EXPORT_NAME shared
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${PROJECT_BINARY_DIR}/libquenor.map)
install(TARGETS quenor_shared EXPORT quenorSharedTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT quenor_runtime
  NAMELINK_COMPONENT quenor_dev ${QUENOR_IF_ASKED})
