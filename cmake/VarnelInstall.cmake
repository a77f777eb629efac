# SPDX-License-Identifier: MIT
# What a build against the installed libraries needs: the CMake package "Varnel" and files for
# pkg-config. The virtual board is a part of its own ("vboard"), which may not be installed.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Varnel)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/VarnelConfig.cmake.in ${PROJECT_BINARY_DIR}/VarnelConfig.cmake
  INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/VarnelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/VarnelConfig.cmake ${PROJECT_BINARY_DIR}/VarnelConfigVersion.cmake
  DESTINATION ${package_folder})
install(EXPORT VarnelTargets NAMESPACE Varnel:: DESTINATION ${package_folder})

function(varnel_pkg_config name)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

varnel_pkg_config(orv)
varnel_pkg_config(varnel)
if(VARNEL_BUILD_TOOLS)
  install(EXPORT VarnelVboardTargets NAMESPACE Varnel:: DESTINATION ${package_folder})
  varnel_pkg_config(varnel-vboard)
endif()
