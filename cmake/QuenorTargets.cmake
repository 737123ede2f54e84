# quenor_library(<name> [INTERFACE] [SRCS ...] [DEPS ...])
# A library quenor_<name> with the alias quenor::<name>, compiled as the house demands.
function(quenor_library name)
  cmake_parse_arguments(A "INTERFACE" "" "SRCS;DEPS" ${ARGN})
  if(A_INTERFACE)
    add_library(quenor_${name} INTERFACE)
    set(scope INTERFACE)
  else()
    add_library(quenor_${name} STATIC ${A_SRCS})
    set(scope PUBLIC)
    quenor_library_flags(quenor_${name})
    set_property(GLOBAL APPEND PROPERTY QUENOR_ARCHIVES quenor_${name})
    # Of what comes out of the archive, templates of the C++ library included, a shared object that
    # embeds it exports nothing.
    target_link_options(quenor_${name} INTERFACE LINKER:--exclude-libs,libquenor_${name}.a)
  endif()
  add_library(quenor::${name} ALIAS quenor_${name})
  set_target_properties(quenor_${name} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(quenor_${name} ${scope} cxx_std_17)
  target_include_directories(quenor_${name} ${scope}
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(quenor_${name} ${scope} ${A_DEPS})
  # Always in the export set: a host that exports a target over this one could not be configured else.
  install(TARGETS quenor_${name} EXPORT quenorTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT quenor_dev ${QUENOR_IF_ASKED})
endfunction()

# quenor_service(<name> [FOLDER folder] [SRCS ...] [SMALL_SRCS ...] [LIBS ...] [INCLUDES ...])
# The default implementation of one platform service: quenor::platform_default_<name>. SMALL_SRCS:
# their time goes into what they call, so an optimized build makes them small rather than fast.
function(quenor_service name)
  cmake_parse_arguments(A "" "FOLDER" "SRCS;SMALL_SRCS;LIBS;INCLUDES" ${ARGN})
  list(TRANSFORM A_SRCS PREPEND services/${A_FOLDER}/)
  list(TRANSFORM A_SMALL_SRCS PREPEND services/${A_FOLDER}/)
  quenor_library(platform_default_${name} SRCS ${A_SRCS} ${A_SMALL_SRCS}
    DEPS quenor::platform quenor::buffer)
  target_link_libraries(quenor_platform_default_${name} PRIVATE ${A_LIBS})
  target_include_directories(quenor_platform_default_${name} SYSTEM PRIVATE ${A_INCLUDES})
  target_compile_definitions(quenor_platform_default_${name} PRIVATE
    QUENOR_VERSION="${PROJECT_VERSION}")
  if(A_SMALL_SRCS AND NOT QUENOR_SANITIZE)
    set_source_files_properties(${A_SMALL_SRCS} PROPERTIES
      COMPILE_OPTIONS $<$<CONFIG:Release>:-Os>)
  endif()
endfunction()

# Flags of every target of ours; private, so that an embedder's own flags stay his.
function(quenor_flags target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${QUENOR_WERROR}>:-Werror>)
  # Built in another folder: the same bytes. Sanitizers, fuzzers and debuggers need real paths.
  if(NOT QUENOR_SANITIZE AND NOT QUENOR_BUILD_FUZZERS)
    target_compile_options(${target} PRIVATE
      "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=;-ffile-prefix-map=${PROJECT_BINARY_DIR}=.>")
  endif()
  if(QUENOR_BUILD_FUZZERS)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    target_link_options(${target} PUBLIC -fsanitize=fuzzer-no-link)
  endif()
  if(QUENOR_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE
      -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  elseif(QUENOR_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=thread)
  elseif(QUENOR_SANITIZE)
    message(FATAL_ERROR "QUENOR_SANITIZE=${QUENOR_SANITIZE}: use address or thread")
  endif()
endfunction()

# Flags of the library itself: no exceptions, but tables by which one gets through to where it ends
# the process; code that may go into a shared object, and shares nothing there with another one's.
function(quenor_library_flags target)
  quenor_flags(${target})
  target_compile_options(${target} PRIVATE -fno-exceptions -fasynchronous-unwind-tables
    $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()
