# What `cmake --install` puts where. The libraries share a private folder, where osal.so finds those it
# needs beside itself and liblcm.so the folder of components; a host product's own, named in
# LD_LIBRARY_PATH, come first. Nothing installed knows where: the prefix may be moved.
include(CMakePackageConfigHelpers)

# The component runtime refuses what others than its owner may write: a loose umask changes nothing.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

install(TARGETS osal kcstatus lcm tsreg EXPORT osal-targets
  LIBRARY DESTINATION ${OSAL_INSTALL_DIR} INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS secattr LIBRARY DESTINATION ${OSAL_INSTALL_DIR}/components)
install(FILES ${OSAL_COMPONENT_DIR}/osal.so DESTINATION ${OSAL_INSTALL_DIR}/components)
install(TARGETS osalctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES tools/osalctl/osalctl.bash RENAME osalctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(DIRECTORY include/osal include/host DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN *.h PATTERN *.hpp)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
  FILES_MATCHING PATTERN *.md PATTERN bench EXCLUDE)
install(FILES examples/hello/hello.c examples/hello/hello.cpp
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

install(DIRECTORY DESTINATION ${OSAL_INSTALL_DIR})
install(DIRECTORY DESTINATION ${OSAL_INSTALL_DIR}/components)

# find_package(osal)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/osal)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/osal-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(EXPORT osal-targets NAMESPACE osal:: DESTINATION ${package_dir})
install(FILES cmake/osal-config.cmake ${CMAKE_BINARY_DIR}/osal-config-version.cmake
  DESTINATION ${package_dir})

# pkg-config: a module a library. The paths start at the module's own file.
file(RELATIVE_PATH to_prefix /./${CMAKE_INSTALL_LIBDIR}/pkgconfig /.)
string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
function(osal_pkg_config module library description)
  configure_file(cmake/module.pc.in ${CMAKE_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
osal_pkg_config(osal osal.so "Operating-system layer with a kernel-style programming model")
osal_pkg_config(osal-lcm liblcm.so "Component runtime, the way to the interfaces of osal.so")
osal_pkg_config(osal-kcstatus libkcstatus.so "Status library of osal.so")
osal_pkg_config(osal-tsreg libtsreg.so "Registry library of osal.so")
