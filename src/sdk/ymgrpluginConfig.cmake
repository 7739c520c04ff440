# ymgr::plugin (a plugin as a process; plugin-static: the same without a shared library) and ymgr::plugin-local (a plugin
# that the daemon loads).
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
pkg_check_modules(LIBXML2 REQUIRED QUIET IMPORTED_TARGET libxml-2.0)
include(${CMAKE_CURRENT_LIST_DIR}/ymgrpluginTargets.cmake)

# The libraries are C++ inside; projects in plain C link them too.
foreach(LIBRARY ymgr::plugin-static ymgr::plugin-local)
  get_target_property(CONFIGURATIONS ${LIBRARY} IMPORTED_CONFIGURATIONS)
  foreach(CONFIGURATION IN LISTS CONFIGURATIONS)
    set_target_properties(${LIBRARY} PROPERTIES IMPORTED_LINK_INTERFACE_LANGUAGES_${CONFIGURATION} C)
  endforeach()
  set_property(TARGET ${LIBRARY} APPEND PROPERTY INTERFACE_LINK_LIBRARIES stdc++)
endforeach()
