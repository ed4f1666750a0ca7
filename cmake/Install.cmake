# SPDX-License-Identifier: Apache-2.0
# Installs the library, its public headers, a CMake package (find_package, then link
# vrocam::ipc_wrapper_common_client) and a pkg-config file (vrocam_ipc_wrapper_common_client).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(vrocam_ipc_wrapper_common_client PROPERTIES
  EXPORT_NAME ipc_wrapper_common_client INSTALL_RPATH "$ORIGIN")
# On the host the stand-ins are installed beside the library, as the closed ones are on the device.
install(TARGETS vrocam_ipc_wrapper_common_client vrocam_ulog vrocam.debugwrapper vrocam_sysutils
                vrocam_ipc_wrapper_vro_client cutils
        EXPORT vrocamTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ipc/wrapper/common/include/IPCClientShmMgr.h
              ipc/wrapper/common/include/IPCShmTypes.h
              ipc/wrapper/common/include/VrocamExport.h
              utils/sys/SharedMemory.h utils/sys/FileDescriptor.h utils/sys/BootMode.h
        DESTINATION include/vrocam)
install(EXPORT vrocamTargets NAMESPACE vrocam::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrocam_ipc_wrapper_common_client)
configure_package_config_file(cmake/Config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrocam_ipc_wrapper_common_client)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfig.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vrocam_ipc_wrapper_common_client)
# pkg-config, beside the CMake package.
configure_file(cmake/vrocam_ipc_wrapper_common_client.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/vrocam_ipc_wrapper_common_client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vrocam_ipc_wrapper_common_client.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
add_library(vrocam::ipc_wrapper_common_client ALIAS vrocam_ipc_wrapper_common_client)
