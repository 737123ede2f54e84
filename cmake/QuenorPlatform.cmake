# Users before what they use: every service may log, so LOG comes last.
set(QUENOR_SERVICES HTTP_CLIENT JSON TIMER DISPATCH_QUEUE MMAP_FILE CACHE_FILE CONFIG_CENTER
  PATH_SERVICE REPORT_EVENTS PROXY_CONFIG THROTTER LOG)

# quenor_link_platform(<target> [HTTP_CLIENT <lib>] [JSON <lib>] ...)
# Links the reporter, the channel and exactly one implementation of every platform service to <target>:
# the library that is named, else the default. One library may be named for several services.
function(quenor_link_platform target)
  cmake_parse_arguments(A "" "${QUENOR_SERVICES}" "" ${ARGN})
  if(A_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "quenor_link_platform(${target}): unknown service \
${A_UNPARSED_ARGUMENTS}; the services are ${QUENOR_SERVICES}")
  endif()
  if(A_KEYWORDS_MISSING_VALUES)
    message(FATAL_ERROR "quenor_link_platform(${target}): no library given for \
${A_KEYWORDS_MISSING_VALUES}")
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    set(scope INTERFACE)
  else()
    set(scope PRIVATE)
  endif()
  # Named here, as an archive that only another one asks for would stand behind the services.
  target_link_libraries(${target} ${scope} quenor::reporter quenor::channel)
  foreach(service ${QUENOR_SERVICES})
    string(TOLOWER ${service} name)
    if(A_${service})
      target_link_libraries(${target} ${scope} ${A_${service}})
    else()
      target_link_libraries(${target} ${scope} quenor::platform_default_${name})
    endif()
  endforeach()
endfunction()
