include(CMakeFindDependencyMacro)
find_dependency(quenor)
include("${CMAKE_CURRENT_LIST_DIR}/hostTargets.cmake")
